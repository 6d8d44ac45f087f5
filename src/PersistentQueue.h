// The spool: a stack of messages on disk.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "HeadReader.h"

/// Keeps messages that found no room in memory in chunk files on disk, and gives them back newest
/// first, across restarts. docs/spool-format.md describes the files.
///
/// Threads: Store and Get may be called from any threads; a mutex is held for their whole
/// duration, file operations included. IsEmpty may be called from any thread and takes no lock: a
/// stale answer costs at worst one Get that gives null. Construction, SetLimits and destruction
/// happen while no other thread uses the object.
///
/// Ownership: Store writes the caller's bytes straight to the file and keeps nothing. What Get
/// returns comes from malloc and is the caller's to free. While a file is drained up to 64 KiB of
/// it are held in memory; nothing is between a drained spool and the next Get.
///
/// Errors: a folder that cannot be created is reported once and disables the spool for good: Store
/// then drops and Get gives null. Damaged chunk files are warned of at start-up and otherwise
/// used as they stand. A file operation that fails later is not reported, and the counts go on as
/// if it had succeeded: a record that could not be written comes back as null, behind the others of
/// its file, and what cannot be read reads as zero bytes. A head file that cannot be opened gives
/// nothing; when older files wait behind it, it is renamed to queue.dat.unopened (.unopened.2, ...)
/// to let them through. A file that cannot be renamed keeps its number, and no other file takes it:
/// a head that cannot be rolled over grows on, and older files that cannot move down are kept for
/// the next roll-over or start. Nothing loops or crashes over any of it.
///
/// Crash: every record reaches the operating system before Store or Get returns, but the header
/// that counts the records is written only when a file is created and when it is closed. So what
/// was stored into the head file since it was opened is on disk after an unclean stop, yet the
/// next start does not count it (`zmqwriter spool repair` makes it countable).
///
/// Nothing here bounds the size of the spool: the chunk limit decides when a new file is begun,
/// the total limit is kept and never consulted.
class PersistentQueue {
 public:
  /// Creates the spool folder (its parent must exist) and counts the files in it. Opens no file
  /// for writing yet.
  PersistentQueue();
  /// Closes the head file, so that its header describes its records.
  ~PersistentQueue();
  PersistentQueue(const PersistentQueue&) = delete;
  PersistentQueue& operator=(const PersistentQueue&) = delete;

  /// Pushes one record of `length` bytes. `data` may be null when `length` is 0.
  void Store(uint16_t length, const void* data);

  /// Pops the newest record. Returns null with `*length` 0 when there is none; a record of length 0
  /// may come back as null too, or as a block of no usable bytes.
  void* Get(uint16_t* length);

  /// Whether the counts promise nothing to return. False does not promise that Get finds a record:
  /// the count of files also counts files without live records.
  bool IsEmpty() const;

  /// Limits in bytes. A chunk limit below zero makes every Store begin a new file.
  void SetLimits(int32_t chunk_limit_bytes, int32_t total_limit_bytes);

  // The toolbox. The spool's own operations use none of these.

  /// Whether `path` exists and is a regular file.
  static bool FileExists(const char* path);
  /// Whether `path` exists and is a directory.
  static bool FolderExists(const char* path);
  /// Deletes a file; the result is unlink's.
  static int RemoveFile(const char* path);
  /// Length of a file in bytes; -1 when it cannot be opened.
  static int64_t FileSize(const char* path);

 private:
  void openFile();
  void closeFile();
  void rollFile();
  void rollBack();
  bool setAside();
  int64_t numbers_in_use() const;
  int64_t shift(int64_t first, int64_t last, int64_t by);
  void listFolder();
  static bool CreatePath(char* path);

  void take_newest(uint16_t* length, void** payload);
  void take_by_scanning(uint16_t* length, void** payload);
  void take_record(int64_t start, uint16_t* length, void** payload);
  int64_t step_back() const;
  bool write_record(uint16_t length, const void* data);
  void mark_taken(int64_t record_start);
  void account(int64_t records, int64_t bytes);

  // Constant after construction.
  std::string folder;

  pthread_mutex_t mutex;

  // Guarded by `mutex`. The two atomic counts are changed under it and read without it by IsEmpty.
  FILE* head_file;                    // only written to; null while no file is open
  std::atomic<int32_t> head_records;  // live records in the head file
  int32_t head_bytes;                 // 4 + length, summed over them
  int32_t total_bytes;                // bytes over all chunk files; kept and never consulted
  std::atomic<int32_t> file_count;    // chunk files; the head only since it was found or rolled
  uint16_t top_length;                // length of the head file's newest record

  // Set by SetLimits before other threads use the object.
  int32_t chunk_limit;
  int64_t total_limit;  // kept and never consulted

  // Guarded by `mutex`.
  int32_t cursor_state;

  // Constant after construction.
  bool disabled;

  // Guarded by `mutex`.
  int32_t stranded;           // numbers from file_count on that a failed renaming left in use
  int64_t top;                // just past the newest record of the head file
  bool stream_at_top;         // whether the head file's stream stands there for the next Store
  int32_t unwritten_records;  // of the head's live records, those that the disk did not take
  HeadReader reader;
};

/// mkdir with mode 0777; true on success. The second argument is ignored.
bool CreateDirectory(const char* path, const char* ignored);
