#include "ShowValue.h"

#include <algorithm>
#include <cstdio>

using threading::Value;

namespace test {

namespace {

std::string hex(const void* data, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char*>(data)[i]);
    text += digits;
  }
  return text;
}

std::string show_addr(const Value::addr_t& addr) {
  return addr.family == IPv4 ? "v4:" + hex(&addr.in.in4, 4) : "v6:" + hex(&addr.in.in6, 16);
}

std::string show_elements(const Value::set_t& list) {
  std::string text;
  for (bro_int_t i = 0; i < list.size; ++i)
    text += (i > 0 ? " " : "") + show(*list.vals[i]);
  return text;
}

}  // namespace

std::string show(const Value& value) {
  if (!value.present) {
    const auto* const bytes = reinterpret_cast<const char*>(&value.val);
    const bool zero = std::all_of(bytes, bytes + sizeof value.val, [](char c) { return c == 0; });
    return zero ? "unset" : "unset over garbage";
  }
  char number[64];
  switch (value.type) {
    case TYPE_BOOL:
    case TYPE_INT:
      return std::to_string(value.val.int_val);
    case TYPE_COUNT:
    case TYPE_COUNTER:
      return std::to_string(value.val.uint_val);
    case TYPE_DOUBLE:
    case TYPE_TIME:
    case TYPE_INTERVAL:
      std::snprintf(number, sizeof number, "%.17g", value.val.double_val);
      return number;
    case TYPE_PORT:
      return std::to_string(value.val.port_val.port) +
             (value.val.port_val.proto == TRANSPORT_UNKNOWN ? "" : " with a protocol");
    case TYPE_ADDR:
      return show_addr(value.val.addr_val);
    case TYPE_SUBNET:
      return show_addr(value.val.subnet_val.prefix) + "/" +
             std::to_string(value.val.subnet_val.length);
    case TYPE_STRING:
    case TYPE_ENUM:
    case TYPE_FILE:
    case TYPE_FUNC:
      return "'" +
             std::string(value.val.string_val.data,
                         static_cast<std::size_t>(value.val.string_val.length)) +
             "'";
    case TYPE_TABLE:
      return "{" + show_elements(value.val.set_val) + "}";
    case TYPE_VECTOR:
      return "[" + show_elements(value.val.vector_val) + "]";
    default:
      return "a value of another type";
  }
}

}  // namespace test
