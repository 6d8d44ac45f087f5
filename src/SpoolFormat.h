// The spool's files, byte by byte: the one place that knows the layout of a chunk file's header
// and of a record's header, and the one place that forms the names of chunk files.
//
// Every integer is little-endian, whatever the byte order of the host. docs/spool-format.md tells
// the same with a worked example.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace spool_format {

/// Header of a chunk file: "ZMQF", used_size (32 bits), record_count (32 bits).
constexpr size_t kHeaderSize = 12;
/// Header of a record: length (16 bits), prev_length (16 bits). The payload follows.
constexpr size_t kRecordHeaderSize = 4;
/// A taken record is marked by zeros over its length field.
constexpr size_t kLengthSize = 2;
/// How many files that could not be opened are kept in one folder.
constexpr uint32_t kMostSetAside = 9999;
/// Room for a path name, the terminating zero included; longer names are cut.
constexpr size_t kPathSize = 4096;

struct Header {
  bool has_signature;
  uint32_t used_size;
  uint32_t record_count;
};

struct RecordHeader {
  uint16_t length;
  uint16_t prev_length;
};

inline void put_u16(uint16_t value, unsigned char* to) {
  to[0] = static_cast<unsigned char>(value & 0xff);
  to[1] = static_cast<unsigned char>(value >> 8);
}

inline void put_u32(uint32_t value, unsigned char* to) {
  put_u16(static_cast<uint16_t>(value & 0xffff), to);
  put_u16(static_cast<uint16_t>(value >> 16), to + 2);
}

inline uint16_t get_u16(const unsigned char* from) {
  return static_cast<uint16_t>(from[0] | from[1] << 8);
}

inline uint32_t get_u32(const unsigned char* from) {
  return get_u16(from) | static_cast<uint32_t>(get_u16(from + 2)) << 16;
}

/// `to` has room for kHeaderSize bytes.
inline void encode_header(uint32_t used_size, uint32_t record_count, unsigned char* to) {
  std::memcpy(to, "ZMQF", 4);
  put_u32(used_size, to + 4);
  put_u32(record_count, to + 8);
}

/// `from` holds kHeaderSize bytes.
inline Header decode_header(const unsigned char* from) {
  Header header;
  header.has_signature = std::memcmp(from, "ZMQF", 4) == 0;
  header.used_size = get_u32(from + 4);
  header.record_count = get_u32(from + 8);
  return header;
}

/// `from` holds kRecordHeaderSize bytes.
inline RecordHeader decode_record_header(const unsigned char* from) {
  RecordHeader header;
  header.length = get_u16(from);
  header.prev_length = get_u16(from + 2);
  return header;
}

/// Writes the name of chunk `number` in `folder` to `path`: 0 is the head file "queue.dat", k is
/// "queue.dat.k". Returns `path`.
inline const char* chunk_path(const char* folder, uint32_t number, char (&path)[kPathSize]) {
  // A name that is too long is cut, and then simply names no file.
  const int needed = number == 0
                         ? std::snprintf(path, kPathSize, "%s%squeue.dat", folder, "/")
                         : std::snprintf(path, kPathSize, "%s%squeue.dat.%u", folder, "/", number);
  (void)needed;
  return path;
}

/// Writes the name of a head file set aside because it could not be opened: "queue.dat.unopened"
/// for attempt 1, "queue.dat.unopened.k" for the others. Returns `path`.
inline const char* unopened_path(const char* folder, uint32_t attempt, char (&path)[kPathSize]) {
  const int needed =
      attempt == 1 ? std::snprintf(path, kPathSize, "%s/queue.dat.unopened", folder)
                   : std::snprintf(path, kPathSize, "%s/queue.dat.unopened.%u", folder, attempt);
  (void)needed;
  return path;
}

}  // namespace spool_format
