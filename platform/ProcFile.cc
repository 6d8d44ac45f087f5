#include "ProcFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace procfs {

namespace {

ssize_t read_some(int fd, char* buffer, size_t size) {
  for (;;) {
    const ssize_t count = read(fd, buffer, size);
    if (count >= 0 || errno != EINTR)
      return count;
  }
}

void close_keeping_errno(int fd) {
  const int saved = errno;
  close(fd);
  errno = saved;
}

}  // namespace

ssize_t read_text(const char* path, char* buffer, size_t size) {
  buffer[0] = '\0';
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return -1;
  size_t length = 0;
  ssize_t count = 0;
  while (length + 1 < size && (count = read_some(fd, buffer + length, size - 1 - length)) > 0)
    length += static_cast<size_t>(count);
  close_keeping_errno(fd);
  buffer[length] = '\0';
  return count < 0 ? -1 : static_cast<ssize_t>(length);
}

bool find_number(const char* text, const char* name, uint64_t* value) {
  const size_t length = strlen(name);
  for (const char* line = text; line != nullptr && *line != '\0';) {
    if (strncmp(line, name, length) == 0) {
      char* end = nullptr;
      *value = strtoull(line + length, &end, 10);
      return end != line + length;
    }
    line = strchr(line, '\n');
    if (line != nullptr)
      ++line;
  }
  return false;
}

NumberedEntries::NumberedEntries(const char* path)
    : fd_(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

NumberedEntries::~NumberedEntries() {
  if (fd_ >= 0)
    close_keeping_errno(fd_);
}

bool NumberedEntries::next(int32_t* number) {
  if (fd_ < 0)
    return false;
  for (;;) {
    if (begin_ == end_) {
      begin_ = 0;
      end_ = getdents64(fd_, buffer_, sizeof buffer_);
      if (end_ <= 0) {
        end_ = 0;
        return false;
      }
    }
    const struct dirent64* entry = reinterpret_cast<const struct dirent64*>(buffer_ + begin_);
    begin_ += entry->d_reclen;
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9')
      continue;
    *number = static_cast<int32_t>(strtol(entry->d_name, nullptr, 10));
    return true;
  }
}

}  // namespace procfs
