#include "PersistentQueue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ChunkFile.h"
#include "MutexLock.h"
#include "Paths.h"
#include "Reports.h"

#include "util.h"

using namespace chunk_file;
using namespace spool_format;

namespace {

constexpr int32_t kDefaultChunkLimitBytes = 10485760;
constexpr int64_t kDefaultTotalLimitBytes = 524288000;

// Values of cursor_state.
constexpr int32_t kTopUnknown = -1;  // a file just created, or none opened yet
constexpr int32_t kAtTop = -2;       // `top` is just past the newest record

constexpr mode_t kFolderMode = 0777;

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
      unwritten_records(0) {
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

  reader.forget();
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
    reader.drop_window();  // an idle spool keeps no memory
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
  const int64_t start = step_back();
  reader.prepare(head_file, start, top);
  take_record(start, length, payload);
  mark_taken(start);
}

// Finds the newest record from the file's start, by the count of the last close and not by the
// count in memory: so a file created since the start has none, whatever was stored into it, and
// the record that the caller takes is lost. That is required, and what readers of the spool rely
// on; a newest record of length 0 leads here.
void PersistentQueue::take_by_scanning(uint16_t* length, void** payload) {
  if (reader.scan(head_file))
    take_record(reader.scanned_start(), length, payload);
  mark_taken(reader.scanned_start());
}

void PersistentQueue::take_record(int64_t start, uint16_t* length, void** payload) {
  unsigned char bytes[kRecordHeaderSize];
  reader.read(head_file, top, start, bytes, sizeof bytes);
  const RecordHeader record = decode_record_header(bytes);
  top_length = record.prev_length;
  *length = record.length;
  // Never 0 bytes, for which some systems give null.
  *payload = malloc(record.length > 0 ? record.length : 1);
  if (!*payload)
    out_of_memory("malloc");
  reader.read(head_file, top, start + record_size(0), *payload, record.length);
}

// Zeros over the record's length field; the next record will be written over it.
void PersistentQueue::mark_taken(int64_t record_start) {
  const unsigned char zeros[kLengthSize] = {0, 0};
  write_at(head_file, record_start, zeros, sizeof zeros);
  top = record_start;
  stream_at_top = false;
}

void PersistentQueue::account(int64_t records, int64_t bytes) {
  set(head_records, value_of(head_records) + records);
  head_bytes = wrapped(head_bytes + bytes);
  total_bytes = wrapped(total_bytes + bytes);
}

void PersistentQueue::openFile() {
  if (head_file)
    return;
  reader.forget();
  unwritten_records = 0;
  top = kHeaderSize;
  stream_at_top = false;
  char name[kPathSize];
  chunk_path(folder.c_str(), 0, name);

  const bool is_file = has_mode(name, S_IFREG);
  if (is_file && !disabled) {
    head_file = open_for_writing(name, 0);
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
    // As stored, with the 12 bytes of the header in it, which closing adds once more. So each
    // reopening moves the file's roll-over point by 12 bytes. This drift is required.
    head_bytes = wrapped(header.used_size);
    cursor_state = kAtTop;
  } else {
    // Anything but a file that has taken the name is left alone: reading a pipe would not return.
    head_file = is_file || !exists(name) ? open_for_writing(name, O_CREAT | O_TRUNC) : nullptr;
    set(head_records, 0);
    head_bytes = 0;
    top_length = 0;
    cursor_state = kTopUnknown;
    if (head_file)
      write_header(head_file, 0, 0);  // a used_size of 0, not 12, marks a file never closed
  }
}

void PersistentQueue::closeFile() {
  reader.drop_window();
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
  // head is opened again and takes one more record before it rolls. This is required.
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
    // Below zero when the spool was empty already; IsEmpty still answers right.
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

// The walk separates at backslashes, which is required: of a path with forward slashes only the
// last component is created, and its parent must be there.
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
