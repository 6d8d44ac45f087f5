#include "threading/SerialTypes.h"

#include <gtest/gtest.h>

#include <cstring>

#include "Poison.h"
#include "standin/Scripts.h"

using threading::Field;
using threading::Value;

namespace {

Value* string_value(const char* text) {
  Value* value = new Value(TYPE_STRING);
  value->val.string_val.length = static_cast<int>(strlen(text));
  value->val.string_val.data = new char[strlen(text)];
  memcpy(value->val.string_val.data, text, strlen(text));
  return value;
}

}  // namespace

TEST(SerialTypes, ValueIs32BytesWithTheUnionAtEight) {
  EXPECT_EQ(sizeof(Value), 32u);
  EXPECT_EQ(offsetof(Value, type), 0u);
  EXPECT_EQ(offsetof(Value, present), 4u);
  EXPECT_EQ(offsetof(Value, val), 8u);
  EXPECT_EQ(sizeof(Value::_val), 24u);
  EXPECT_EQ(sizeof(Value::set_t), 16u);
  EXPECT_EQ(sizeof(Value::port_t), 16u);
  EXPECT_EQ(sizeof(Value::addr_t), 20u);
  EXPECT_EQ(offsetof(Value::addr_t, in), 4u);
  EXPECT_EQ(sizeof(Value::subnet_t), 24u);
  EXPECT_EQ(offsetof(Value::subnet_t, length), 20u);
}

TEST(SerialTypes, FieldIs32Bytes) {
  EXPECT_EQ(sizeof(Field), 32u);
  EXPECT_EQ(offsetof(Field, name), 0u);
  EXPECT_EQ(offsetof(Field, secondary_name), 8u);
  EXPECT_EQ(offsetof(Field, type), 16u);
  EXPECT_EQ(offsetof(Field, subtype), 20u);
  EXPECT_EQ(offsetof(Field, optional), 24u);
}

TEST(SerialTypes, UnsetValueIsAllZero) {
  const Value value(TYPE_STRING, false);
  const char zero[sizeof(Value::_val)] = {};
  EXPECT_EQ(memcmp(&value.val, zero, sizeof(zero)), 0);
  EXPECT_FALSE(value.present);
  EXPECT_EQ(value.type, TYPE_STRING);
}

TEST(SerialTypes, TagsHaveTheHostsNumbersAndNames) {
  EXPECT_EQ(TYPE_VOID, 0);
  EXPECT_EQ(TYPE_STRING, 8);
  EXPECT_EQ(TYPE_ENUM, 10);
  EXPECT_EQ(TYPE_PORT, 12);
  EXPECT_EQ(TYPE_TABLE, 16);
  EXPECT_EQ(TYPE_VECTOR, 22);
  EXPECT_EQ(TYPE_ERROR, 25);
  EXPECT_EQ(NUM_TYPES, 26);
  EXPECT_STREQ(type_name(TYPE_VOID), "void");
  EXPECT_STREQ(type_name(TYPE_LIST), "types");
  EXPECT_STREQ(type_name(TYPE_SUBNET), "subnet");
  EXPECT_STREQ(type_name(TYPE_ERROR), "error");
}

TEST(SerialTypes, EnumerationsOfTheNetworkLayerHaveTheHostsNumbers) {
  EXPECT_EQ(TRANSPORT_UNKNOWN, 0);
  EXPECT_EQ(TRANSPORT_TCP, 1);
  EXPECT_EQ(TRANSPORT_UDP, 2);
  EXPECT_EQ(TRANSPORT_ICMP, 3);
  EXPECT_EQ(IPv4, 0);
  EXPECT_EQ(IPv6, 1);
}

TEST(SerialTypes, TypeNamesOfContainersNameTheElement) {
  EXPECT_EQ(Field("a", nullptr, TYPE_COUNT, TYPE_VOID, false).TypeName(), "count");
  EXPECT_EQ(Field("a", nullptr, TYPE_TABLE, TYPE_STRING, false).TypeName(), "set[string]");
  EXPECT_EQ(Field("a", nullptr, TYPE_VECTOR, TYPE_ADDR, false).TypeName(), "vector[addr]");
}

TEST(SerialTypes, CopiedFieldOwnsItsStrings) {
  Field* original = new Field("id.orig_h", "second", TYPE_ADDR, TYPE_VOID, true);
  const Field copy(*original);
  delete original;
  EXPECT_STREQ(copy.name, "id.orig_h");
  EXPECT_STREQ(copy.secondary_name, "second");
  EXPECT_EQ(copy.type, TYPE_ADDR);
  EXPECT_TRUE(copy.optional);
}

TEST(SerialTypes, PoisonOverwritesTheUnionAndUnsetsTheValue) {
  Value* value = string_value("secret");
  standin::poison(value);
  EXPECT_FALSE(value->present);
  EXPECT_EQ(value->type, TYPE_ERROR);
  unsigned char expected[sizeof(Value::_val)];
  memset(expected, standin::kPoisonByte, sizeof(expected));
  EXPECT_EQ(memcmp(&value->val, expected, sizeof(expected)), 0);
  delete value;
}

TEST(SerialTypes, PoisonReachesTheElementsOfContainers) {
  // What leaks or is freed twice here, the sanitizers tell.
  for (const TypeTag tag : {TYPE_TABLE, TYPE_VECTOR}) {
    Value* value = new Value(tag);
    Value::set_t& set = tag == TYPE_TABLE ? value->val.set_val : value->val.vector_val;
    set.size = 2;
    set.vals = new Value*[2];
    set.vals[0] = string_value("element");
    set.vals[1] = new Value(TYPE_STRING, false);
    standin::poison(value);
    EXPECT_FALSE(value->present);
    delete value;
  }
}

TEST(SerialTypes, OnlyAtomicElementsCanBeLoggedInContainers) {
  const auto compatible = [](BroType* type) {
    const bool result = Value::IsCompatibleType(type);
    Unref(type);
    return result;
  };
  EXPECT_TRUE(compatible(base_type(TYPE_STRING)));
  EXPECT_FALSE(compatible(base_type(TYPE_ANY)));
  EXPECT_FALSE(compatible(base_type(TYPE_PATTERN)));
  EXPECT_TRUE(compatible(new VectorType(base_type(TYPE_ADDR))));
  EXPECT_FALSE(compatible(new VectorType(new VectorType(base_type(TYPE_ADDR)))));
  EXPECT_TRUE(compatible(standin::record_type("r", {})));
  EXPECT_FALSE(compatible(new VectorType(standin::record_type("r", {}))));
}
