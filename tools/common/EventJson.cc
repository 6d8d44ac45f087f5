#include "EventJson.h"

#include <arpa/inet.h>
#include <time.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include <flatbuffers/flatbuffers.h>
#include <flatbuffers/minireflect.h>

#include "Text.h"

// The schema's header with the tables that describe it. The namespace keeps its names apart from
// those of the plain header, which other units of a program may include.
namespace reflected {
#include "aggregator_reflected.h"
}

namespace zmqwriter {

namespace {

using flatbuffers::TypeTable;
using reflected::Dravenholt::NetworkEvent;

constexpr std::size_t kLargestMessage = 0x7fffffff;

// The schema nests tables three deep (event, payload, pair); the rest is room for a schema that
// grows.
constexpr flatbuffers::uoffset_t kDeepest = 8;

// Many pairs may refer to the same string, and a small message would then print as gigabytes. The
// plug-in's events share no strings, so their texts are never longer than the message.
constexpr std::uint64_t kSharedText = std::uint64_t{1} << 20;

void append_escape(std::string* out, unsigned code) {
  char text[7];
  std::snprintf(text, sizeof text, "\\u%04x", code);
  *out += text;
}

void append_ascii(std::string* out, unsigned char c) {
  static const char kSpecial[] = "\"\\\n\r\t";
  const char* const special = c ? std::strchr(kSpecial, c) : nullptr;
  if (special)
    (*out += '\\') += "\"\\nrt"[special - kSpecial];
  else if (c < 0x20 || c == 0x7f)
    append_escape(out, c);
  else
    *out += static_cast<char>(c);
}

/// The code point of a valid UTF-8 sequence of two or three bytes.
unsigned code_point(const unsigned char* sequence, std::size_t length) {
  unsigned code = sequence[0] & (length == 2 ? 0x1fu : 0x0fu);
  for (std::size_t i = 1; i < length; ++i)
    code = code << 6 | (sequence[i] & 0x3fu);
  return code;
}

/// How many bytes at the start need no escape in a JSON string. Most texts need none at all.
std::size_t plain_length(const unsigned char* text, std::size_t size) {
  std::size_t length = 0;
  while (length < size && text[length] >= 0x20 && text[length] < 0x7f && text[length] != '"' &&
         text[length] != '\\')
    ++length;
  return length;
}

/// U+FFFD in UTF-8.
constexpr char kReplacement[] = "\xef\xbf\xbd";

/// Whether every reader takes the text as a JSON string: valid UTF-8 without NUL.
bool is_strict(const char* text, std::size_t size) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  for (std::size_t i = 0; i < size;) {
    const std::size_t length = utf8_length(bytes + i, size - i);
    if (length == 0 || bytes[i] == 0)
      return false;
    i += length;
  }
  return true;
}

/// Appends a JSON string. `for_terminal` also escapes what JSON allows unescaped: control
/// characters beyond ASCII and line separators. `replace` is JsonBytes::kReplace.
void append_quoted(std::string* out, const char* text, std::size_t size, bool for_terminal,
                   bool replace = false) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  *out += '"';
  for (std::size_t i = 0; i < size;) {
    const std::size_t plain = plain_length(bytes + i, size - i);
    out->append(text + i, plain);
    i += plain;
    if (i == size)
      break;
    const std::size_t length = utf8_length(bytes + i, size - i);
    if (replace && (length == 0 || bytes[i] == 0))
      *out += kReplacement;
    else if (length == 1)
      append_ascii(out, bytes[i]);
    else if (length == 0)
      append_escape(out, 0xdc00u + bytes[i]);
    else if (for_terminal && !is_printable(bytes + i, length))
      append_escape(out, code_point(bytes + i, length));
    else
      out->append(text + i, length);
    i += length == 0 ? 1 : length;
  }
  *out += '"';
}

/// Whether a text needs no quotes in the text form.
bool is_plain(const char* text, std::size_t size) {
  if (size == 0 || (size == 1 && *text == '-'))
    return false;
  for (std::size_t i = 0; i < size; ++i) {
    if (text[i] <= ' ' || text[i] >= 0x7f || std::strchr("\"\\={}[]", text[i]))
      return false;
  }
  return true;
}

/// An address's bytes as text.
std::string address_text(const std::uint8_t* bytes, std::size_t size) {
  char text[INET6_ADDRSTRLEN];
  if (size == 0)
    return "";
  if (size == 4 || size == 16) {
    inet_ntop(size == 4 ? AF_INET : AF_INET6, bytes, text, sizeof text);
    return text;
  }
  return "0x" + hex_digits(bytes, size, kLowerHex);
}

