// Reads one log, maps its records and passes them to its writer.
//
// To be used on the main thread, like the host's writers. Memory holds one record of the log, and
// the records that the host buffers.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "AsciiLog.h"
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

  /// Opens the log; throws AsciiLogError when it is refused.
  explicit LogFeed(const std::string& file);

  /// Makes the writer. Host and paths must outlive every call of Feed and Flush.
  void Connect(standin::Host* host, WriterPaths* paths);

  /// Reads the next record or other line. A record is passed to the writer; broken lines are
  /// counted, and the first ones reported on standard error; a header with other columns or another
  /// path makes a new writer.
  Step Feed();

  /// Passes on what the host has buffered for this writer.
  void Flush();

  /// Notes whether the host has disabled one of the log's writers because its backend failed, and
  /// so has discarded records. To be called before the host ends, because the writers end with it.
  void NoteFailure();

  /// For the report, e.g. "conn.log: 12 records, 1 broken line".
  std::string Account() const;

  bool ended() const { return ended_; }
  /// Whether the log was read to its end without any broken line, and no writer failed.
  bool whole() const { return ended_ && !unreadable_ && broken_ == 0 && !writer_failed_; }
  std::uint64_t broken() const { return broken_; }
  std::uint64_t bytes_read() const { return log_.bytes_read(); }
  /// Size of the file; 0 if it has none.
  std::uint64_t bytes_total() const { return bytes_total_; }

 private:
  void MakeWriter();
  logging::WriterFrontend* NewWriter(const std::vector<threading::Field>& fields);
  void WriteRecord();
  AsciiLog::Step NextStep();
  void ReportBroken();

  AsciiLog log_;
  standin::Host* host_ = nullptr;
  WriterPaths* paths_ = nullptr;
  std::unique_ptr<RecordMapping> mapping_;
  std::string mapped_path_;
  std::vector<AsciiLog::Column> mapped_columns_;
  logging::WriterFrontend* writer_ = nullptr;              // the host's
  logging::WriterFrontend* writer_without_uid_ = nullptr;  // made for the first such record
  std::vector<logging::WriterFrontend*> writers_;          // all of this log so far
  std::uint64_t bytes_total_;
  std::uint64_t records_ = 0;
  std::uint64_t broken_ = 0;
  bool ended_ = false;
  bool unreadable_ = false;
  bool writer_failed_ = false;
};

}  // namespace zmqwriter
