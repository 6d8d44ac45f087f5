// Reads files and folders of /proc. Nothing is allocated.
#pragma once

#include <dirent.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

namespace procfs {

/// Reads at most `size` - 1 bytes of a file and adds a NUL. Returns the bytes read, or -1 and
/// errno.
ssize_t read_text(const char* path, char* buffer, size_t size);

/// Finds the line that begins with `name` (e.g. "MemTotal:") and reads the decimal number after it.
/// False if there is none.
bool find_number(const char* text, const char* name, uint64_t* value);

/// The entries of a folder whose names are numbers, in the folder's order.
class NumberedEntries {
 public:
  explicit NumberedEntries(const char* path);
  ~NumberedEntries();
  NumberedEntries(const NumberedEntries&) = delete;
  NumberedEntries& operator=(const NumberedEntries&) = delete;

  /// False at the end and on failure.
  bool next(int32_t* number);
  /// The folder's descriptor, -1 if it could not be opened (errno).
  int fd() const { return fd_; }

 private:
  int fd_;
  ssize_t begin_ = 0;
  ssize_t end_ = 0;
  alignas(struct dirent64) char buffer_[8192];
};

}  // namespace procfs
