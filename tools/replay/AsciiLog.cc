#include "AsciiLog.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <limits>

#include "Text.h"

using threading::Value;

namespace zmqwriter {

namespace {

/// A problem of one value. Caught in this file.
class BadValue : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

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

/// Reads "count", "set[addr]", ...; false for types that no log can hold.
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

/// Whether there is \xHH at `i`; sets `byte`.
bool hex_escape_at(std::string_view text, std::size_t i, char* byte) {
  if (i + 3 >= text.size() || text[i] != '\\' || text[i + 1] != 'x')
    return false;
  unsigned char value = 0;
  const char* const digits = text.data() + i + 2;
  const bool both = std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2;
  *byte = static_cast<char>(value);
  return both;
}

/// Undoes the escapes. Header lines, unlike records, do not escape backslashes.
std::string unescape(std::string_view text, bool in_header) {
  std::string plain;
  plain.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char byte;
    if (hex_escape_at(text, i, &byte)) {
      plain += byte;
      i += 3;
    } else {
      plain += text[i];
      if (!in_header && text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '\\')
        ++i;
    }
  }
  return plain;
}

/// A value's text for a message: short, and printable on one line.
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

/// Gives `value` a text as the host stores it: enum, file and func texts are terminated.
void set_text(Value* value, const std::string& text) {
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
    throw BadValue("the text is longer than a value can hold");
  const bool terminated = value->type != TYPE_STRING;
  value->val.string_val.data = new char[text.size() + (terminated ? 1 : 0)];
  value->val.string_val.length = static_cast<int>(text.size());
  memcpy(value->val.string_val.data, text.data(), text.size());
  if (terminated)
    value->val.string_val.data[text.size()] = '\0';
}

ValuePtr new_value(TypeTag type, bool present = true) {
  return std::make_unique<Value>(type, present);
}

std::string default_path(const std::string& file) {
  return std::filesystem::path(file).stem().string();
}

std::FILE* open_log(const std::string& file) {
  std::error_code ignored;
  if (std::filesystem::is_directory(file, ignored))
    throw AsciiLogError(file + ": this is a folder, not a log");
  std::FILE* const stream = std::fopen(file.c_str(), "rb");
  if (!stream)
    throw AsciiLogError(file + ": cannot be read: " + strerror(errno));
  return stream;
}

}  // namespace

AsciiLog::AsciiLog(const std::string& file) : AsciiLog(open_log(file), file) {}

AsciiLog::AsciiLog(std::FILE* stream, const std::string& name)
    : file_(name), stream_(stream, std::fclose) {
  ReadFirstHeader();
}

void AsciiLog::Refuse(const std::string& reason) const {
  throw AsciiLogError(file_ + ":" + std::to_string(line_number_) + ": " + reason);
}

AsciiLog::Step AsciiLog::Broken(const std::string& reason) {
  problem_ = file_ + ":" + std::to_string(line_number_) + ": " + reason;
  return Step::kBroken;
}

/// Reads the next line into line_; false at the end of the file.
bool AsciiLog::ReadLine() {
  errno = 0;
  char* buffer = buffer_.release();
  const ssize_t length = getline(&buffer, &buffer_size_, stream_.get());
  buffer_.reset(buffer);
  if (length < 0) {
    if (std::ferror(stream_.get()))
      throw AsciiLogError(file_ + ": cannot be read: " + strerror(errno));
    return false;
  }
  ++line_number_;
  bytes_read_ += static_cast<std::uint64_t>(length);
  line_ = std::string_view(buffer, static_cast<std::size_t>(length));
  line_complete_ = line_.back() == '\n';
  if (line_complete_)
    line_.remove_suffix(1);
  // Inside a record a carriage return is always escaped, so this one belongs to the line end.
  if (line_complete_ && !line_.empty() && line_.back() == '\r')
    line_.remove_suffix(1);
  return true;
}

bool AsciiLog::IsMeta() const {
  return line_.compare(0, header_.prefix.size(), header_.prefix) == 0;
}

void AsciiLog::ReadFirstHeader() {
  constexpr std::string_view kFirst = "separator ";
  if (!ReadLine())
    throw AsciiLogError(file_ + ": file without header: it is empty");
  // Some editors begin a UTF-8 file with a byte order mark.
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  if (line_.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0)
    line_.remove_prefix(kByteOrderMark.size());
  // The meta prefix is the part of the first line before its first word.
  const auto word = line_.find(kFirst);
  if (word != std::string_view::npos && word > 0 && word <= 16)
    StartHeader(line_.substr(0, word), line_.substr(word + kFirst.size()));
  else if (IsMeta())
    TakeMetaLine();
  else
    Refuse("file without header: a log begins with '#separator', '#fields' and '#types' lines");

  ReadMetaLines();
  const std::string problem = UseHeader();
  if (!problem.empty())
    Refuse("file without a usable header: " + problem);
}

