// The file that events are collected into, moved aside when it is full.
//
// The current file has the name given; where that is a symbolic link, it is followed once, and all
// files lie beside its target. Finished ones are named after it with a number of six or seven
// digits, which only ever grows: events.json.000001 is the oldest, the highest number the newest. A
// program that ships finished files can so take each of them once. Names with more digits (dates,
// say) are somebody else's. A run always starts with a fresh file: what a former run left (possibly
// with a torn end) is moved aside first.
//
// Nothing is ever overwritten. A lock on the current file (flock) keeps a second collector out.
// What is no regular file, a pipe or a device, is written as it is and cannot be rotated. One
// thread.
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
  /// Opens `path`; makes it if it does not exist, with the rights that the umask leaves. `keep` is
  /// the number of finished files to keep, 0 for all. `rotating`: whether Rotate will be called.
  /// What a former run left stays where it is until Begin. Waits for a reader if this is a pipe; a
  /// stop signal ends that. Throws std::runtime_error that names the file.
  RotatingFile(const std::string& path, std::uint64_t keep, bool rotating);

  /// Moves aside what a former run left. To be called before the first Append. Throws
  /// std::runtime_error when that is not possible.
  void Begin();

  /// Appends, up to a failure, which errno tells; returns how much was written.
  std::size_t Append(std::string_view bytes);

  /// Cuts what the last Append wrote beyond its first `bytes` off the end, as far as a file can be
  /// cut.
  void CutLastAppend(std::size_t bytes);

  /// Moves the file aside and opens a new one. If that is not possible the file goes on growing,
  /// and the result says why; it is empty on success.
  std::string Rotate();

  std::uint64_t size() const { return size_; }
  /// How many were moved aside by Rotate.
  std::uint64_t finished() const { return finished_; }

 private:
  bool MoveAside();
  bool MoveToNext();
  void SkipNumbers(const std::vector<std::uint64_t>& numbers);
  void RemoveOldest();

  std::string path_;
  const std::uint64_t keep_;
  FileDescriptor descriptor_;
  bool regular_ = true;
  std::uint64_t size_ = 0;
  std::uint64_t last_append_ = 0;  // bytes
  std::uint64_t next_number_ = 1;
  std::deque<std::uint64_t> kept_;  // numbers of the finished files, if they are to be removed
  std::uint64_t finished_ = 0;
};

}  // namespace zmqwriter