/// "2011-03-18T19:06:07.096535Z"; the number itself if it is not in the years 1970 to 9999.
std::string time_text(double ts) {
  constexpr double kYear9999 = 253402300800.0;
  if (!(ts >= 0 && ts < kYear9999))
    return formatted("%g", ts);
  char text[64];
  const auto micros = static_cast<long long>(std::llround(ts * 1e6));
  const auto seconds = static_cast<time_t>(micros / 1000000);
  struct tm date;
  gmtime_r(&seconds, &date);
  const std::size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &date);
  std::snprintf(text + length, sizeof text - length, ".%06lldZ", micros % 1000000);
  return text;
}

/// The table of a union's member; null for none and for a number that the schema does not know.
const TypeTable* member_table(const TypeTable* types, std::size_t member) {
  return member > 0 && member < types->num_elems
             ? types->type_refs[types->type_codes[member].sequence_ref]()
             : nullptr;
}

enum class Style { kJson, kText };

/// Writes verified tables by means of the schema's description. FlatBuffers' own iteration is used
/// for single values only: IterateObject skips absent fields, and does not expect a payload without
/// a type, which the verifier allows.
class Printer : private flatbuffers::IterationVisitor {
 public:
  Printer(Style style, std::string* out, JsonBytes bytes = JsonBytes::kSurrogate)
      : json_(style == Style::kJson), bytes_(bytes), out_(*out) {}

  void PrintTable(const void* table, const TypeTable* types) {
    out_ += '{';
    PrintFields(table, types);
    out_ += '}';
  }

  void PrintFields(const void* table, const TypeTable* types) {
    const std::uint8_t* previous = nullptr;
    for (std::size_t i = 0; i < types->num_elems; ++i) {
      if (i > 0)
        out_ += json_ ? ',' : ' ';
      if (json_)
        out_ += '"';
      out_ += types->names[i];
      out_ += json_ ? "\":" : "=";
      const std::uint8_t* const field = static_cast<const flatbuffers::Table*>(table)->GetAddressOf(
          flatbuffers::FieldIndexToOffset(static_cast<flatbuffers::voffset_t>(i)));
      PrintField(field, types->type_codes[i], types, previous);
      previous = field;
    }
  }

  void PrintText(const char* text, std::size_t size) {
    if (json_)
      append_json_string(&out_, text, size, bytes_);
    else if (is_plain(text, size))
      out_.append(text, size);
    else
      append_quoted(&out_, text, size, true);
  }

  void String(const flatbuffers::String* text) override {
    if (text)
      PrintText(text->c_str(), text->size());
    else
      PrintAbsent();
  }

 private:
  void PrintAbsent() { out_ += json_ ? "null" : "-"; }

  /// `field` is null for a field that the table lacks; `previous` is the field before it, which
  /// for a union holds its type.
  void PrintField(const std::uint8_t* field, flatbuffers::TypeCode code, const TypeTable* types,
                  const std::uint8_t* previous) {
    const TypeTable* ref = code.sequence_ref >= 0 ? types->type_refs[code.sequence_ref]() : nullptr;
    const auto type = static_cast<flatbuffers::ElementaryType>(code.base_type);
    if (type == flatbuffers::ET_SEQUENCE && ref->st == flatbuffers::ST_UNION)
      ref = member_table(ref, previous ? *previous : 0);
    if (code.is_repeating && field)
      PrintVector(field + flatbuffers::ReadScalar<flatbuffers::uoffset_t>(field), type, ref);
    else if (code.is_repeating)
      PrintAbsent();
    else
      PrintValue(field, type, ref);
  }

  void PrintVector(const std::uint8_t* start, flatbuffers::ElementaryType type,
                   const TypeTable* ref) {
    const auto* const vector = reinterpret_cast<const flatbuffers::Vector<std::uint8_t>*>(start);
    if (type == flatbuffers::ET_CHAR) {
      const std::string text = address_text(vector->Data(), vector->size());
      PrintText(text.data(), text.size());
      return;
    }
    out_ += '[';
    const std::uint8_t* element = vector->Data();
    for (flatbuffers::uoffset_t i = 0; i < vector->size(); ++i) {
      if (i > 0)
        out_ += json_ ? ',' : ' ';
      PrintValue(element, type, ref);
      element += flatbuffers::InlineSize(type, ref);
    }
    out_ += ']';
  }

  void PrintValue(const std::uint8_t* value, flatbuffers::ElementaryType type,
                  const TypeTable* ref) {
    alignas(8) static const std::uint8_t kZero[8] = {};
    const bool refers = type == flatbuffers::ET_STRING || type == flatbuffers::ET_SEQUENCE;
    if (refers && (!value || (type == flatbuffers::ET_SEQUENCE && !ref)))
      PrintAbsent();
    else if (type == flatbuffers::ET_SEQUENCE)
      PrintTable(value + flatbuffers::ReadScalar<flatbuffers::uoffset_t>(value), ref);
    else
      flatbuffers::IterateValue(type, value ? value : kZero, ref, nullptr, -1, this);
  }

  /// By its name if it has one.
  template <typename Number>
  void Integer(Number number, const char* name = nullptr) {
    if (name)
      PrintText(name, std::strlen(name));
    else
      out_ += std::to_string(number);
  }

