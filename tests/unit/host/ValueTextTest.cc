#include "standin/ValueText.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

using threading::Value;

namespace {

// One text read as one type, with the markers of a stock log.
struct Read {
  explicit Read(const std::string& text, TypeTag type, TypeTag subtype = TYPE_VOID,
                const standin::ValueMarkers& markers = standin::ValueMarkers())
      : value(standin::parse_value(text, type, subtype, markers, &error)) {}

  std::string string() const { return string_of(*value); }

  static std::string string_of(const Value& v) {
    return std::string(v.val.string_val.data, static_cast<size_t>(v.val.string_val.length));
  }

  std::string error;
  std::unique_ptr<Value> value;
};

std::vector<std::string> strings(const Value::set_t& set) {
  std::vector<std::string> result;
  for (bro_int_t i = 0; i < set.size; ++i)
    result.push_back(set.vals[i]->present ? Read::string_of(*set.vals[i]) : "<unset>");
  return result;
}

}  // namespace

TEST(ValueText, NumbersOfEveryKind) {
  EXPECT_EQ(Read("T", TYPE_BOOL).value->val.int_val, 1);
  EXPECT_EQ(Read("F", TYPE_BOOL).value->val.int_val, 0);
  EXPECT_EQ(Read("-5", TYPE_INT).value->val.int_val, -5);
  EXPECT_EQ(Read("+5", TYPE_INT).value->val.int_val, 5);
  EXPECT_EQ(Read("18446744073709551615", TYPE_COUNT).value->val.uint_val, ~uint64_t(0));
  EXPECT_EQ(Read("1340213005.165293", TYPE_TIME).value->val.double_val, 1340213005.165293);
  EXPECT_EQ(Read("-0.5", TYPE_INTERVAL).value->val.double_val, -0.5);
  EXPECT_EQ(Read("3e+10", TYPE_DOUBLE).value->val.double_val, 3e10);
  EXPECT_TRUE(std::isnan(Read("nan", TYPE_DOUBLE).value->val.double_val));
}

TEST(ValueText, WhatIsNoNumberIsRefusedWithAReason) {
  for (const char* text : {"", "x", "1x", " 1", "-1", "18446744073709551616", "0x10"}) {
    const Read read(text, TYPE_COUNT);
    EXPECT_EQ(read.value, nullptr) << text;
    EXPECT_EQ(read.error, "\"" + get_escaped_string(text, false) + "\" is not a count");
  }
  EXPECT_EQ(Read("9223372036854775808", TYPE_INT).value, nullptr);
  EXPECT_EQ(Read("0x1p3", TYPE_DOUBLE).value, nullptr);
  EXPECT_EQ(Read("true", TYPE_BOOL).value, nullptr);
  EXPECT_EQ(Read("1.5.2", TYPE_TIME).value, nullptr);
}

TEST(ValueText, UnsetMarkerGivesAnUnsetValueOfAnyType) {
  for (const TypeTag type : {TYPE_BOOL, TYPE_COUNT, TYPE_STRING, TYPE_ADDR, TYPE_TABLE}) {
    const Read read("-", type, TYPE_STRING);
    ASSERT_NE(read.value, nullptr);
    EXPECT_FALSE(read.value->present);
    EXPECT_EQ(read.value->type, type);
  }
}

TEST(ValueText, EscapesInStringsAreUndone) {
  EXPECT_EQ(Read("a\\x09b", TYPE_STRING).string(), "a\tb");
  EXPECT_EQ(Read("\\\\x41", TYPE_STRING).string(), "\\x41");
  EXPECT_EQ(Read("\\x2d", TYPE_STRING).string(), "-");
  EXPECT_EQ(Read("\\xe4\\x00", TYPE_STRING).string(), std::string("\xe4\0", 2));
  EXPECT_EQ(Read("a\\", TYPE_STRING).string(), "a\\");
}

TEST(ValueText, EmptyMarkerIsTheEmptyString) {
  EXPECT_EQ(Read("(empty)", TYPE_STRING).string(), "");
  EXPECT_EQ(Read("", TYPE_STRING).string(), "");
}

TEST(ValueText, EnumsEndWithNul) {
  const Read read("Notice::LOG", TYPE_ENUM);
  EXPECT_EQ(read.value->val.string_val.length, 11);
  EXPECT_STREQ(read.value->val.string_val.data, "Notice::LOG");
}

