#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "IPAddr.h"
#include "threading/formatters/Ascii.h"

using threading::Field;
using threading::Value;
using threading::formatter::Ascii;

namespace {

std::unique_ptr<Value> string_value(const std::string& text, TypeTag type = TYPE_STRING) {
  std::unique_ptr<Value> value(new Value(type));
  value->val.string_val.data = new char[text.size()];
  memcpy(value->val.string_val.data, text.data(), text.size());
  value->val.string_val.length = static_cast<int>(text.size());
  return value;
}

std::unique_ptr<Value> vector_value(const std::vector<std::string>& texts) {
  std::unique_ptr<Value> value(new Value(TYPE_VECTOR));
  value->val.vector_val.size = static_cast<bro_int_t>(texts.size());
  value->val.vector_val.vals = new Value*[texts.size()];
  for (size_t i = 0; i < texts.size(); ++i)
    value->val.vector_val.vals[i] = string_value(texts[i]).release();
  return value;
}

class AsciiFormatterTest : public testing::Test {
 protected:
  // As the host's own ASCII writer would write it.
  std::string text(Value* value) {
    ODesc d;
    d.EnableEscaping();
    d.AddEscapeSequence("\t");
    EXPECT_TRUE(formatter_.Describe(&d, value, "column"));
    return d.Description();
  }
  std::string text(const std::unique_ptr<Value>& value) { return text(value.get()); }

  // Through the text and back.
  std::string round_trip(const std::string& content) {
    std::unique_ptr<Value> back(
        formatter_.ParseValue(text(string_value(content)), "column", TYPE_STRING));
    if (!back || !back->present)
      return "<lost>";
    return std::string(back->val.string_val.data, static_cast<size_t>(back->val.string_val.length));
  }

  Ascii formatter_{nullptr, Ascii::SeparatorInfo("\t", ",", "-", "(empty)")};
};

}  // namespace

TEST_F(AsciiFormatterTest, PlainValues) {
  Value count(TYPE_COUNT);
  count.val.uint_val = 7;
  EXPECT_EQ(text(&count), "7");
  Value flag(TYPE_BOOL);
  EXPECT_EQ(text(&flag), "F");
  Value port(TYPE_PORT);
  port.val.port_val.port = 443;
  port.val.port_val.proto = TRANSPORT_TCP;
  EXPECT_EQ(text(&port), "443");
  Value time(TYPE_TIME);
  time.val.double_val = 0.5;
  EXPECT_EQ(text(&time), "0.500000");
  Value number(TYPE_DOUBLE);
  number.val.double_val = 0.5;
  EXPECT_EQ(text(&number), "0.5");
  Value unset(TYPE_ADDR, false);
  EXPECT_EQ(text(&unset), "-");
}

TEST_F(AsciiFormatterTest, SubnetLengthsCountFromTheFamilysOwnStart) {
  Value subnet(TYPE_SUBNET);
  IPPrefix(IPAddr("192.168.0.0"), 16).ConvertToThreadingValue(&subnet.val.subnet_val);
  EXPECT_EQ(text(&subnet), "192.168.0.0/16");
  IPPrefix(IPAddr("2001:db8::"), 32).ConvertToThreadingValue(&subnet.val.subnet_val);
  EXPECT_EQ(text(&subnet), "2001:db8::/32");
}

TEST_F(AsciiFormatterTest, StringsAreEscaped) {
  EXPECT_EQ(text(string_value("a\tb\\c\xe4")), "a\\x09b\\\\c\\xe4");
}

TEST_F(AsciiFormatterTest, MarkersAsContent) {
  EXPECT_EQ(text(string_value("-")), "\\x2d");
  EXPECT_EQ(text(string_value("")), "(empty)");
  EXPECT_EQ(text(string_value("(empty)")), "(empty)");
}

TEST_F(AsciiFormatterTest, SetSeparatorIsEscapedInsideElementsOnly) {
  EXPECT_EQ(text(vector_value({"a,b", "c"})), "a\\x2cb,c");
  EXPECT_EQ(text(string_value("a,b")), "a,b");
  EXPECT_EQ(text(vector_value({})), "(empty)");
}

TEST_F(AsciiFormatterTest, RecordsAreJoinedByTheSeparator) {
  const Field first("a", nullptr, TYPE_STRING, TYPE_VOID, false);
  const Field second("b", nullptr, TYPE_STRING, TYPE_VOID, false);
  const Field* fields[] = {&first, &second};
  std::unique_ptr<Value> one = string_value("x"), two = string_value("y");
  Value* values[] = {one.get(), two.get()};
  ODesc d;
  EXPECT_TRUE(formatter_.Describe(&d, 2, fields, values));
  EXPECT_STREQ(d.Description(), "x\ty");
}

TEST_F(AsciiFormatterTest, EveryByteSurvivesTheRoundTrip) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte)
    all += static_cast<char>(byte);
  EXPECT_EQ(round_trip(all), all);
  EXPECT_EQ(round_trip("-"), "-");
  EXPECT_EQ(round_trip("\\x41"), "\\x41");
  EXPECT_EQ(round_trip(""), "");
}

TEST_F(AsciiFormatterTest, WhatCannotBeParsedIsNull) {
  EXPECT_EQ(formatter_.ParseValue("x", "column", TYPE_COUNT), nullptr);
}

TEST_F(AsciiFormatterTest, ProtocolsByNameInAnyCase) {
  EXPECT_EQ(formatter_.ParseProto("TCP"), TRANSPORT_TCP);
  EXPECT_EQ(formatter_.ParseProto("udp"), TRANSPORT_UDP);
  EXPECT_EQ(formatter_.ParseProto("icmp"), TRANSPORT_ICMP);
  EXPECT_EQ(formatter_.ParseProto("sctp"), TRANSPORT_UNKNOWN);
}

TEST_F(AsciiFormatterTest, SeparatorsComeUnsetBeforeEmpty) {
  const Ascii::SeparatorInfo info("1", "2", "3", "4");
  EXPECT_EQ(info.separator, "1");
  EXPECT_EQ(info.set_separator, "2");
  EXPECT_EQ(info.unset_field, "3");
  EXPECT_EQ(info.empty_field, "4");
}

TEST(ODesc, EscapingBeginsWhenAskedFor) {
  ODesc d;
  d.Add("a\tb");
  d.EnableEscaping();
  d.Add("\t");
  d.AddRaw("\t", 1);
  d.AddEscapeSequence("xy");
  d.Add("xyz");
  d.RemoveEscapeSequence("xy");
  d.Add("xy");
  EXPECT_STREQ(d.Description(), "a\tb\\x09\t\\x78\\x79zxy");
  d.Clear();
  EXPECT_EQ(d.Len(), 0);
  EXPECT_STREQ(d.Description(), "");
}