/// Takes the meta lines up to the next record, which then waits in line_, or up to the end.
void AsciiLog::ReadMetaLines() {
  while (!line_pending_ && ReadLine()) {
    if (IsMeta())
      TakeMetaLine();
    else
      line_pending_ = true;
  }
}

/// A `separator` line begins a new header, from the defaults.
void AsciiLog::StartHeader(std::string_view prefix, std::string_view separator) {
  Header fresh;
  fresh.prefix = prefix;
  fresh.separator = unescape(separator, true);
  header_ = fresh;
  header_changed_ = true;
}

void AsciiLog::TakeMetaLine() {
  const std::string_view text = line_.substr(header_.prefix.size());
  constexpr std::string_view kSeparator = "separator ";
  if (text.compare(0, kSeparator.size(), kSeparator) == 0) {
    StartHeader(header_.prefix, text.substr(kSeparator.size()));
    return;
  }
  const auto words = Split(text, header_.separator);
  const std::string_view name = words.front();
  const std::string_view value =
      words.size() > 1 ? text.substr(name.size() + header_.separator.size()) : std::string_view();
  if (name == "set_separator") {
    header_.set_separator = unescape(value, true);
  } else if (name == "empty_field") {
    header_.empty_text = value;
    header_.empty_field = unescape(value, true);
  } else if (name == "unset_field") {
    header_.unset_text = value;
    header_.unset_field = unescape(value, true);
  } else if (name == "path") {
    header_.path = unescape(value, true);
  } else if (name == "fields") {
    header_.names.clear();
    for (std::size_t i = 1; i < words.size(); ++i)
      header_.names.push_back(unescape(words[i], true));
  } else if (name == "types") {
    header_.types.assign(words.begin() + 1, words.end());
  } else {
    return;
  }
  header_changed_ = true;
}

/// Makes the header lines read so far the header in use; returns what is wrong with them, or "".
std::string AsciiLog::UseHeader() {
  header_changed_ = false;
  header_usable_ = false;
  if (header_.separator.empty() || header_.separator.find('\n') != std::string::npos)
    return "the separator is empty or holds a line end";
  if (header_.names.empty() || header_.types.empty())
    return "there must be a '" + header_.prefix + "fields' and a '" + header_.prefix +
           "types' line with at least one column";
  if (header_.names.size() != header_.types.size())
    return std::to_string(header_.names.size()) + " fields but " +
           std::to_string(header_.types.size()) + " types";

  std::vector<Column> columns;
  for (std::size_t i = 0; i < header_.names.size(); ++i) {
    Column column{header_.names[i], TYPE_ERROR, TYPE_VOID};
    if (column.name.empty() || column.name.find('\0') != std::string::npos)
      return "column " + std::to_string(i + 1) + " has no usable name";
    if (!parse_type(header_.types[i], &column.type, &column.subtype))
      return "column '" + column.name + "' has the unknown type " + in_quotes(header_.types[i]);
    if (is_container(column.type) && header_.set_separator.empty())
      return "column '" + column.name + "' is a " + header_.types[i] +
             ", but the set separator is empty";
    columns.push_back(column);
  }
  path_ = header_.path.empty() ? default_path(file_) : header_.path;
  columns_ = columns;
  header_usable_ = true;
  return "";
}

AsciiLog::Step AsciiLog::Next() {
  values_.clear();
  tokens_.clear();
  ReadMetaLines();
  if (header_changed_) {
    // The header is complete: a record follows, which waits, or the end of the file.
    const std::string problem = UseHeader();
    return problem.empty() ? Step::kHeader : Broken("unusable header: " + problem);
  }
  if (!line_pending_)
    return Step::kEnd;
  line_pending_ = false;
  return ParseRecord();
}

AsciiLog::Step AsciiLog::ParseRecord() {
  if (!header_usable_)
    return Broken("no record can be read after an unusable header");
  if (!line_complete_)
    return Broken("the last line has no line end, so it may be cut");
  tokens_ = Split(line_, header_.separator);
  if (tokens_.size() != columns_.size())
    return Broken(std::to_string(tokens_.size()) + " columns instead of " +
                  std::to_string(columns_.size()));
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    try {
      values_.push_back(ParseValue(tokens_[i], columns_[i]));
    } catch (const BadValue& error) {
      values_.clear();
      return Broken("column '" + columns_[i].name + "': " + error.what());
    }
  }
  return Step::kRecord;
}

