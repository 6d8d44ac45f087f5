#include "LogValues.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <limits>

#include "Text.h"

using threading::Value;

namespace zmqwriter {

namespace {

struct NamedType {
  const char* name;
  TypeTag tag;
};

// The atomic types that the host can log.
constexpr NamedType kAtomicTypes[] = {
    {"bool", TYPE_BOOL},         {"int", TYPE_INT},       {"count", TYPE_COUNT},
    {"counter", TYPE_COUNTER},   {"double", TYPE_DOUBLE}, {"time", TYPE_TIME},
    {"interval", TYPE_INTERVAL}, {"string", TYPE_STRING}, {"enum", TYPE_ENUM},
    {"port", TYPE_PORT},         {"addr", TYPE_ADDR},     {"subnet", TYPE_SUBNET},
    {"file", TYPE_FILE},         {"func", TYPE_FUNC},
};

constexpr NamedType kContainerTypes[] = {{"set", TYPE_TABLE}, {"vector", TYPE_VECTOR}};

template <std::size_t N>
TypeTag find_type(const NamedType (&types)[N], std::string_view name) {
  for (const NamedType& type : types) {
    if (name == type.name)
      return type.tag;
  }
  return TYPE_ERROR;
}

template <typename Number>
Number parse_integer(std::string_view text, const char* what) {
  Number value = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, value);
  if (parsed.ec == std::errc::result_out_of_range && parsed.ptr == end)
    throw BadValue(in_quotes(text) + " is out of range for " + what);
  if (parsed.ec != std::errc() || parsed.ptr != end)
    throw BadValue(in_quotes(text) + " is not a valid " + what);
  return value;
}

constexpr unsigned char kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

/// Reads an address of either family as 128 bits, IPv4 mapped into IPv6. Returns the number of
/// bits before the address's own, 96 or 0, or -1 if it is not an address.
int parse_address_bits(std::string_view text, unsigned char (&bits)[16]) {
  const std::string terminated(text);
  if (terminated.size() != strlen(terminated.c_str()))
    return -1;
  if (inet_pton(AF_INET6, terminated.c_str(), bits) == 1)
    return 0;
  memcpy(bits, kMappedPrefix, sizeof kMappedPrefix);
  return inet_pton(AF_INET, terminated.c_str(), bits + 12) == 1 ? 96 : -1;
}

Value::addr_t to_addr(const unsigned char (&bits)[16]) {
  Value::addr_t addr;
  memset(&addr, 0, sizeof addr);
  if (memcmp(bits, kMappedPrefix, sizeof kMappedPrefix) == 0) {
    addr.family = IPv4;
    memcpy(&addr.in.in4, bits + 12, 4);
  } else {
    addr.family = IPv6;
    memcpy(&addr.in.in6, bits, 16);
  }
  return addr;
}

Value::addr_t parse_addr(std::string_view text) {
  unsigned char bits[16];
  if (parse_address_bits(text, bits) < 0)
    throw BadValue(in_quotes(text) + " is not an address");
  return to_addr(bits);
}

Value::subnet_t parse_subnet(std::string_view text) {
  const auto slash = text.find('/');
  unsigned char bits[16];
  const int offset =
      slash == std::string_view::npos ? -1 : parse_address_bits(text.substr(0, slash), bits);
  if (offset < 0)
    throw BadValue(in_quotes(text) + " is not a subnet");
  const auto length = parse_integer<unsigned>(text.substr(slash + 1), "prefix length");
  if (length > static_cast<unsigned>(128 - offset))
    throw BadValue(in_quotes(text) + " has a prefix that is longer than the address");

  const unsigned total = length + static_cast<unsigned>(offset);
  for (unsigned bit = total; bit < 128; ++bit)
    bits[bit / 8] = static_cast<unsigned char>(bits[bit / 8] & ~(0x80 >> (bit % 8)));
  Value::subnet_t subnet;
  memset(&subnet, 0, sizeof subnet);
  subnet.prefix = to_addr(bits);
  subnet.length = static_cast<uint8_t>(total);
  return subnet;
}

}  // namespace

