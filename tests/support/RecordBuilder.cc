#include "RecordBuilder.h"

#include <arpa/inet.h>
#include <string.h>

#include <algorithm>
#include <stdexcept>

using threading::Field;
using threading::Value;

namespace test {
namespace {

char* copy_bytes(const char* data, int length) {
  char* copy = new char[length];
  std::copy(data, data + length, copy);
  return copy;
}

bool carries_text(TypeTag type) {
  return type == TYPE_STRING || type == TYPE_ENUM || type == TYPE_FILE || type == TYPE_FUNC;
}

Value* copy_value(const Value* value) {
  Value* copy = new Value(value->type, value->present);
  copy->val = value->val;
  if (!value->present)
    return copy;
  if (carries_text(value->type)) {
    copy->val.string_val.data =
        copy_bytes(value->val.string_val.data, value->val.string_val.length);
  } else if (value->type == TYPE_TABLE || value->type == TYPE_VECTOR) {
    Value::set_t& list = value->type == TYPE_TABLE ? copy->val.set_val : copy->val.vector_val;
    Value** elements = new Value*[list.size];
    for (bro_int_t i = 0; i < list.size; i++)
      elements[i] = copy_value(list.vals[i]);
    list.vals = elements;
  }
  return copy;
}

Value* integral_value(TypeTag type, std::uint64_t number) {
  Value* value = new Value(type);
  value->val.uint_val = number;
  return value;
}

Value* real_value(TypeTag type, double number) {
  Value* value = new Value(type);
  value->val.double_val = number;
  return value;
}

Value* list_of_texts(TypeTag type, const std::vector<std::string>& elements) {
  std::vector<Value*> values;
  for (const std::string& element : elements)
    values.push_back(text_value(element));
  return list_value(type, values);
}

}  // namespace

Value* text_value(const std::string& text, TypeTag type) {
  Value* value = new Value(type);
  value->val.string_val.length = static_cast<int>(text.size());
  value->val.string_val.data = copy_bytes(text.data(), value->val.string_val.length);
  return value;
}

Value* list_value(TypeTag type, const std::vector<Value*>& elements) {
  Value* value = new Value(type);
  Value::set_t& list = type == TYPE_TABLE ? value->val.set_val : value->val.vector_val;
  list.size = static_cast<bro_int_t>(elements.size());
  list.vals = new Value*[elements.size()];
  std::copy(elements.begin(), elements.end(), list.vals);
  return value;
}

Value** copy_values(RecordBuilder& record) {
  Value** copies = new Value*[record.size()];
  for (int i = 0; i < record.size(); i++)
    copies[i] = copy_value(record.vals()[i]);
  return copies;
}

RecordBuilder::~RecordBuilder() {
  for (const Field* field : fields_)
    delete field;
  for (Value* value : vals_)
    delete value;
}

RecordBuilder& RecordBuilder::text(const std::string& name, const std::string& value) {
  return raw(name, text_value(value));
}

RecordBuilder& RecordBuilder::enumerator(const std::string& name, const std::string& value) {
  return raw(name, text_value(value, TYPE_ENUM));
}

RecordBuilder& RecordBuilder::count(const std::string& name, std::uint64_t value) {
  return raw(name, integral_value(TYPE_COUNT, value));
}

RecordBuilder& RecordBuilder::integer(const std::string& name, std::int64_t value) {
  return raw(name, integral_value(TYPE_INT, static_cast<std::uint64_t>(value)));
}

RecordBuilder& RecordBuilder::boolean(const std::string& name, bool value) {
  return raw(name, integral_value(TYPE_BOOL, value ? 1 : 0));
}

RecordBuilder& RecordBuilder::port(const std::string& name, std::uint64_t value) {
  Value* result = new Value(TYPE_PORT);
  result->val.port_val.port = value;
  result->val.port_val.proto = TRANSPORT_TCP;
  return raw(name, result);
}

RecordBuilder& RecordBuilder::time(const std::string& name, double seconds) {
  return raw(name, real_value(TYPE_TIME, seconds));
}

RecordBuilder& RecordBuilder::interval(const std::string& name, double seconds) {
  return raw(name, real_value(TYPE_INTERVAL, seconds));
}

RecordBuilder& RecordBuilder::real(const std::string& name, double value) {
  return raw(name, real_value(TYPE_DOUBLE, value));
}

RecordBuilder& RecordBuilder::addr(const std::string& name, const std::string& address) {
  Value::addr_t parsed = Value::addr_t();
  if (inet_pton(AF_INET, address.c_str(), &parsed.in.in4) == 1)
    parsed.family = IPv4;
  else if (inet_pton(AF_INET6, address.c_str(), &parsed.in.in6) == 1)
    parsed.family = IPv6;
  else
    throw std::invalid_argument("no address: " + address);
  Value* result = new Value(TYPE_ADDR);
  result->val.addr_val = parsed;
  return raw(name, result);
}

RecordBuilder& RecordBuilder::set(const std::string& name,
                                  const std::vector<std::string>& elements) {
  return raw(name, list_of_texts(TYPE_TABLE, elements), TYPE_STRING);
}

RecordBuilder& RecordBuilder::vec(const std::string& name,
                                  const std::vector<std::string>& elements) {
  return raw(name, list_of_texts(TYPE_VECTOR, elements), TYPE_STRING);
}

RecordBuilder& RecordBuilder::unset(const std::string& name, TypeTag type, TypeTag subtype) {
  return raw(name, new Value(type, false), subtype);
}

RecordBuilder& RecordBuilder::raw(const std::string& name, Value* value, TypeTag subtype) {
  fields_.push_back(new Field(name.c_str(), nullptr, value->type, subtype, false));
  vals_.push_back(value);
  return *this;
}

std::vector<Field> RecordBuilder::field_list() const {
  std::vector<Field> list;
  for (const Field* field : fields_)
    list.push_back(*field);
  return list;
}

}  // namespace test
