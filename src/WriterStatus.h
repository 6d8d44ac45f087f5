// How far the plug-in has got with what it was given: the one C function that the shared object
// exports next to what the host needs. A program that feeds writers (`zmqwriter replay`) looks it
// up with dlsym and waits on it before it stops the writers.
#pragma once

#include <stdint.h>

extern "C" {

struct DravenholtZmqWriterStatus {
  uint64_t queued;             ///< entries waiting in the in-memory queue
  uint64_t sent;               ///< successful send attempts of this process, all workers together
  uint64_t failed;             ///< failed send attempts of this process, all workers together
  int32_t worker;              ///< 1 while a worker exists
  int32_t running;             ///< 1 while its send thread runs
  int32_t in_work;             ///< 1 while the send thread holds a record that is not delivered yet
  int32_t spooled;             ///< 1 while the spool reports that it holds records
  const char* spool_folder;    ///< static text: the compiled-in spool folder
  const char* install_prefix;  ///< static text: the compiled-in install prefix
  /// Events longer than 65535 bytes that had to go to the spool and were cut there, of this
  /// process, all workers together.
  uint64_t cut;
  /// Records that a server's socket accepted, of this process, all workers together: `sent` without
  /// the empty messages.
  uint64_t delivered;
  /// Records given to the spool less those that came back from it, of this process, all workers
  /// together.
  int64_t stored;
  /// Records that the writers have given to a worker, of this process, all workers together.
  uint64_t written;
};

/// Fills `status`. Any thread; never blocks for longer than the queue's lock is held.
__attribute__((visibility("default"))) void dravenholt_zmqwriter_status(
    struct DravenholtZmqWriterStatus* status);
}