  void UType(std::uint8_t number, const char* name) override { Integer(number, name); }
  void Char(std::int8_t number, const char* name) override { Integer(number, name); }
  void UChar(std::uint8_t number, const char* name) override { Integer(number, name); }
  void Short(std::int16_t number, const char* name) override { Integer(number, name); }
  void UShort(std::uint16_t number, const char* name) override { Integer(number, name); }
  void Int(std::int32_t number, const char* name) override { Integer(number, name); }
  void UInt(std::uint32_t number, const char* name) override { Integer(number, name); }
  void Long(std::int64_t number) override { Integer(number); }
  void ULong(std::uint64_t number) override { Integer(number); }
  void Bool(bool value) override { out_ += value ? "true" : "false"; }
  void Float(float number) override { Double(static_cast<double>(number)); }
  void Double(double number) override {
    if (std::isfinite(number))
      out_ += nlohmann::json(number).dump();  // the shortest digits that read back the same
    else
      Integer(0, std::isnan(number) ? "NaN" : number > 0 ? "Infinity" : "-Infinity");
  }

  const bool json_;
  const JsonBytes bytes_;
  std::string& out_;
};

const NetworkEvent* root(const std::uint8_t* data) {
  return flatbuffers::GetRoot<NetworkEvent>(data);
}

/// Bytes of all keys and values, counted as often as they are referred to.
std::uint64_t text_of_pairs(const NetworkEvent* event) {
  const auto* const generic = event->data_as_GenericProtocolData();
  if (!generic || !generic->fields())
    return 0;
  std::uint64_t bytes = 0;
  for (const auto* const pair : *generic->fields())
    bytes += (pair->key() ? pair->key()->size() : 0) + (pair->value() ? pair->value()->size() : 0);
  return bytes;
}

}  // namespace

void append_json_string(std::string* out, const char* text, std::size_t size, JsonBytes bytes) {
  if (bytes == JsonBytes::kBase64 && !is_strict(text, size))
    *out += "{\"base64\":\"" + base64(text, size) + "\"}";
  else
    append_quoted(out, text, size, false, bytes == JsonBytes::kReplace);
}

EventMessage::EventMessage(const void* data, std::size_t size)
    : data_(static_cast<const std::uint8_t*>(data)) {
  if (size == 0) {
    problem_ = "empty message";
    return;
  }
  if (size > kLargestMessage) {
    problem_ = "message of more than 2 GiB";
    return;
  }
  if (reinterpret_cast<std::uintptr_t>(data) % alignof(double) != 0) {
    aligned_.assign(data_, data_ + size);
    data_ = aligned_.data();
  }
  // Each table is referred to, by 4 bytes at least.
  const auto most_tables = static_cast<flatbuffers::uoffset_t>(size / 4);
  flatbuffers::Verifier verifier(data_, size, kDeepest, most_tables);
  if (!reflected::Dravenholt::VerifyNetworkEventBuffer(verifier) ||
      text_of_pairs(root(data_)) > 2 * std::uint64_t{size} + kSharedText)
    problem_ = "these " + std::to_string(size) + " bytes are no event message";
}

std::string EventMessage::Json(JsonBytes bytes) const {
  std::string out;
  out.reserve(1024);  // that is enough for most events
  Printer(Style::kJson, &out, bytes)
      .PrintTable(root(data_), reflected::Dravenholt::NetworkEventTypeTable());
  return out;
}

std::string EventMessage::Text() const {
  const NetworkEvent* const event = root(data_);
  std::string out = time_text(event->ts()) + ' ';
  Printer printer(Style::kText, &out);
  printer.String(event->agent_id());
  out += ' ';
  printer.String(event->uid());
  out += ' ' + PayloadType();
  const TypeTable* const types =
      member_table(reflected::Dravenholt::DataTypeTable(), PayloadNumber());
  if (event->data() && types) {
    out += ' ';
    printer.PrintFields(event->data(), types);
  }
  return out;
}

std::string EventMessage::PayloadType() const {
  return payload_type_name(PayloadNumber());
}

std::uint8_t EventMessage::PayloadNumber() const {
  return root(data_)->data_type();
}

std::string_view EventMessage::AgentId() const {
  const flatbuffers::String* const agent = root(data_)->agent_id();
  return agent ? agent->string_view() : std::string_view();
}

bool is_event(std::string_view bytes) {
  return EventMessage(bytes.data(), bytes.size()).valid();
}

std::string payload_type_name(std::uint8_t number) {
  const char* const name = flatbuffers::EnumName(number, reflected::Dravenholt::DataTypeTable());
  return name ? name : std::to_string(number);
}

std::string event_to_json(const void* data, std::size_t size, std::string* error, JsonBytes bytes) {
  const EventMessage event(data, size);
  if (event.valid())
    return event.Json(bytes);
  *error = event.problem();
  return "";
}

}  // namespace zmqwriter
