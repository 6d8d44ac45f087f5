#include "ChunkFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace chunk_file {

using namespace spool_format;

namespace {

constexpr mode_t kFileMode = 0600;

// The one place that opens a file. Close-on-exec: a program that the host starts and that outlives
// it must not keep the spool open.
FILE* open_stream(const char* path, int flags, const char* mode) {
  const int descriptor = open(path, flags | O_CLOEXEC, kFileMode);
  if (descriptor < 0)
    return nullptr;
  FILE* const file = fdopen(descriptor, mode);
  if (!file)
    close(descriptor);
  return file;
}

// How many records an open chunk file has by their lengths, whatever its header says.
uint32_t count_by_walking(FILE* file, int64_t file_size) {
  Walk walk(file);
  uint32_t count = 0;
  int64_t position = kHeaderSize;
  while (position + static_cast<int64_t>(kRecordHeaderSize) <= file_size) {
    position += record_size(walk.header_at(position).length);
    ++count;
  }
  return count;
}

}  // namespace

FILE* open_for_reading(const char* path) {
  return open_stream(path, O_RDONLY, "rb");
}

FILE* open_for_writing(const char* path, int flags) {
  return open_stream(path, O_RDWR | flags, "wb");
}

size_t read_at(FILE* file, int64_t position, void* to, size_t size) {
  char* const bytes = static_cast<char*>(to);
  size_t got = 0;
  while (got < size) {
    const ssize_t more =
        pread(fileno(file), bytes + got, size - got, position + static_cast<int64_t>(got));
    if (more <= 0)
      break;
    got += static_cast<size_t>(more);
  }
  memset(bytes + got, 0, size - got);
  return got;
}

void write_at(FILE* file, int64_t position, const unsigned char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t written = pwrite(fileno(file), bytes, size, position);
    if (written <= 0)
      return;
    bytes += written;
    size -= static_cast<size_t>(written);
    position += written;
  }
}

int64_t size_of(FILE* file) {
  struct stat status;
  return fstat(fileno(file), &status) == 0 ? status.st_size : 0;
}

RecordHeader Walk::header_at(int64_t position) {
  const int64_t block_end = block_start_ + block_size_;
  if (position < block_start_ || position + static_cast<int64_t>(kRecordHeaderSize) > block_end) {
    read_at(file_, position, block_, sizeof block_);
    block_start_ = position;
    block_size_ = sizeof block_;
  }
  return decode_record_header(block_ + (position - block_start_));
}

Header read_header(FILE* file, bool* is_walked) {
  unsigned char bytes[kHeaderSize];
  read_at(file, 0, bytes, sizeof bytes);
  Header header = decode_header(bytes);

  const int64_t file_size = size_of(file);
  const int64_t room =
      (file_size - static_cast<int64_t>(kHeaderSize)) / static_cast<int64_t>(kRecordHeaderSize);
  *is_walked = header.record_count > room;
  if (*is_walked)
    header.record_count = count_by_walking(file, file_size);
  return header;
}

void write_header(FILE* file, uint32_t used_size, uint32_t record_count) {
  unsigned char bytes[kHeaderSize];
  encode_header(used_size, record_count, bytes);
  fwrite(bytes, 1, sizeof bytes, file);
  fflush(file);
}

LastRecord find_last_record(FILE* file, uint32_t record_count) {
  Walk walk(file);
  const int64_t file_size = size_of(file);
  LastRecord last = {kHeaderSize, {0, 0}};
  int64_t position = kHeaderSize;
  for (uint32_t left = record_count; left > 0; --left) {
    if (position >= file_size) {
      last.start = position + record_size(0) * (left - 1);
      last.header = {0, 0};
      break;
    }
    last.start = position;
    last.header = walk.header_at(position);
    position += record_size(last.header.length);
  }
  return last;
}

int64_t last_start_inside(FILE* file, int64_t position) {
  Walk walk(file);
  const int64_t file_size = size_of(file);
  int64_t next = position;
  while (next + static_cast<int64_t>(kRecordHeaderSize) <= file_size) {
    position = next;
    next += record_size(walk.header_at(position).length);
  }
  return position;
}

}  // namespace chunk_file
