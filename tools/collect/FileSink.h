// Formats received events and writes them to standard output or to a file that rotates.
//
// Events are buffered and written whole: a file neither begins nor ends inside one. While the
// output accepts nothing for a reason that may pass (a full disk, a slow reader), Flush blocks,
// tries again every second, and reports that once; part of an event is cut off the file meanwhile.
// After a stop signal it gives up when nothing could be written for 30 s. After giving up, or a
// failure that does not pass (a reader that has gone), nothing more is written, and lost_events()
// counts the events that were not. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "CollectStats.h"
#include "EventJson.h"
#include "EventSink.h"
#include "RotatingFile.h"

namespace zmqwriter {

struct FileSinkOptions {
  std::string format = "json";    // or "text", "raw"
  std::string path;               // empty: standard output
  std::uint64_t rotate_size = 0;  // bytes that a file may have; 0: no rotation
  std::uint64_t rotate_keep = 0;  // finished files to keep; 0: all
  bool exit_on_full = false;      // give up at once, but for a slow reader
  JsonBytes json_bytes = JsonBytes::kSurrogate;
};

class FileSink : public EventSink {
 public:
  /// What agents may have under way at the end: with exit_on_full, room for it is kept.
  static constexpr std::uint64_t kReserve = std::uint64_t{64} << 20;
  static constexpr std::uint64_t kReserveEach = std::uint64_t{8} << 20;  // for each connection

  /// `stats` gets the figures of the output. Throws std::runtime_error when the file cannot be
  /// opened or is full, or standard output is closed. What a former run left in the file stays
  /// there until Begin.
  FileSink(const FileSinkOptions& options, CollectStats* stats);

  /// Moves aside the file of a former run.
  void Begin() override;

  /// A file is rotated before an event that would make it too long; a longer event gets a file of
  /// its own.
  void Write(const EventMessage& event, std::string_view raw) override;
  void Flush() override;

  /// With exit_on_full: when less than the reserve is free where the file is.
  std::string full() const override;

 private:
  std::uint64_t reserve() const;
  std::string_view Formatted(const EventMessage& event, std::string_view raw);
  bool IsFull(std::size_t next) const;
  void RotateIfFull(std::size_t next);
  void FollowPath();
  int WriteOut();
  void Drop(std::size_t bytes);
  void WaitAfter(int error);
  void Fail(int error);
  void NoteOutput();

  const FileSinkOptions options_;
  CollectStats* const stats_;
  std::unique_ptr<RotatingFile> file_;  // none: standard output
  std::string formatted_;
  std::string buffer_;
  std::vector<std::size_t> ends_;  // of the events in the buffer
  std::uint64_t rotate_at_;        // file size; grows when a rotation was not possible
  std::uint64_t written_bytes_ = 0;
  bool stalled_ = false;
  bool out_of_place_ = false;  // the open file, and its path cannot be opened
  int last_waits_ = 0;         // after a stop signal, without progress
  bool told_end_ = false;      // that they have begun
};

}  // namespace zmqwriter
