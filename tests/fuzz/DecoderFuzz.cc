// Any bytes as an event message, and as a file of framed messages.
//
// What is refused names a reason. What is accepted prints: as JSON that another parser reads, as
// one line that is valid UTF-8, in memory in proportion to the message, and the same wherever in
// memory the message lies. Its agent's label is fit for a line too. A file of messages is read to
// an end or to a problem, and what was read makes up the file.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "CollectStats.h"
#include "EventJson.h"
#include "RawEvents.h"
#include "Text.h"

namespace {

using namespace zmqwriter;

// The name of a field with its punctuation is shorter than this, and no field takes fewer than the
// 4 bytes of a reference or a place in a vtable of 2; six characters are the longest escape.
constexpr std::size_t kPrintedPerByte = 64;
constexpr std::size_t kPrintedAnyway = std::size_t{8} << 20;

void require(bool holds, const char* what) {
  if (holds)
    return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

bool is_one_line(const std::string& text) {
  const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = utf8_length(bytes + i, text.size() - i);
    if (length == 0 || (length == 1 && !is_printable(bytes + i, 1)))
      return false;
    i += length;
  }
  return true;
}

/// The parser does not take the lone surrogates that stand for bytes that are no text.
bool is_json(std::string text) {
  for (std::size_t at = 0; (at = text.find("\\udc", at)) != std::string::npos; at += 4)
    text.replace(at, 4, "\\u00");
  return nlohmann::json::accept(text);
}

void decode(const std::uint8_t* data, std::size_t size) {
  const EventMessage event(data, size);
  if (!event.valid()) {
    require(!event.problem().empty(), "refused without a reason");
    return;
  }
  const std::string json = event.Json();
  require(is_json(json), "this is no JSON");
  require(is_one_line(json), "JSON of more than a line");
  const std::string text = event.Text();
  require(is_one_line(text), "text of more than a line");
  require(json.size() + text.size() <= kPrintedAnyway + kPrintedPerByte * size,
          "printed out of proportion");
  require(is_one_line(agent_label(event.AgentId())), "label of more than a line");

  CollectStats stats;
  stats.CountEvent(event, size);
  require(stats.Counts().by_type.count(event.PayloadType()) == 1, "counted under another type");

  std::vector<std::uint8_t> shifted(data, data + size);
  shifted.insert(shifted.begin(), 0);
  require(EventMessage(shifted.data() + 1, size).Json() == json, "another address, another event");
}

void read_file(const std::uint8_t* data, std::size_t size) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
  require(file && std::fwrite(data, 1, size, file.get()) == size, "cannot write a file");
  std::rewind(file.get());
  RawEventReader reader(file.get());
  std::string framed;
  std::string message;
  while (reader.Next(&message)) {
    require(reader.offset() + message.size() <= size, "read beyond the end");
    append_raw_event(&framed, message);
  }
  const std::string_view whole(reinterpret_cast<const char*>(data), size);
  if (framed.size() == size + 4)  // one bare event
    require(std::string_view(framed).substr(4) == whole, "read something else");
  else
    require(whole.substr(0, framed.size()) == framed, "read something else");
  require(!reader.problem().empty() || framed.size() >= size, "ended early without a problem");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  decode(data, size);
  read_file(data, size);
  return 0;
}
