// One queued message, and its way into a message of libzmq.
//
// A record and its body are plain malloc memory with one owner at a time. A failed pass of the send
// loop leaves a second queue entry for the same record, so a record outlives its delivery until its
// last entry was popped; its body does not.
//
// Threads: nothing here locks. Whoever holds the queue's mutex may pop; a record that was popped
// belongs to the send thread, or to Stop once that thread has ended.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <queue>

struct zmq_msg_t;

namespace logging {
namespace writer {

/// Entries in memory from which on Write spools and the refill stops.
constexpr size_t kQueueBound = 500;

struct zmq_message {
  void* data;     ///< the body, owned; null once delivered, or when the spool had nothing to give
  uint64_t size;  ///< length of the body in bytes
  uint64_t entries;  ///< how many queue entries refer to this record
  bool done;         ///< delivered: the entries that are left are skipped
};

/// A record that owns `body` (from malloc, or null), for one queue entry that the caller pushes.
/// Null without memory: then the body stays the caller's.
zmq_message* new_record(void* body, uint64_t size);

/// Marks a record as settled. Its body, if it still owns one, goes at once; the record itself as
/// soon as no queue entry refers to it.
void settle_record(zmq_message* record);

/// Pops the entry at the head. Gives its record, or null when the entry was a stale one: its
/// record has been settled, and goes with its last entry.
zmq_message* pop_entry(std::queue<zmq_message*>& queue);

/// Initialises `msg` with a copy of `size` bytes. False when libzmq refuses: then `msg` must not be
/// used. Ends the process through the host's out_of_memory where there is none for the copy.
bool init_with_copy(zmq_msg_t* msg, const void* data, size_t size);

/// Initialises `msg` with `body` itself, without copying. When its first half, zmq_msg_init_size,
/// fails, there is no message that could take the body, and it is not freed: that is required, and
/// happens only while the worker stops. When the second half fails the body is freed.
bool init_with_body(zmq_msg_t* msg, void* body, size_t size);

}  // namespace writer
}  // namespace logging
