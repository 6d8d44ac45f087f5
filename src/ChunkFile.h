// One chunk file of the spool, open as a stdio stream: its header, its records and the walks
// through them, for the plug-in and for programs that look into a spool.
//
// A walk goes from record to record by their lengths. Whatever is in a file: bounded work, and only
// bytes that the file has; what it does not have reads as zero. One thread for each stream.
#pragma once

#include <cstdint>
#include <cstdio>

#include "SpoolFormat.h"

namespace chunk_file {

/// Null when the file cannot be opened. A program that the process starts does not inherit it.
FILE* open_for_reading(const char* path);

/// A stream for writing to a file that is read as well, but by read_at: a stream that could read
/// would fill its buffer at every change of its position, and would not learn of write_at. `flags`
/// are those of open() besides O_RDWR. Null when the file cannot be opened.
FILE* open_for_writing(const char* path, int flags);

/// Reads `size` bytes from `position` on. Returns the number that the file had; the rest is zero.
/// Nothing may wait in the stream to be written.
size_t read_at(FILE* file, int64_t position, void* to, size_t size);

/// Writes past the stream, whose position stays where it is. Does not tell of failure.
void write_at(FILE* file, int64_t position, const unsigned char* bytes, size_t size);

/// Length of the file in bytes; 0 when it cannot be found out.
int64_t size_of(FILE* file);

/// Header and payload.
inline int64_t record_size(uint16_t length) {
  return static_cast<int64_t>(spool_format::kRecordHeaderSize) + length;
}

/// Reads the headers of records on a walk through a file, in blocks. For one walk, during which
/// nothing is written.
class Walk {
 public:
  explicit Walk(FILE* file) : file_(file), block_start_(0), block_size_(0) {}

  spool_format::RecordHeader header_at(int64_t position);

 private:
  FILE* file_;
  int64_t block_start_;
  int64_t block_size_;
  unsigned char block_[4096];
};

/// The header as it stands on disk, taken without looking at the signature.
///
/// The record count is trusted, with one exception. A chunk file never shrinks, so one that has no
/// room for the records it claims was damaged, or filled up its disk; it has the records that can
/// be walked, and `*is_walked` says so.
spool_format::Header read_header(FILE* file, bool* is_walked);

/// Writes the header at the stream's position.
void write_header(FILE* file, uint32_t used_size, uint32_t record_count);

struct LastRecord {
  int64_t start;
  spool_format::RecordHeader header;
};

/// The last of the first `record_count` records; with no records an empty one right after the
/// file's header. Lengths that lead past the end of the file find empty records there, as if zero
/// bytes followed it without end; those are not read one by one.
LastRecord find_last_record(FILE* file, uint32_t record_count);

/// Where the last record starts that a walk from the record at `position` finds inside the file.
int64_t last_start_inside(FILE* file, int64_t position);

}  // namespace chunk_file
