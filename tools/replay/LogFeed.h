// One log on its way into its writer: reads, maps, hands over.
//
// Belongs to the main thread, as the host's writers do. The log streams: memory holds one record
// beside what the host buffers.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
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
  std::set<std::string> used_;
};

class LogFeed {
 public:
  enum class Step { kRecord, kOther, kEnd };

  /// Opens the log; throws AsciiLogError when it is refused.
  explicit LogFeed(const std::string& file);

  /// Makes the writer. Host and paths must outlive every call of Feed and Flush.
  void Connect(standin::Host* host, WriterPaths* paths);

  /// Reads one step on. A record is handed to the writer; broken lines are reported on standard
  /// error (the first ones) and counted; a header that changes the columns or the path makes a new
  /// writer.
  Step Feed();

  /// Hands on what the host has buffered for this writer.
  void Flush();

  /// Looks whether the host has disabled one of the log's writers since its backend failed, so that
  /// records were discarded. To be called before the host ends and takes the writers along.
  void NoteFailure();

  /// For the final report, e.g. "conn.log: 12 records, 1 broken line".
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
