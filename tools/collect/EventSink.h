// Formats received events and writes them to standard output or to a file that rotates.
//
// Events are buffered and written whole: a file neither begins nor ends inside one. Flush blocks
// while the output accepts nothing; signals do not end that. After a failure (a full disk, a reader
// that has gone) nothing more is written: part of an event is cut off the file again, and
// lost_events() counts the events that were not written. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "RotatingFile.h"

namespace zmqwriter {

class EventMessage;

struct SinkOptions {
  std::string format = "json";    // or "text", "raw"
  std::string path;               // empty: standard output
  std::uint64_t rotate_size = 0;  // bytes that a file may have; 0: no rotation
  std::uint64_t rotate_keep = 0;  // finished files to keep; 0: all
};

class EventSink {
 public:
  /// Throws std::runtime_error when the file cannot be opened, or standard output is closed. What a
  /// former run left in the file stays there until Begin.
  explicit EventSink(const SinkOptions& options);

  /// To be called before the first Write: moves aside the file of a former run. Throws
  /// std::runtime_error when that is not possible.
  void Begin();

  /// `raw` is the message that `event` was made from. A file is rotated before an event that would
  /// make it too long; a longer event gets a file of its own.
  void Write(const EventMessage& event, std::string_view raw);
  void Flush();

  bool failed() const { return !problem_.empty(); }
  /// Why writing failed, for standard error.
  const std::string& problem() const { return problem_; }
  std::uint64_t lost_events() const { return lost_events_; }

  std::uint64_t written_bytes() const { return written_bytes_; }
  std::uint64_t finished_files() const { return file_ ? file_->finished() : 0; }

 private:
  std::string_view Formatted(const EventMessage& event, std::string_view raw);
  void RotateIfFull(std::size_t next);
  void Fail(std::size_t written);

  const SinkOptions options_;
  std::unique_ptr<RotatingFile> file_;  // none: standard output
  std::string formatted_;
  std::string buffer_;
  std::vector<std::size_t> ends_;  // of the events in the buffer
  std::uint64_t rotate_at_;        // file size; grows when a rotation was not possible
  std::uint64_t written_bytes_ = 0;
  std::uint64_t lost_events_ = 0;
  std::string problem_;
};

}  // namespace zmqwriter
