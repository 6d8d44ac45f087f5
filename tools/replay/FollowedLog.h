// A log that grows and rotates.
//
// The log is the file at a path, and the files that were there before: rotation moves a file away
// and begins another one. A file is known by its inode. It is read to its end before the next one,
// and for a while longer, because its writer may still have lines for it. A file that got shorter
// is read from its start. What was rotated while nobody looked is found in the log's folder: files
// whose names differ from the log's by digits and punctuation only, as conn.2024-01-01-00-00-00.log
// or conn.log.1 do, and that were written to later than the last file that was read, or, where that
// has gone, than its position. Compressed ones are only named.
//
// What is found and what is not is said on standard error. One thread.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "FollowState.h"
#include "LogReader.h"

namespace zmqwriter {

class FollowedLog {
 public:
  /// `position` is that of an earlier run; without files, and of now, if there was none.
  FollowedLog(const std::string& path, const LogPosition& position);

  /// As LogReader::Next, of the file to be read next, whose reader `log` becomes. kEnd: there is
  /// nothing new at present. Throws LogError for a file that cannot be read; a later call goes on
  /// with the next one.
  LogReader::Step Next(LogReader** log);
  /// Opens the files that have come to the path; to be called while Next is not.
  void Watch();

  const std::string& path() const { return path_; }
  /// How far each file was read; the last is the one at the path.
  LogPosition Position() const;

 private:
  using Clock = std::chrono::steady_clock;
  struct File {
    FilePosition at;  // where it was opened; when it is done, to where it was read
    std::unique_ptr<LineReader> lines;  // until the reader has them
    std::unique_ptr<LogReader> reader;  // once there is a line
    bool header_read = false;
    bool refused = false;                                       // it is no log
    Clock::time_point at_end_since = Clock::time_point::max();  // after rotation
    Clock::time_point next_look;

    LineReader* source() const { return reader ? &reader->lines() : lines.get(); }
    FilePosition Position() const;
    void Close();
  };

  void Resume(const FilePosition& position);
  void Look();
  void LookForTruncation();
  bool AddFilesBetween(std::uint64_t newest);
  bool Open(const std::string& name, const FilePosition& at);
  LogReader::Step Read(File* file);
  std::vector<File>::iterator FindFile(std::uint64_t inode);
  void SayOnce(const std::string& text);

  const std::string path_;
  const std::string folder_;
  std::int64_t since_;       // see LogPosition
  std::vector<File> files_;  // the oldest first
  std::string said_;
  Clock::time_point next_look_;
  Clock::time_point next_watch_;
};

}  // namespace zmqwriter
