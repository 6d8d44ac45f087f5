#include "standin/ValueText.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <limits>
#include <memory>
#include <vector>

#include "IPAddr.h"

using threading::Value;

namespace standin {

namespace {

// What went wrong with a text; becomes parse_value's *error.
struct BadText {
  std::string reason;
};

[[noreturn]] void refuse(const std::string& text, const std::string& what) {
  // Enough to recognise the text; a log line may be very long.
  const size_t shown = 80;
  throw BadText{"\"" + get_escaped_string(text.substr(0, shown), false) +
                (text.size() > shown ? "..." : "") + "\" is not " + what};
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::string unescape(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const bool more = text[i] == '\\' && i + 1 < text.size();
    if (more && text[i + 1] == '\\') {
      result += '\\';
      ++i;
    } else if (more && text[i + 1] == 'x' && i + 3 < text.size() && hex_digit(text[i + 2]) >= 0 &&
               hex_digit(text[i + 3]) >= 0) {
      result += static_cast<char>(hex_digit(text[i + 2]) * 16 + hex_digit(text[i + 3]));
      i += 3;
    } else {
      result += text[i];
    }
  }
  return result;
}

// strtoX would also take blanks, signs and more in front, which no log contains.
bool starts_like_number(const std::string& text, bool sign_allowed) {
  const size_t first = sign_allowed && (text[0] == '-' || text[0] == '+') ? 1 : 0;
  return text.size() > first && text[first] >= '0' && text[first] <= '9';
}

bro_uint_t parse_count(const std::string& text, const char* what) {
  if (!starts_like_number(text, false))
    refuse(text, what);
  char* end = nullptr;
  errno = 0;
  const unsigned long long number = strtoull(text.c_str(), &end, 10);
  if (errno || end != text.c_str() + text.size())
    refuse(text, what);
  return number;
}

bro_int_t parse_int(const std::string& text) {
  if (!starts_like_number(text, true))
    refuse(text, "an int");
  char* end = nullptr;
  errno = 0;
  const long long number = strtoll(text.c_str(), &end, 10);
  if (errno || end != text.c_str() + text.size())
    refuse(text, "an int");
  return number;
}

double parse_double(const std::string& text, const char* what) {
  if (text == "nan")
    return std::numeric_limits<double>::quiet_NaN();
  if (text == "inf")
    return std::numeric_limits<double>::infinity();
  if (text == "-inf")
    return -std::numeric_limits<double>::infinity();
  if (!starts_like_number(text, true) ||
      text.find_first_not_of("0123456789.eE+-") != std::string::npos)
    refuse(text, what);
  char* end = nullptr;
  const double number = strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size())
    refuse(text, what);
  return number;
}

Value::port_t parse_port(const std::string& text) {
  const size_t slash = text.find('/');
  Value::port_t port;
  port.port = parse_count(text.substr(0, slash), "a port");
  port.proto = TRANSPORT_UNKNOWN;
  if (port.port > 65535)
    refuse(text, "a port");
  if (slash == std::string::npos)
    return port;
  const std::string proto = strtolower(text.substr(slash + 1));
  if (proto == "tcp")
    port.proto = TRANSPORT_TCP;
  else if (proto == "udp")
    port.proto = TRANSPORT_UDP;
  else if (proto == "icmp")
    port.proto = TRANSPORT_ICMP;
  else if (proto != "unknown")
    refuse(text, "a port");
  return port;
}

IPAddr parse_address(const std::string& text, const std::string& whole, const char* what) {
  in4_addr in4;
  if (inet_pton(AF_INET, text.c_str(), &in4) == 1)
    return IPAddr(in4);
  in6_addr in6;
  if (inet_pton(AF_INET6, text.c_str(), &in6) != 1)
    refuse(whole, what);
  return IPAddr(in6);
}

void parse_subnet(const std::string& text, Value::subnet_t* subnet) {
  const size_t slash = text.find('/');
  if (slash == std::string::npos)
    refuse(text, "a subnet");
  const IPAddr addr = parse_address(text.substr(0, slash), text, "a subnet");
  const bro_uint_t length = parse_count(text.substr(slash + 1), "a subnet's length");
  if (length > (addr.GetFamily() == IPv4 ? 32u : 128u))
    refuse(text, "a subnet: its prefix is too long");
  IPPrefix(addr, static_cast<uint8_t>(length)).ConvertToThreadingValue(subnet);
}

void set_text(Value* value, const std::string& text) {
  // A NUL behind it does no harm to a string and belongs to enums, files and functions.
  value->val.string_val.data = new char[text.size() + 1];
  memcpy(value->val.string_val.data, text.c_str(), text.size() + 1);
  value->val.string_val.length = static_cast<int>(text.size());
}

// Strings end without NUL, as the host's do, so that whoever relies on one is found out.
void set_string(Value* value, const std::string& text) {
  value->val.string_val.data = new char[text.size()];
  memcpy(value->val.string_val.data, text.data(), text.size());
  value->val.string_val.length = static_cast<int>(text.size());
}

std::unique_ptr<Value> parse(const std::string& text, TypeTag type, TypeTag subtype,
                             const ValueMarkers& markers);

std::vector<std::string> split(const std::string& text, const std::string& separator) {
  std::vector<std::string> parts;
  tokenize_string(text, separator, &parts);
  return parts;
}

// Not by Value::IsCompatibleType: type objects belong to the main thread.
bool is_atomic(TypeTag type) {
  switch (type) {
    case TYPE_BOOL:
    case TYPE_INT:
    case TYPE_COUNT:
    case TYPE_COUNTER:
    case TYPE_DOUBLE:
    case TYPE_TIME:
    case TYPE_INTERVAL:
    case TYPE_STRING:
    case TYPE_ENUM:
    case TYPE_PORT:
    case TYPE_ADDR:
    case TYPE_SUBNET:
    case TYPE_FILE:
    case TYPE_FUNC:
      return true;
    default:
      return false;
  }
}

void parse_container(const std::string& text, TypeTag subtype, const ValueMarkers& markers,
                     Value::set_t* set) {
  std::vector<std::unique_ptr<Value>> elements;
  if (text != markers.empty_field) {
    for (const std::string& element : split(text, markers.set_separator))
      elements.push_back(parse(element, subtype, TYPE_VOID, markers));
  }
  set->vals = new Value*[elements.size()];
  set->size = 0;
  for (auto& element : elements)
    set->vals[set->size++] = element.release();
}

void parse_into(Value* value, const std::string& text, TypeTag subtype,
                const ValueMarkers& markers) {
  switch (value->type) {
    case TYPE_BOOL:
      if (text != "T" && text != "F")
        refuse(text, "a bool");
      value->val.int_val = text == "T";
      return;
    case TYPE_INT:
      value->val.int_val = parse_int(text);
      return;
    case TYPE_COUNT:
    case TYPE_COUNTER:
      value->val.uint_val = parse_count(text, "a count");
      return;
    case TYPE_DOUBLE:
      value->val.double_val = parse_double(text, "a double");
      return;
    case TYPE_TIME:
      value->val.double_val = parse_double(text, "a time");
      return;
    case TYPE_INTERVAL:
      value->val.double_val = parse_double(text, "an interval");
      return;
    case TYPE_PORT:
      value->val.port_val = parse_port(text);
      return;
    case TYPE_ADDR:
      parse_address(text, text, "an address").ConvertToThreadingValue(&value->val.addr_val);
      return;
    case TYPE_SUBNET:
      parse_subnet(text, &value->val.subnet_val);
      return;
    case TYPE_STRING:
      set_string(value, text == markers.empty_field ? "" : unescape(text));
      return;
    case TYPE_ENUM:
    case TYPE_FILE:
    case TYPE_FUNC:
      set_text(value, text == markers.empty_field ? "" : unescape(text));
      return;
    case TYPE_TABLE:
    case TYPE_VECTOR:
      if (!is_atomic(subtype))
        throw BadText{std::string("containers of type ") + type_name(subtype) + " cannot be read"};
      parse_container(text, subtype, markers,
                      value->type == TYPE_TABLE ? &value->val.set_val : &value->val.vector_val);
      return;
    default:
      throw BadText{std::string("values of type ") + type_name(value->type) + " cannot be read"};
  }
}

std::unique_ptr<Value> parse(const std::string& text, TypeTag type, TypeTag subtype,
                             const ValueMarkers& markers) {
  if (text == markers.unset_field)
    return std::unique_ptr<Value>(new Value(type, false));
  std::unique_ptr<Value> value(new Value(type, true));
  parse_into(value.get(), text, subtype, markers);
  return value;
}

}  // namespace

Value* parse_value(const std::string& text, TypeTag type, TypeTag subtype,
                   const ValueMarkers& markers, std::string* error) {
  try {
    return parse(text, type, subtype, markers).release();
  } catch (const BadText& bad) {
    *error = bad.reason;
    return nullptr;
  }
}

}  // namespace standin
