#include "PersistentQueue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "MutexLock.h"
#include "Paths.h"
#include "Reports.h"
#include "SpoolFormat.h"

#include "util.h"

using namespace spool_format;

namespace {

constexpr int32_t kDefaultChunkLimitBytes = 10485760;
constexpr int64_t kDefaultTotalLimitBytes = 524288000;

// Values of cursor_state.
constexpr int32_t kTopUnknown = -1;  // a file just created, or none opened yet
constexpr int32_t kAtTop = -2;       // `top` is just past the newest record

constexpr mode_t kFolderMode = 0777;
constexpr mode_t kFileMode = 0666;

// Of one read: room for the longest record.
constexpr int64_t kLargestWindow = static_cast<int64_t>(kRecordHeaderSize) + UINT16_MAX;

// The counts are 32 bits wide and wrap.
int32_t wrapped(int64_t value) {
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

// Counts that are changed under the spool's mutex only: no read-modify-write is needed.
int32_t value_of(const std::atomic<int32_t>& count) {
  return count.load(std::memory_order_relaxed);
}

void set(std::atomic<int32_t>& count, int64_t value) {
  count.store(wrapped(value), std::memory_order_relaxed);
}

bool has_mode(const char* path, mode_t kind) {
  struct stat status;
  return stat(path, &status) == 0 && (status.st_mode & S_IFMT) == kind;
}

bool exists(const char* path) {
  struct stat status;
  return stat(path, &status) == 0;
}

// Unlike exists, also for a link that leads nowhere. In doubt yes.
bool is_taken(const char* path) {
  struct stat status;
  return lstat(path, &status) == 0 || errno != ENOENT;
}

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

FILE* open_for_reading(const char* path) {
  return open_stream(path, O_RDONLY, "rb");
}

// A stream for writing to a chunk file that is read as well, but by read_at: a stream that could
// read would fill its buffer at every change of its position, and would not learn of write_at.
FILE* open_chunk(const char* path, int flags) {
  return open_stream(path, O_RDWR | flags, "wb");
}

// Reads `size` bytes from `position` on; what the file does not have is zero. Returns the number
// that it had. Nothing may wait in the stream to be written.
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

// Writes past the stream, whose position stays where it is. Nothing tells of failure.
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

// The headers of records on a walk through an open file, which is read in blocks. To be used for
// one walk, during which nothing is written.
class Walk {
 public:
  explicit Walk(FILE* file) : file_(file), block_start_(0), block_size_(0) {}

  RecordHeader header_at(int64_t position) {
    const int64_t block_end = block_start_ + block_size_;
    if (position < block_start_ || position + static_cast<int64_t>(kRecordHeaderSize) > block_end) {
      read_at(file_, position, block_, sizeof block_);
      block_start_ = position;
      block_size_ = sizeof block_;
    }
    return decode_record_header(block_ + (position - block_start_));
  }

 private:
  FILE* file_;
  int64_t block_start_;
  int64_t block_size_;
  unsigned char block_[4096];
};

int64_t record_size(uint16_t length) {
  return static_cast<int64_t>(kRecordHeaderSize) + length;
}

int64_t size_of(FILE* file) {
  struct stat status;
  return fstat(fileno(file), &status) == 0 ? status.st_size : 0;
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

// The last record that such a walk finds from the record at `position` on.
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

// The header of an open chunk file as it stands on disk, taken without looking at the signature.
//
// The record count is trusted, with one exception. A chunk file never shrinks, so one that has no
// room for the records it claims was damaged, or filled up its disk; it has the records that can
// be walked, and `*is_walked` says so.
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

// The last of the first `record_count` records and where it starts; with no records an empty one
// right after the file's header. Lengths that lead past the end of the file find empty records
// there, as if zero bytes followed it without end; those are not read one by one.
struct LastRecord {
  int64_t start;
  RecordHeader header;
};

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

void write_header(FILE* file, uint32_t used_size, uint32_t record_count) {
  unsigned char bytes[kHeaderSize];
  encode_header(used_size, record_count, bytes);
  fwrite(bytes, 1, sizeof bytes, file);
  fflush(file);
}

}  // namespace

PersistentQueue::PersistentQueue()
    : folder(paths::kSpoolFolder),
      head_file(nullptr),
      head_records(0),
      head_bytes(0),
      total_bytes(0),
      file_count(1),
      top_length(0),
      chunk_limit(kDefaultChunkLimitBytes),
      total_limit(kDefaultTotalLimitBytes),
      cursor_state(kTopUnknown),
      disabled(false),
      stranded(0),
      top(kHeaderSize),
      stream_at_top(false),
      unwritten_records(0),
      scan_known(false),
      scan_is_walked(false),
      scan_count(0),
      scan_start(0),
      window(nullptr),
      window_start(0),
      window_size(0) {
  pthread_mutex_init(&mutex, nullptr);

  char path[kPathSize];
  snprintf(path, sizeof path, "%s", folder.c_str());
  if (CreatePath(path)) {
    listFolder();
  } else {
    reports::error("Failed to open or create queue folder %s", folder.c_str());
    disabled = true;
  }
}

PersistentQueue::~PersistentQueue() {
  closeFile();
  pthread_mutex_destroy(&mutex);
}

void PersistentQueue::SetLimits(int32_t chunk_limit_bytes, int32_t total_limit_bytes) {
  chunk_limit = chunk_limit_bytes;
  total_limit = total_limit_bytes;
}

bool PersistentQueue::IsEmpty() const {
  return value_of(head_records) == 0 && value_of(file_count) < 2;
}

void PersistentQueue::Store(uint16_t length, const void* data) {
  if (disabled)
    return;
  MutexLock lock(&mutex);
  if (!head_file)
    openFile();

  scan_known = false;
  drop_window();
  if (!head_file || write_record(length, data)) {
    top += record_size(length);
    top_length = length;
  } else {
    // The disk is full. What it took of the record lies behind the top, where the next one goes.
    ++unwritten_records;
    clearerr(head_file);
    stream_at_top = false;
  }
  account(1, record_size(length));
  cursor_state = kAtTop;

  // The record that crosses the limit stays in the file that it crossed.
  if (head_bytes > chunk_limit)
    rollFile();
}

bool PersistentQueue::write_record(uint16_t length, const void* data) {
  // Only a Get moves the top away from the stream.
  if (!stream_at_top)
    fseeko(head_file, top, SEEK_SET);
  stream_at_top = true;
  unsigned char number[2];
  put_u16(length, number);
  size_t written = fwrite(number, 1, sizeof number, head_file);
  put_u16(top_length, number);
  written += fwrite(number, 1, sizeof number, head_file);
  if (length > 0)
    written += fwrite(data, 1, length, head_file);
  return fflush(head_file) == 0 && written == static_cast<size_t>(record_size(length));
}

void* PersistentQueue::Get(uint16_t* length) {
  *length = 0;
  if (disabled)
    return nullptr;
  MutexLock lock(&mutex);
  if (!head_file)
    openFile();

  // A head that cannot be opened has nothing to give. Alone it is kept, for a start that can.
  if (!head_file && value_of(file_count) < 2)
    return nullptr;
  if (value_of(head_records) <= 0) {
    rollBack();
    openFile();
    if (value_of(head_records) <= 0)
      return nullptr;
  }

  void* payload = nullptr;
  if (unwritten_records > 0 && unwritten_records >= value_of(head_records))
    --unwritten_records;  // nothing else is left: it is counted, but there is nothing to give
  else if (cursor_state == kAtTop && top_length != 0)
    take_newest(length, &payload);
  else
    take_by_scanning(length, &payload);
  account(-1, -record_size(*length));
  if (value_of(head_records) <= 0)
    drop_window();  // an idle spool keeps no memory
  return payload;
}

// The way back from the top to the start of the newest record. A damaged file may
// claim a length that leads to before the first record: the step is not made then, and the header
// of the file stays out of reach.
int64_t PersistentQueue::step_back() const {
  const int64_t start = top - record_size(top_length);
  return start >= static_cast<int64_t>(kHeaderSize) ? start : top;
}

void PersistentQueue::take_newest(uint16_t* length, void** payload) {
  scan_known = false;
  const int64_t start = step_back();
  if (start < top && !(window && start >= window_start))
    fill_window(start);
  take_record(start, length, payload);
  mark_taken(start);
}

// Finds the newest record from the file's start, by the count of the last close and not by the
// count in memory: so a file created since the start has none, whatever was stored into it, and
// the record that the caller takes is lost. That is on purpose and what readers of the spool rely
// on; a newest record of length 0 leads here.
//
// Every scan in a row ends at the same record, so it is walked to once: a file with many records
// of length 0 would otherwise be walked at every Get. Only where the count itself is that of a walk
// does this go on behind the record, now that its length is marked 0.
void PersistentQueue::take_by_scanning(uint16_t* length, void** payload) {
  if (!scan_known) {
    scan_count = read_header(head_file, &scan_is_walked).record_count;
    scan_start = find_last_record(head_file, scan_count).start;
    scan_known = true;
  } else if (scan_is_walked) {
    scan_start = last_start_inside(head_file, scan_start);
  }
  drop_window();
  if (scan_count > 0)
    take_record(scan_start, length, payload);
  mark_taken(scan_start);
}

void PersistentQueue::take_record(int64_t start, uint16_t* length, void** payload) {
  unsigned char bytes[kRecordHeaderSize];
  read_head(start, bytes, sizeof bytes);
  const RecordHeader record = decode_record_header(bytes);
  top_length = record.prev_length;
  *length = record.length;
  // Never 0 bytes, for which some systems give null.
  *payload = malloc(record.length > 0 ? record.length : 1);
  if (!*payload)
    out_of_memory("malloc");
  read_head(start + record_size(0), *payload, record.length);
}

// Zeros over the record's length field; the next record will be written over it.
void PersistentQueue::mark_taken(int64_t record_start) {
  const unsigned char zeros[kLengthSize] = {0, 0};
  write_at(head_file, record_start, zeros, sizeof zeros);
  top = record_start;
  stream_at_top = false;
}

// Bytes of the head file as they are on disk; zeros where it has none. A damaged file may claim a
// length that leads to the top and beyond: that is not the window's.
void PersistentQueue::read_head(int64_t position, void* to, size_t size) const {
  if (window && position >= window_start && position + static_cast<int64_t>(size) <= top)
    memcpy(to, window + (position - window_start), size);
  else
    read_at(head_file, position, to, size);
}

// Reads the newest record, which starts at `start`, and what lies below it: the record alone at
// first, then twice as much each time, so that a record stored and taken at a time costs no reading
// of others. Without memory for it the spool works without a window.
void PersistentQueue::fill_window(int64_t start) {
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
  if (read_at(head_file, window_start, window, whole) < whole && size > record) {
    // What cannot be read elsewhere does not cost this record its bytes.
    window_size = record;
    window_start = start;
    read_at(head_file, start, window, static_cast<size_t>(record));
  }
}

void PersistentQueue::drop_window() {
  free(window);
  window = nullptr;
  window_size = 0;
}

void PersistentQueue::account(int64_t records, int64_t bytes) {
  set(head_records, value_of(head_records) + records);
  head_bytes = wrapped(head_bytes + bytes);
  total_bytes = wrapped(total_bytes + bytes);
}

void PersistentQueue::openFile() {
  if (head_file)
    return;
  scan_known = false;
  drop_window();
  unwritten_records = 0;
  top = kHeaderSize;
  stream_at_top = false;
  char name[kPathSize];
  chunk_path(folder.c_str(), 0, name);

  const bool is_file = has_mode(name, S_IFREG);
  if (is_file && !disabled) {
    head_file = open_chunk(name, 0);
    // What may only be read still gives its records; nothing written to it arrives.
    if (!head_file)
      head_file = open_for_reading(name);
    // A file that cannot be opened is one that has no header.
    Header header = {false, 0, 0};
    if (head_file) {
      bool is_walked = false;
      header = read_header(head_file, &is_walked);
      const LastRecord last = find_last_record(head_file, header.record_count);
      if (header.record_count > 0) {
        top_length = last.header.length;
        top = last.start + record_size(top_length);
      }
    }
    set(head_records, header.record_count);
    // As stored, with the 12 bytes of the header in it, which closing adds once more: on purpose,
    // each reopening moves the file's roll-over point by 12 bytes.
    head_bytes = wrapped(header.used_size);
    cursor_state = kAtTop;
  } else {
    // Anything but a file that has taken the name is left alone: reading a pipe would not return.
    head_file = is_file || !exists(name) ? open_chunk(name, O_CREAT | O_TRUNC) : nullptr;
    set(head_records, 0);
    head_bytes = 0;
    top_length = 0;
    cursor_state = kTopUnknown;
    if (head_file)
      write_header(head_file, 0, 0);  // a used_size of 0, not 12, marks a file never closed
  }
}

void PersistentQueue::closeFile() {
  drop_window();
  if (!head_file)
    return;
  fseeko(head_file, 0, SEEK_SET);
  write_header(head_file, static_cast<uint32_t>(head_bytes) + static_cast<uint32_t>(kHeaderSize),
               static_cast<uint32_t>(value_of(head_records)));
  fclose(head_file);
  head_file = nullptr;
  if (value_of(head_records) == 0) {
    char name[kPathSize];
    unlink(chunk_path(folder.c_str(), 0, name));
  }
}

void PersistentQueue::rollFile() {
  const int64_t numbers = numbers_in_use();
  char next[kPathSize];
  chunk_path(folder.c_str(), static_cast<uint32_t>(numbers), next);
  // No file can take the name of a folder. The head stays open then: every Store comes here, and
  // opening the head again walks through its records.
  if (numbers > 0 && has_mode(next, S_IFDIR))
    return;
  closeFile();
  // A spool that started without files counts none, and renames nothing the first time: the full
  // head is opened again and takes one more record before it rolls. On purpose.
  const int64_t stayed = shift(numbers - 1, 0, 1);  // highest first: none is overwritten
  if (stayed < 0) {
    stranded = 0;
    set(file_count, numbers + 1);
    return;
  }
  // What was renamed goes back, for a start counts files up to the first gap only. The full head
  // keeps its name and is opened again, and the next Store tries once more.
  if (shift(stayed + 2, numbers, -1) <= numbers)
    ++stranded;
}

void PersistentQueue::rollBack() {
  const bool was_open = head_file != nullptr;
  closeFile();
  char head[kPathSize];
  bool is_free = true;
  // Only what was opened is known to hold nothing. Anything else may be full of records that a
  // shortage of descriptors or a permission hides for now.
  if (was_open)
    unlink(chunk_path(folder.c_str(), 0, head));
  else
    is_free = setAside();
  const int64_t numbers = numbers_in_use();
  if (is_free && shift(1, numbers - 1, -1) >= numbers) {
    stranded = 0;
    // Below zero when the spool was empty already: on purpose.
    set(file_count, numbers - 1);
  } else {
    // The count falls all the same, so that Gets come to an end.
    ++stranded;
    set(file_count, static_cast<int64_t>(value_of(file_count)) - 1);
  }
}

// The numbers below this one may belong to files of the spool, and no others do.
int64_t PersistentQueue::numbers_in_use() const {
  return static_cast<int64_t>(value_of(file_count)) + stranded;
}

// Renames the files with the numbers from `first` to `last`, one number up or down, beginning with
// the one whose new number is free. A number without a file is passed over. A file that cannot be
// renamed ends it, for the next one would replace that file. Returns the number of that file, or
// the one behind `last`.
int64_t PersistentQueue::shift(int64_t first, int64_t last, int64_t by) {
  char from[kPathSize];
  char to[kPathSize];
  int64_t k = first;
  for (; by > 0 ? k >= last : k <= last; k -= by) {
    chunk_path(folder.c_str(), static_cast<uint32_t>(k), from);
    chunk_path(folder.c_str(), static_cast<uint32_t>(k + by), to);
    if (rename(from, to) != 0 && errno != ENOENT)
      break;
  }
  return k;
}

// Renames what has the head's name out of the sequence; whether the name is free then.
bool PersistentQueue::setAside() {
  char head[kPathSize];
  chunk_path(folder.c_str(), 0, head);
  if (!is_taken(head))
    return true;
  char aside[kPathSize];
  for (uint32_t attempt = 1; attempt <= kMostSetAside; ++attempt) {
    if (!is_taken(unopened_path(folder.c_str(), attempt, aside)))
      return rename(head, aside) == 0;
  }
  return false;
}

void PersistentQueue::listFolder() {
  if (disabled)
    return;
  set(head_records, 0);
  head_bytes = 0;
  total_bytes = 0;

  char name[kPathSize];
  uint32_t number = 0;
  while (has_mode(chunk_path(folder.c_str(), number, name), S_IFREG)) {
    unsigned char bytes[kHeaderSize];
    size_t got = 0;
    if (FILE* file = open_for_reading(name)) {
      got = read_at(file, 0, bytes, sizeof bytes);
      fclose(file);
    }
    if (got < sizeof bytes) {
      reports::warning("Corrupted queue file %s", name);
    } else {
      const Header header = decode_header(bytes);
      if (!header.has_signature) {
        reports::warning("Corrupted queue file %s, invalid signature", name);
      } else {
        if (number == 0) {
          set(head_records, header.record_count);
          head_bytes =
              wrapped(static_cast<int64_t>(header.used_size) - static_cast<int64_t>(kHeaderSize));
        }
        total_bytes = wrapped(static_cast<int64_t>(total_bytes) + header.used_size);
      }
    }
    ++number;
  }
  set(file_count, number);
}

// The walk separates at backslashes, on purpose: of a path with forward slashes only the last
// component is created, and its parent must be there.
bool PersistentQueue::CreatePath(char* path) {
  for (char* separator = strchr(path, '\\'); separator; separator = strchr(separator + 1, '\\')) {
    *separator = '\0';
    const bool exists = has_mode(path, S_IFDIR) || mkdir(path, kFolderMode) == 0;
    *separator = '\\';
    if (!exists)
      return false;
  }
  return has_mode(path, S_IFDIR) || mkdir(path, kFolderMode) == 0;
}

bool PersistentQueue::FileExists(const char* path) {
  return has_mode(path, S_IFREG);
}

bool PersistentQueue::FolderExists(const char* path) {
  return has_mode(path, S_IFDIR);
}

int PersistentQueue::RemoveFile(const char* path) {
  return unlink(path);
}

int64_t PersistentQueue::FileSize(const char* path) {
  FILE* file = has_mode(path, S_IFDIR) ? nullptr : open_for_reading(path);
  if (!file)
    return -1;
  fseeko(file, 0, SEEK_END);
  const int64_t size = ftello(file);
  fclose(file);
  return size;
}

bool CreateDirectory(const char* path, const char* /*ignored*/) {
  return mkdir(path, kFolderMode) == 0;
}
