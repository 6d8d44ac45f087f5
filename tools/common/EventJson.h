// Event messages in readable form.
//
// The JSON form of an event is one object in one line, with the fields in the schema's order:
//
//     {"uid":"CbFEAq","ts":1300475167.096535,"tz_minutes_west":0,"agent_id":"agent-7",
//      "data_type":"GenericProtocolData","data":{"ptype":null,"fields":[{"key":"a","value":"b"}]}}
//
//   - Every field is given. A string, vector or table that the message lacks is null, a number
//     that it lacks has the schema's default, 0.
//   - `data_type` is the name of the payload's table, "NONE" for no payload, and the bare number
//     for a type that this program does not know. `data` is null when there is no payload or its
//     type is unknown.
//   - Addresses (the only byte vectors) are text: "192.0.2.1", "2001:db8::1", "" when empty, and
//     "0x..." in hexadecimal when they are neither 4 nor 16 bytes long.
//   - Enumerations are given by name, by number when the number has no name.
//   - Floating-point numbers have as many digits as it takes to read back the same number. What
//     JSON has no number for is one of the strings "NaN", "Infinity" and "-Infinity".
//   - 64-bit numbers are written in full; readers that keep numbers as doubles round them.
//   - The pairs of GenericProtocolData stay an array, since their order counts and keys may occur
//     twice.
//   - Strings are meant to be UTF-8, but logs hold what the network held. A byte that is no part
//     of valid UTF-8 becomes the lone surrogate \udc80 ... \udcff that Python's "surrogateescape"
//     uses, so json.loads(line)[...].encode("utf-8", "surrogateescape") gives the exact bytes.
//
// The text form is for the eye: time, agent, uid, type, then name=value for each field of the
// payload. Texts with blanks and the like are quoted as in JSON, "-" stands for absent ones. It is
// one line on any terminal: control characters beyond ASCII and line separators are escaped too.
//
// Which fields there are is taken from the schema at build time; nothing here repeats it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zmqwriter {

/// One received message, verified: every reference in it leads to bytes of it, nothing is nested
/// deeper than the schema allows for, and printing it takes memory in proportion to its size. It
/// refers to the bytes it was made from, which must outlive it (it keeps a copy of its own where
/// they are not aligned as the format needs).
class EventMessage {
 public:
  EventMessage(const void* data, std::size_t size);
  EventMessage(const EventMessage&) = delete;
  EventMessage& operator=(const EventMessage&) = delete;

  /// Whether the bytes are one whole event. If not, only problem() may be called.
  bool valid() const { return problem_.empty(); }
  const std::string& problem() const { return problem_; }

  std::string Json() const;
  std::string Text() const;
  /// As `data_type` in the JSON form, without quotes.
  std::string PayloadType() const;
  /// The payload's number in the schema's union; any byte may stand there.
  std::uint8_t PayloadNumber() const;
  /// The sender's `agent_id`: any bytes, empty also when the message lacks it.
  std::string_view AgentId() const;

 private:
  const std::uint8_t* data_;
  std::vector<std::uint8_t> aligned_;
  std::string problem_;
};

/// As EventMessage::PayloadType.
std::string payload_type_name(std::uint8_t number);

/// The JSON form of one message. If it is no event the result is empty and `error` says why.
std::string event_to_json(const void* data, std::size_t size, std::string* error);

/// Appends `text` as a JSON string with its quotes.
void append_json_string(std::string* out, const char* text, std::size_t size);

}  // namespace zmqwriter
