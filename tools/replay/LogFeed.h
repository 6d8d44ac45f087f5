// Reads one log, maps its records and passes them to its writers: one for each path and set of
// columns.
//
// To be used on the main thread, like the host's writers. Memory holds one record of the log, and
// the records that the host buffers.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FollowedLog.h"
#include "LogReader.h"
#include "RecordMapping.h"
#include "standin/Host.h"

namespace zmqwriter {

/// The paths of a run's writers. The host adds a number where one would occur twice: conn, conn-2.
class WriterPaths {
 public:
  std::string Unique(const std::string& path);

 private:
  std::map<std::string, int> last_number_;  // for each path in use, the last number tried
};

class LogFeed {
 public:
  enum class Step { kRecord, kOther, kEnd };

  /// Opens the log; throws LogError when it is refused.
  explicit LogFeed(const std::string& file);
  /// Follows the log. Feed gives kEnd when there is nothing new.
  explicit LogFeed(std::unique_ptr<FollowedLog> log) : followed_(std::move(log)) {}

  /// To be called before Feed. Host and paths must outlive every call of Feed and Flush.
  void Connect(standin::Host* host, WriterPaths* paths);

  /// Reads the next record or other line. A record is passed to the writer; broken lines are
  /// counted, and the first ones reported on standard error.
  Step Feed();

  /// Passes on what the host has buffered for this writer.
  void Flush();

  /// Notes whether the host has disabled one of the log's writers because its backend failed, and
  /// so has discarded records. To be called before the host ends, because the writers end with it.
  void NoteFailure();

  /// For the report, e.g. "conn.log: 12 records, 1 broken line".
  std::string Account() const;

  bool ended() const { return ended_; }
  /// The pipe that the log is read from; null when it is read from a file, or has ended.
  const LineReader* pipe() const { return own_ && !ended_ ? &own_->lines() : nullptr; }
  /// Whether the log was read to its end without any broken line, and no writer failed.
  bool whole() const {
    return (ended_ || followed_) && !unreadable_ && broken_ == 0 && !writer_failed_;
  }
  bool writer_failed() const { return writer_failed_; }
  std::uint64_t broken() const { return broken_; }
  FollowedLog* followed() const { return followed_.get(); }
  std::uint64_t bytes_done() const { return own_ ? own_->lines().progress() : 0; }
  /// Size of the file; 0 if it has none.
  std::uint64_t bytes_total() const { return bytes_total_; }

 private:
  /// A writer, and a second one for records without uid, made for the first of them.
  struct Target {
    std::string path;
    std::vector<LogReader::Column> columns;
    RecordMapping mapping;
    logging::WriterFrontend* writer;
    logging::WriterFrontend* writer_without_uid;
  };

  void ChooseTarget();
  logging::WriterFrontend* NewWriter(const std::vector<threading::Field>& fields);
  void WriteRecord();
  LogReader::Step NextStep();
  std::string Name() const;
  void ReportBroken();

  std::unique_ptr<LogReader> own_;         // of a log that does not grow
  std::unique_ptr<FollowedLog> followed_;  // of one that does
  LogReader* log_ = nullptr;               // the reader of the current record
  LogReader* chosen_for_ = nullptr;        // the reader that target_ was chosen for
  standin::Host* host_ = nullptr;
  WriterPaths* paths_ = nullptr;
  std::vector<std::unique_ptr<Target>> targets_;
  Target* target_ = nullptr;
  std::vector<logging::WriterFrontend*> writers_;  // all of this log so far
  std::uint64_t bytes_total_ = 0;
  std::uint64_t records_ = 0;
  std::uint64_t broken_ = 0;
  bool ended_ = false;
  bool unreadable_ = false;
  bool writer_failed_ = false;
};

}  // namespace zmqwriter
