// Reading of /proc, without allocation: every buffer lies in the object or with the caller.
#pragma once

#include <dirent.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

namespace procfs {

/// Reads a small file whole, cut to `size` - 1 bytes, and ends it with NUL. Returns the bytes read,
/// or -1 and errno.
ssize_t read_text(const char* path, char* buffer, size_t size);

/// Reads "name value" or "name: value" in `text`; `name` stands at the beginning of a line and
/// includes the colon. False when it is not there.
bool find_number(const char* text, const char* name, uint64_t* value);

/// The lines of a file of any length.
class Lines {
 public:
  explicit Lines(const char* path);
  ~Lines();
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  /// The next line, ended with NUL, valid until the next call; null at the end of the file and on
  /// failure. A line longer than the buffer comes in pieces.
  const char* next();
  /// Whether the file could not be opened or read to its end (errno says why).
  bool failed() const { return failed_; }

 private:
  bool fill();

  int fd_;
  bool failed_;
  bool at_end_ = false;
  size_t begin_ = 0;
  size_t end_ = 0;
  char buffer_[16384];
};

/// The names in a folder that are numbers, in the folder's order.
class NumberedEntries {
 public:
  explicit NumberedEntries(const char* path);
  ~NumberedEntries();
  NumberedEntries(const NumberedEntries&) = delete;
  NumberedEntries& operator=(const NumberedEntries&) = delete;

  /// False at the end and on failure.
  bool next(int32_t* number);
  /// Descriptor of the folder, -1 when it could not be opened (errno says why).
  int fd() const { return fd_; }

 private:
  int fd_;
  ssize_t begin_ = 0;
  ssize_t end_ = 0;
  alignas(struct dirent64) char buffer_[8192];
};

}  // namespace procfs