bool parse_type(std::string_view text, TypeTag* type, TypeTag* subtype) {
  *subtype = TYPE_VOID;
  const auto bracket = text.find('[');
  if (bracket == std::string_view::npos || text.back() != ']') {
    *type = find_type(kAtomicTypes, text);
    return *type != TYPE_ERROR;
  }
  *type = find_type(kContainerTypes, text.substr(0, bracket));
  *subtype = find_type(kAtomicTypes, text.substr(bracket + 1, text.size() - bracket - 2));
  return *type != TYPE_ERROR && *subtype != TYPE_ERROR;
}

bool is_container(TypeTag type) {
  return type == TYPE_TABLE || type == TYPE_VECTOR;
}

bool is_text(TypeTag type) {
  return type == TYPE_STRING || type == TYPE_ENUM || type == TYPE_FILE || type == TYPE_FUNC;
}

std::string in_quotes(std::string_view text) {
  constexpr std::size_t kLongest = 60;
  std::string result = "'";
  for (const char c : text.substr(0, kLongest)) {
    const auto byte = static_cast<unsigned char>(c);
    result +=
        byte < 0x20 || byte >= 0x7f ? "\\x" + hex_digits(&c, 1, kLowerHex) : std::string(1, c);
  }
  return result + (text.size() > kLongest ? "...'" : "'");
}

double parse_double(std::string_view text) {
  // strtod accepts more than a log holds: leading blanks, hexadecimal, "nan(...)". It uses the C
  // locale, because no program of this project calls setlocale.
  if (text.empty() || text.find_first_not_of("0123456789+-.eEinfa") != std::string_view::npos)
    throw BadValue(in_quotes(text) + " is not a number");
  const std::string terminated(text);
  char* end = nullptr;
  errno = 0;
  const double value = strtod(terminated.c_str(), &end);
  if (*end != '\0')
    throw BadValue(in_quotes(text) + " is not a number");
  // A result that is too small for a double is rounded to 0 or a tiny number, which is fine.
  if (errno == ERANGE && (value > 1 || value < -1))
    throw BadValue(in_quotes(text) + " is out of range for a double");
  return value;
}

ValuePtr unset_value(TypeTag type) {
  return std::make_unique<Value>(type, false);
}

/// Enum, file and func texts are terminated, as the host stores them.
ValuePtr text_value(TypeTag type, std::string_view text) {
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
    throw BadValue("the text is longer than a value can hold");
  auto value = std::make_unique<Value>(type, true);
  const bool terminated = type != TYPE_STRING;
  value->val.string_val.data = new char[text.size() + (terminated ? 1 : 0)];
  value->val.string_val.length = static_cast<int>(text.size());
  memcpy(value->val.string_val.data, text.data(), text.size());
  if (terminated)
    value->val.string_val.data[text.size()] = '\0';
  return value;
}

ValuePtr plain_value(TypeTag type, std::string_view text) {
  auto value = std::make_unique<Value>(type, true);
  switch (type) {
    case TYPE_BOOL:
      if (text != "T" && text != "F")
        throw BadValue(in_quotes(text) + " is not a bool, which is T or F");
      value->val.int_val = text == "T";
      break;
    case TYPE_INT:
      value->val.int_val = parse_integer<bro_int_t>(text, "int");
      break;
    case TYPE_COUNT:
    case TYPE_COUNTER:
      value->val.uint_val = parse_integer<bro_uint_t>(text, "count");
      break;
    case TYPE_PORT:
      value->val.port_val.port = parse_integer<uint16_t>(text, "port");
      value->val.port_val.proto = TRANSPORT_UNKNOWN;
      break;
    case TYPE_ADDR:
      value->val.addr_val = parse_addr(text);
      break;
    case TYPE_SUBNET:
      value->val.subnet_val = parse_subnet(text);
      break;
    default:
      value->val.double_val = parse_double(text);
      break;
  }
  return value;
}

ValuePtr container_value(TypeTag type, std::vector<ValuePtr> elements) {
  auto value = std::make_unique<Value>(type, true);
  auto& list = type == TYPE_TABLE ? value->val.set_val : value->val.vector_val;
  list.vals = new Value*[elements.size()];
  list.size = static_cast<bro_int_t>(elements.size());
  for (std::size_t i = 0; i < elements.size(); ++i)
    list.vals[i] = elements[i].release();
  return value;
}

}  // namespace zmqwriter
