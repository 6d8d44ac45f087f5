// Files of raw event messages.
//
// In the framed form, as `collect --format raw` writes it, each message follows its length, a
// 32-bit unsigned little-endian number. A file may also hold one message and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace zmqwriter {

/// A longer message is not read, nor a longer file as a single one. No event is nearly as long.
constexpr std::size_t kLargestEvent = std::size_t{64} << 20;

/// Appends one message with its length before it.
void append_raw_event(std::string* out, std::string_view message);

/// Reads messages from a stream. Memory holds one message at a time, or
/// the first 64 MiB when they do not begin with an event.
class RawEventReader {
 public:
  /// The stream stays the caller's.
  explicit RawEventReader(std::FILE* stream) : stream_(stream) {}

  /// Reads the next message; false at the end and after a failure. The file is read as framed,
  /// unless its first frame is not a valid event and the whole file is one.
  bool Next(std::string* message);

  /// Byte offset of the message just read (of the byte after its length), or of the problem.
  std::uint64_t offset() const { return offset_; }

  /// Why reading ended early; empty at the end of the stream.
  const std::string& problem() const { return problem_; }

 private:
  void Fill(std::size_t size);
  bool IsSingleEvent();
  bool Take(std::size_t size, std::string* message);
  bool Fail(const std::string& problem);
  std::string_view left() const { return std::string_view(buffer_).substr(taken_); }

  std::FILE* stream_;
  bool started_ = false;
  std::string buffer_;          // read from the stream
  std::size_t taken_ = 0;       // of the buffer
  std::uint64_t position_ = 0;  // of what is left in it
  std::uint64_t offset_ = 0;
  std::string problem_;
};

}  // namespace zmqwriter
