// The private members of a spool that tests read or call. Only this unit and SpoolBesideModel name
// them, and they are compiled without access control.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "PersistentQueue.h"

namespace test {

struct SpoolInside {
  explicit SpoolInside(PersistentQueue* spool);

  static bool CreatePath(char* path);
  void openFile();
  void closeFile();
  /// Whether bytes of the head file are held in memory.
  bool holds_bytes() const;

  PersistentQueue& spool;
  FILE*& head_file;
  const std::atomic<std::int32_t>& head_records;
  const std::int32_t& head_bytes;
  const std::int32_t& total_bytes;
  const std::atomic<std::int32_t>& file_count;
  const std::uint16_t& top_length;
  const std::int32_t& chunk_limit;
  const std::int64_t& total_limit;
  const std::int32_t& cursor_state;
  const bool& disabled;
  const std::int64_t& top;
};

}  // namespace test
