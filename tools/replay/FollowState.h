// The positions of the logs that `replay --follow` ships, in a file.
//
// The file is replaced as a whole by each write, so it is never half written while the system runs.
// It is locked (flock) as long as this object lives. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Files.h"

namespace zmqwriter {

/// How far a file was read.
struct FilePosition {
  std::uint64_t inode = 0;
  std::uint64_t offset = 0;  ///< of the first byte that is not handled yet
  std::uint32_t start = 0;   ///< start_checksum() of the bytes before the offset
  bool done = false;         ///< it was rotated, and had no more for a while

  bool operator==(const FilePosition& other) const {
    return inode == other.inode && offset == other.offset && start == other.start &&
           done == other.done;
  }
};

/// What a log consisted of.
struct LogPosition {
  std::int64_t since = 0;  ///< when the last file was at the path, in seconds of the system's
                           ///< clock; of a log that never was there, when it was followed first
  std::vector<FilePosition> files;  ///< the oldest first; none of a log that never was there

  /// `since` needs to be kept only when the files change.
  bool operator==(const LogPosition& other) const { return files == other.files; }
};

/// Tells a file from another one with the same inode: of at most its first 1024 bytes.
std::uint32_t start_checksum(int descriptor, std::uint64_t offset);

class FollowState {
 public:
  using Positions = std::map<std::string, LogPosition>;  ///< by the log's absolute path

  /// Reads the file, or makes one without positions, and locks it. Throws std::runtime_error that
  /// says what to do when that fails, when the content is damaged, or when it holds the position of
  /// none of `logs`.
  FollowState(const std::string& file, const std::vector<std::string>& logs);

  const Positions& positions() const { return positions_; }
  /// Whether all that was read up to the positions, and nothing behind them, was handed over.
  bool exact() const { return exact_; }

  /// Replaces the positions of the logs given. Returns why that is not possible; "" on success.
  std::string Write(const Positions& positions, bool exact);

 private:
  void Read(const std::string& content);

  const std::string file_;
  FileDescriptor descriptor_;
  Positions positions_;
  bool exact_ = true;
};

}  // namespace zmqwriter
