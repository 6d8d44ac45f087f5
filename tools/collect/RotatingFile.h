// A file that is moved aside when it is full.
//
// The current file has the given name; a symbolic link is followed once, and all files are in its
// target's folder. Finished files have the name and a number of six or seven digits, which only
// grows: events.json.000001 is the oldest. So a program that ships finished files can take each of
// them once. Names with more digits, such as dates, belong to others. A run starts with a new file:
// the file of a former run, which may end inside an event, is moved aside first.
//
// No file is overwritten. A lock on the current file (flock) refuses a second collector. A pipe or
// a device is written to, and cannot be rotated. One thread.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "Files.h"

namespace zmqwriter {

class RotatingFile {
 public:
  /// Opens or creates `path`. `keep` is the number of finished files to keep, 0 for all.
  /// `rotating`: whether Rotate will be called. The file of a former run stays in place until
  /// Begin. Waits for the reader of a pipe; a stop signal ends that. Throws std::runtime_error that
  /// names the file.
  RotatingFile(const std::string& path, std::uint64_t keep, bool rotating);

  /// Moves aside the file of a former run. To be called before the first Append. Throws
  /// std::runtime_error when that is not possible.
  void Begin();

  /// Whether the path still leads to the open file. Always so for a pipe or a device.
  bool IsInPlace() const;

  /// Whether the open file has no name any more: what is appended cannot be found.
  bool IsRemoved() const;

  /// Opens the path anew, and moves aside a file that is there. Returns why that is not possible,
  /// and then keeps the open file; empty on success.
  std::string Reopen();

  /// Returns how many bytes were appended; after a failure these are fewer, and errno is set.
  std::size_t Append(std::string_view bytes);

  /// Cuts off what the last Append wrote after its first `bytes`. False when that is not possible,
  /// as with a pipe or a device.
  bool CutLastAppend(std::size_t bytes);

  /// Moves the file aside and opens a new one. If that is not possible, the old file stays in use
  /// and the result says why; it is empty on success.
  std::string Rotate();

  /// Free bytes of its file system; of a pipe or a device, endless.
  std::uint64_t Room() const;

  std::uint64_t size() const { return size_; }
  /// The number of files that Rotate moved aside.
  std::uint64_t finished() const { return finished_; }

 private:
  std::string Open();
  bool IsEmpty() const;
  bool MoveAside();
  bool MoveToNext();
  void SkipNumbers(const std::vector<std::uint64_t>& numbers);
  void RemoveOldest();

  const std::string given_path_;
  const std::uint64_t keep_;
  const bool rotating_;
  std::string path_;  // of the file that a symbolic link leads to
  FileDescriptor descriptor_;
  bool regular_ = true;
  std::uint64_t size_ = 0;
  std::uint64_t last_append_ = 0;  // bytes
  std::uint64_t next_number_ = 1;
  std::deque<std::uint64_t> kept_;  // numbers of the finished files, if they are to be removed
  std::uint64_t finished_ = 0;
};

}  // namespace zmqwriter
