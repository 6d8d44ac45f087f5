// What the spool keeps in memory to read its head file with few system calls. None of it is needed:
// forgetting it costs only that it is read again.
#pragma once

#include <cstdint>
#include <cstdio>

/// For one file at a time: `file` is the head file, open; `top` the offset just past its newest
/// record. One thread at a time.
class HeadReader {
 public:
  HeadReader() = default;
  ~HeadReader() { drop_window(); }
  HeadReader(const HeadReader&) = delete;
  HeadReader& operator=(const HeadReader&) = delete;

  /// To be called when the file is another one, or was written to above the newest record.
  void forget() {
    scan_known = false;
    if (window)
      drop_window();
  }

  /// To be called before the newest record, which starts at `start`, is read and taken: reads it
  /// and what lies below it, in one go for the Gets to come.
  void prepare(FILE* file, int64_t start, int64_t top);

  /// Bytes of the file as they are on disk; zeros where it has none.
  void read(FILE* file, int64_t top, int64_t position, void* to, size_t size) const;

  /// Finds the last record that the file's header counts; false when it counts none. To be called
  /// only in a row, with nothing but that record marked as taken in between, or after forget().
  bool scan(FILE* file);
  /// Where that record starts; right after the file's header when it counts none.
  int64_t scanned_start() const { return scan_start; }

  /// Gives the memory back.
  void drop_window();

 private:
  void fill_window(FILE* file, int64_t start, int64_t top);

  // The record of the latest scan.
  bool scan_known = false;
  bool scan_is_walked = false;  // the count was no use, and is that of the records inside the file
  uint32_t scan_count = 0;
  int64_t scan_start = 0;

  // The file's bytes from window_start up to the top, wherever Gets take that. Null when there is
  // no window.
  unsigned char* window = nullptr;
  int64_t window_start = 0;
  int64_t window_size = 0;  // bytes that the latest read put into it; 0 without a window
};