std::vector<ValuePtr> AsciiLog::TakeValues() {
  return std::move(values_);
}

std::vector<std::string_view> AsciiLog::Split(std::string_view text,
                                              std::string_view separator) const {
  std::vector<std::string_view> pieces;
  for (;;) {
    // An empty separator, which only a broken header gives, splits nothing.
    const auto end = separator.empty() ? std::string_view::npos : text.find(separator);
    pieces.push_back(text.substr(0, end));
    if (end == std::string_view::npos)
      return pieces;
    text.remove_prefix(end + separator.size());
  }
}

bool AsciiLog::IsUnsetMarker(std::string_view token) const {
  return token == header_.unset_field || token == header_.unset_text;
}

bool AsciiLog::IsEmptyMarker(std::string_view token) const {
  return token == header_.empty_field || token == header_.empty_text;
}

bool AsciiLog::IsUnset(std::size_t column) const {
  return IsUnsetMarker(tokens_.at(column));
}

std::string AsciiLog::Text(std::size_t column) const {
  const std::string_view token = tokens_.at(column);
  const Column& type = columns_.at(column);
  if (IsUnsetMarker(token))
    return "";
  if (!is_container(type.type))
    return is_text(type.type) && IsEmptyMarker(token) ? "" : unescape(token, false);
  if (IsEmptyMarker(token))
    return "";

  std::string text;
  bool first = true;
  for (const std::string_view element : Split(token, header_.set_separator)) {
    if (!first)
      text += ',';
    first = false;
    if (IsUnsetMarker(element))
      text += '-';
    else if (!is_text(type.subtype) || !IsEmptyMarker(element))
      text += unescape(element, false);
  }
  return text;
}

ValuePtr AsciiLog::ParseValue(std::string_view token, const Column& column) const {
  if (IsUnsetMarker(token))
    return new_value(column.type, false);
  if (is_container(column.type))
    return ParseContainer(token, column);
  return ParseAtomic(token, column.type);
}

ValuePtr AsciiLog::ParseContainer(std::string_view token, const Column& column) const {
  std::vector<ValuePtr> elements;
  if (!IsEmptyMarker(token)) {
    for (const std::string_view element : Split(token, header_.set_separator)) {
      elements.push_back(IsUnsetMarker(element) ? new_value(column.subtype, false)
                                                : ParseAtomic(element, column.subtype));
    }
  }
  ValuePtr value = new_value(column.type);
  auto& list = column.type == TYPE_TABLE ? value->val.set_val : value->val.vector_val;
  list.vals = new Value*[elements.size()];
  list.size = static_cast<bro_int_t>(elements.size());
  for (std::size_t i = 0; i < elements.size(); ++i)
    list.vals[i] = elements[i].release();
  return value;
}

ValuePtr AsciiLog::ParseAtomic(std::string_view token, TypeTag type) const {
  ValuePtr value = new_value(type, false);  // present only when whole, as its destructor trusts it
  switch (type) {
    case TYPE_BOOL:
      if (token != "T" && token != "F")
        throw BadValue(in_quotes(token) + " is not a bool, which is T or F");
      value->val.int_val = token == "T";
      break;
    case TYPE_INT:
      value->val.int_val = parse_integer<bro_int_t>(token, "int");
      break;
    case TYPE_COUNT:
    case TYPE_COUNTER:
      value->val.uint_val = parse_integer<bro_uint_t>(token, "count");
      break;
    case TYPE_DOUBLE:
    case TYPE_TIME:
    case TYPE_INTERVAL:
      value->val.double_val = parse_double(token);
      break;
    case TYPE_PORT:
      value->val.port_val.port = parse_integer<uint16_t>(token, "port");
      value->val.port_val.proto = TRANSPORT_UNKNOWN;
      break;
    case TYPE_ADDR:
      value->val.addr_val = parse_addr(token);
      break;
    case TYPE_SUBNET:
      value->val.subnet_val = parse_subnet(token);
      break;
    default:
      set_text(value.get(), IsEmptyMarker(token) ? "" : unescape(token, false));
      break;
  }
  value->present = true;
  return value;
}

}  // namespace zmqwriter
