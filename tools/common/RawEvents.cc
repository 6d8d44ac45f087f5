#include "RawEvents.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "EventJson.h"

namespace zmqwriter {

namespace {

constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kReadBytes = 65536;

std::size_t read_length(std::string_view bytes) {
  std::size_t length = 0;
  for (std::size_t i = kLengthBytes; i-- > 0;)
    length = length << 8 | static_cast<unsigned char>(bytes[i]);
  return length;
}

}  // namespace

void append_raw_event(std::string* out, std::string_view message) {
  for (std::size_t i = 0; i < kLengthBytes; ++i)
    *out += static_cast<char>(message.size() >> (8 * i) & 0xff);
  out->append(message);
}

/// Reads until `size` bytes are left in the buffer or the stream ends. In pieces, so that a wrong
/// length does not allocate memory for bytes that do not exist.
void RawEventReader::Fill(std::size_t size) {
  if (left().size() >= size)
    return;
  buffer_.erase(0, taken_);
  taken_ = 0;
  while (buffer_.size() < size) {
    const std::size_t had = buffer_.size();
    buffer_.resize(had + std::min(size - had, kReadBytes));
    errno = 0;
    const std::size_t got = std::fread(&buffer_[had], 1, buffer_.size() - had, stream_);
    buffer_.resize(had + got);
    if (got == 0)
      return;
  }
}

bool RawEventReader::IsSingleEvent() {
  const std::size_t length = read_length(left());
  if (length <= kLargestEvent)
    Fill(kLengthBytes + length);
  if (left().size() == kLengthBytes + length && is_event(left().substr(kLengthBytes)))
    return false;
  Fill(kLargestEvent);  // a file of one bare event is read as a whole
  return is_event(left());
}

bool RawEventReader::Next(std::string* message) {
  const bool first = !started_;
  started_ = true;
  offset_ = position_;
  Fill(kLengthBytes);
  if (std::ferror(stream_))
    return Fail(std::string("cannot be read: ") + std::strerror(errno));
  if (left().empty())
    return false;
  if (left().size() < kLengthBytes)
    return Fail("truncated: " + std::to_string(left().size()) +
                " bytes are left where the 4-byte length of a message should be");
  if (first && IsSingleEvent())
    return Take(left().size(), message);

  const std::size_t length = read_length(left());
  if (length > kLargestEvent)
    return Fail("a message of " + std::to_string(length) +
                " bytes is announced; none has more than " + std::to_string(kLargestEvent));
  Fill(kLengthBytes + length);
  if (left().size() < kLengthBytes + length)
    return Fail("truncated: a message of " + std::to_string(length) + " bytes is announced, " +
                std::to_string(left().size() - kLengthBytes) + " are left");
  taken_ += kLengthBytes;
  position_ += kLengthBytes;
  return Take(length, message);
}

bool RawEventReader::Take(std::size_t size, std::string* message) {
  offset_ = position_;
  position_ += size;
  message->assign(left(), 0, size);
  taken_ += size;
  return true;
}

bool RawEventReader::Fail(const std::string& problem) {
  problem_ = problem;
  return false;
}

}  // namespace zmqwriter
