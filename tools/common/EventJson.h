// Event messages in readable form.
//
// The JSON form of an event is one object in one line, with the fields in the schema's order:
//
//     {"uid":"CbFEAq","ts":1300475167.096535,"tz_minutes_west":0,"agent_id":"agent-7",
//      "data_type":"GenericProtocolData","data":{"ptype":null,"fields":[{"key":"a","value":"b"}]}}
//
//   - Every field is given. An absent string, vector or table is null, an absent number is 0, the
//     schema's default.
//   - `data_type` is the name of the payload's table, "NONE" without a payload, and the number of
//     a type that this program does not know. `data` is null without a payload of a known type.
//   - Addresses (the only byte vectors) are text: "192.0.2.1", "2001:db8::1", "" when empty, and
//     "0x..." in hexadecimal when they are neither 4 nor 16 bytes long.
//   - Enumerations are given by name, a number without a name as the number.
//   - Floating-point numbers have the fewest digits that read back as the same number. The values
//     that JSON lacks are the strings "NaN", "Infinity" and "-Infinity".
//   - 64-bit numbers are written in full; readers that keep numbers as doubles round them.
//   - The pairs of GenericProtocolData are an array, because their order counts and keys may occur
//     twice.
//   - What JSON cannot hold as it is depends on JsonBytes.
//
// The text form is one line to read: time, agent, uid, type, then name=value for each field of the
// payload. Texts with blanks and the like are quoted as in JSON; "-" stands for an absent one.
// Control characters beyond ASCII and line separators are escaped too.
//
// The fields are taken from the schema at build time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zmqwriter {

/// What becomes of bytes that are not part of valid UTF-8, and of NUL, in the texts of JSON.
enum class JsonBytes {
  /// The lone surrogates \udc80 to \udcff of Python's "surrogateescape", and \u0000. Nothing is
  /// lost: json.loads(line)[...].encode("utf-8", "surrogateescape") gives the exact bytes. Readers
  /// that demand Unicode, such as PostgreSQL's jsonb, refuse them.
  kSurrogate,
  /// U+FFFD for each. Every reader takes that, but what was there is lost.
  kReplace,
  /// {"base64":"..."} in place of a text that has any. Every reader takes that, nothing is lost.
  kBase64
};

/// One received message, verified: every reference in it leads to bytes of it, tables are not
/// nested deeper than in the schema, and printing it takes memory in proportion to its size. The
/// bytes that it was made from must outlive it (it copies bytes that are not aligned).
class EventMessage {
 public:
  EventMessage(const void* data, std::size_t size);
  EventMessage(const EventMessage&) = delete;
  EventMessage& operator=(const EventMessage&) = delete;

  /// Whether the bytes are one whole event. If not, only problem() may be called.
  bool valid() const { return problem_.empty(); }
  const std::string& problem() const { return problem_; }

  std::string Json(JsonBytes bytes = JsonBytes::kSurrogate) const;
  std::string Text() const;
  /// As `data_type` in the JSON form, without quotes.
  std::string PayloadType() const;
  /// The payload's number in the schema's union; any byte may stand there.
  std::uint8_t PayloadNumber() const;
  /// The sender's `agent_id`: any bytes; empty when it is absent.
  std::string_view AgentId() const;

 private:
  const std::uint8_t* data_;
  std::vector<std::uint8_t> aligned_;
  std::string problem_;
};

/// Whether the bytes are one whole event.
bool is_event(std::string_view bytes);

/// As EventMessage::PayloadType.
std::string payload_type_name(std::uint8_t number);

/// The JSON form of one message. If it is not an event, the result is empty and `error` says why.
std::string event_to_json(const void* data, std::size_t size, std::string* error,
                          JsonBytes bytes = JsonBytes::kSurrogate);

/// Appends `text` as a JSON string with its quotes; see JsonBytes::kBase64 for the exception.
void append_json_string(std::string* out, const char* text, std::size_t size,
                        JsonBytes bytes = JsonBytes::kSurrogate);

}  // namespace zmqwriter
