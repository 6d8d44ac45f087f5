#include "HeadReader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "ChunkFile.h"

using namespace chunk_file;
using namespace spool_format;

namespace {

// Of one read: room for the longest record.
constexpr int64_t kLargestWindow = static_cast<int64_t>(kRecordHeaderSize) + UINT16_MAX;

}  // namespace

void HeadReader::prepare(FILE* file, int64_t start, int64_t top) {
  scan_known = false;
  if (start < top && !(window && start >= window_start))
    fill_window(file, start, top);
}

// A damaged file may claim a length that leads to the top and beyond: that is not the window's.
void HeadReader::read(FILE* file, int64_t top, int64_t position, void* to, size_t size) const {
  if (window && position >= window_start && position + static_cast<int64_t>(size) <= top)
    memcpy(to, window + (position - window_start), size);
  else
    read_at(file, position, to, size);
}

// Every scan in a row ends at the same record, so it is walked to once: a file with many records
// of length 0 would otherwise be walked at every Get. Only where the count itself is that of a walk
// does this go on behind the record, now that its length is marked 0.
bool HeadReader::scan(FILE* file) {
  if (!scan_known) {
    scan_count = read_header(file, &scan_is_walked).record_count;
    scan_start = find_last_record(file, scan_count).start;
    scan_known = true;
  } else if (scan_is_walked) {
    scan_start = last_start_inside(file, scan_start);
  }
  drop_window();
  return scan_count > 0;
}

// The record alone at first, then twice as much each time, so that a record stored and taken at a
// time costs no reading of others. Without memory for it the spool works without a window.
void HeadReader::fill_window(FILE* file, int64_t start, int64_t top) {
  const int64_t record = top - start;
  const int64_t room = top - static_cast<int64_t>(kHeaderSize);
  const int64_t wanted = std::max(record, std::min(2 * window_size, kLargestWindow));
  const int64_t size = std::min(wanted, room);
  drop_window();
  window = static_cast<unsigned char*>(malloc(static_cast<size_t>(size)));
  if (!window)
    return;
  window_size = size;
  window_start = top - size;
  const auto whole = static_cast<size_t>(size);
  if (read_at(file, window_start, window, whole) < whole && size > record) {
    // What cannot be read elsewhere does not cost this record its bytes.
    window_size = record;
    window_start = start;
    read_at(file, start, window, static_cast<size_t>(record));
  }
}

void HeadReader::drop_window() {
  free(window);
  window = nullptr;
  window_size = 0;
}