TEST(ValueText, PortsHaveAnOptionalProtocol) {
  EXPECT_EQ(Read("443", TYPE_PORT).value->val.port_val.port, 443u);
  EXPECT_EQ(Read("443", TYPE_PORT).value->val.port_val.proto, TRANSPORT_UNKNOWN);
  EXPECT_EQ(Read("53/udp", TYPE_PORT).value->val.port_val.proto, TRANSPORT_UDP);
  EXPECT_EQ(Read("65536", TYPE_PORT).value, nullptr);
  EXPECT_EQ(Read("53/sctp", TYPE_PORT).value, nullptr);
}

TEST(ValueText, AddressesOfBothFamilies) {
  const Read v4("192.0.2.1", TYPE_ADDR);
  EXPECT_EQ(v4.value->val.addr_val.family, IPv4);
  EXPECT_EQ(ntohl(v4.value->val.addr_val.in.in4.s_addr), 0xc0000201u);
  EXPECT_EQ(Read("2001:db8::1", TYPE_ADDR).value->val.addr_val.family, IPv6);
  EXPECT_EQ(Read("::ffff:192.0.2.1", TYPE_ADDR).value->val.addr_val.family, IPv4);
  EXPECT_EQ(Read("192.0.2", TYPE_ADDR).value, nullptr);
}

TEST(ValueText, SubnetLengthsCountFrom128) {
  const Read v4("192.168.7.7/16", TYPE_SUBNET);
  EXPECT_EQ(v4.value->val.subnet_val.length, 112);
  EXPECT_EQ(ntohl(v4.value->val.subnet_val.prefix.in.in4.s_addr), 0xc0a80000u);
  EXPECT_EQ(Read("2001:db8::/32", TYPE_SUBNET).value->val.subnet_val.length, 32);
  EXPECT_EQ(Read("192.168.0.0/33", TYPE_SUBNET).value, nullptr);
  EXPECT_EQ(Read("192.168.0.0", TYPE_SUBNET).value, nullptr);
}

TEST(ValueText, ContainersWithEscapedSeparatorsAndUnsetElements) {
  const Read vec("a,-,b\\x2cc,(empty)", TYPE_VECTOR, TYPE_STRING);
  EXPECT_EQ(strings(vec.value->val.vector_val),
            (std::vector<std::string>{"a", "<unset>", "b,c", ""}));
  EXPECT_EQ(Read("(empty)", TYPE_TABLE, TYPE_COUNT).value->val.set_val.size, 0);
  EXPECT_EQ(Read("1,2,3", TYPE_TABLE, TYPE_COUNT).value->val.set_val.size, 3);
}

TEST(ValueText, OneBadElementRefusesTheContainer) {
  const Read read("1,x,3", TYPE_TABLE, TYPE_COUNT);
  EXPECT_EQ(read.value, nullptr);
  EXPECT_EQ(read.error, "\"x\" is not a count");
}

TEST(ValueText, OtherMarkersAreObeyed) {
  standin::ValueMarkers markers;
  markers.set_separator = "|";
  markers.unset_field = "NIL";
  markers.empty_field = "";
  EXPECT_EQ(strings(Read("a|b", TYPE_VECTOR, TYPE_STRING, markers).value->val.vector_val),
            (std::vector<std::string>{"a", "b"}));
  EXPECT_FALSE(Read("NIL", TYPE_STRING, TYPE_VOID, markers).value->present);
  EXPECT_EQ(Read("-", TYPE_STRING, TYPE_VOID, markers).string(), "-");
  EXPECT_EQ(Read("", TYPE_TABLE, TYPE_STRING, markers).value->val.set_val.size, 0);
}

TEST(ValueText, TypesThatNoLogHoldsAreRefused) {
  EXPECT_EQ(Read("x", TYPE_PATTERN).error, "values of type pattern cannot be read");
  EXPECT_EQ(Read("x", TYPE_TABLE, TYPE_TABLE).error, "containers of type table cannot be read");
}

TEST(ValueText, LongTextsAreShortenedInReasons) {
  EXPECT_LT(Read(std::string(100000, 'x'), TYPE_COUNT).error.size(), 200u);
}
