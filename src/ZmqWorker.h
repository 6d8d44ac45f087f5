// Delivers finished event messages over ZeroMQ, encrypted with CURVE: to a primary server, to
// secondary servers while the primary does not answer, and by way of an in-memory queue and the
// on-disk spool while no server answers.
//
// One worker serves all writers of the process:
//
//     ZmqWorker* worker = new ZmqWorker();   // with the parentheses: every member starts as zero
//     worker->Init(server, public_key, secondary_servers);
//     worker->Start();
//     worker->Write(size, bytes);            // any thread, as often as wanted
//     worker->Stop();                        // before the worker is deleted
//
// Threads: Init and Start run on one thread, before anything else is called. Write and FillStatus
// may be called by any thread after Init. Stop may be called by any thread but the send thread,
// and nothing may be called while the worker is being deleted. DoWork is the body of the send
// thread, which Start creates and Stop joins.
//
// Ownership: Write copies. A queued record belongs to the queue until the send thread has
// delivered it. The worker does not close its handles and does not free waiting records when it
// is destroyed; Stop does.
//
// Errors are reported through Reports.h and never thrown. A server that does not answer is no
// error of Connect: libzmq connects in the background, and sending to it fails.
//
// What survives: a message counts as sent as soon as libzmq has accepted it, which is no proof that
// the server has it. Stop attempts each waiting record once and drops what fails. The record that
// the send thread has in work when Stop comes waits no longer: when its send fails, it is lost
// without another attempt, unless an earlier failed pass has left an entry for it in the queue. A
// crash loses what waits in memory. What was spooled stays on disk for the next run.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <deque>
#include <queue>
#include <string>
#include <vector>

#include "ZmqMessage.h"

struct DravenholtZmqWriterStatus;

namespace logging {
namespace writer {

class ZmqWorker {
 public:
  /// Reads the configuration; the arguments are the defaults of settings that the host's settings
  /// file does not give: the primary server, its CURVE public key as 64 upper-case hexadecimal
  /// digits, and a comma-separated list of secondary servers. The first Init of the process also
  /// opens the spool and sets its limits. To be called once, before anything else.
  void Init(std::string server, std::string public_key, std::string secondary_servers);

  /// Opens the socket to the primary and starts the send thread. Does nothing while running. When
  /// the socket cannot be opened, or libzmq lacks CURVE and would send in the clear, that is
  /// reported and the worker stays idle: Write still collects messages, in memory and then in the
  /// spool, and Stop does nothing.
  void Start();

  /// A new connected socket with options and keys set; null after a failure, which is reported.
  /// Public for tests; used by Start and by the send thread.
  void* Connect(std::string uri);

  /// Copies the message to the tail of the queue or, with 500 entries waiting, into the spool,
  /// which keeps the first `size` modulo 65536 bytes of it. Any thread.
  void Write(unsigned long size, const void* data);

  /// The send thread's body: returns soon after `running` was cleared.
  void DoWork();

  /// Ends the send thread, sends each waiting record once to the primary, closes sockets, context
  /// and spool. Does nothing unless running. Takes as long as the send under way, and up to 3
  /// seconds more for each waiting record while the primary does not answer.
  void Stop();

  /// Part of Stop: attempts each waiting record once and empties the queue.
  void flush_queue();

  /// Sends `msg`, with a second attempt a second after a first that failed (only one attempt once
  /// `running` is cleared), and counts the outcome. Returns what libzmq returned last: negative is
  /// failure, and then `msg` still holds its content; after success it is empty.
  int zmq_blocking_send(void* socket, zmq_msg_t* msg);

  /// Seconds since the epoch.
  int64_t currentTime();

  /// "tcp://" in front unless there is a scheme, ":5555" behind unless there is a port. Uses no
  /// state. The text is otherwise taken as it is.
  std::string correct_zmq_uri(std::string uri);

  /// Sets queued, in_work, spooled, running, and sent, failed, cut, delivered, stored and written
  /// as this worker's counters stand; leaves the other fields alone. With queued, in_work and
  /// spooled all zero, everything that was written has been handed over. Any thread.
  void FillStatus(DravenholtZmqWriterStatus* status);

  /// Records that Stop's single attempt could not send, and dropped. A record that the send thread
  /// itself gave up, as Stop had come, is not among them; only its failed send is counted.
  uint64_t DroppedByFlush() const { return dropped_by_flush.load(std::memory_order_relaxed); }

 private:
  /// Written by one thread at a time, readable by all; costs no locked instruction.
  typedef std::atomic<uint64_t> Counter;
  friend class SendLoop;

  static void count_one(Counter& counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }

  // Constant after Init, except where noted.
  std::string server;
  std::vector<std::string> secondary_servers;
  /// When the primary was first found not answering; 0 while it is healthy. Send thread only.
  int64_t main_fail_time;
  /// Guarded by `mutex`.
  std::queue<zmq_message*> queue;
  std::atomic<bool> running;
  /// The secondary that is being tried or in use, and its place in the list. Send thread only.
  std::string secondary_server;
  int32_t secondary_index;
  std::string public_key;

  // Set by Start; after that of the send thread, and of Stop once it has joined that.
  void* context;
  void* socket;

  pthread_mutex_t mutex;
  pthread_t thread;
  Counter sent_count;
  Counter failed_count;

  // Beyond the basic set.
  Counter dropped_by_flush;
  Counter delivered_count;
  /// The send thread holds something that is not settled yet. Guarded by `mutex`.
  bool in_work;
  /// Messages of more than 65535 bytes that went to the spool. Guarded by `mutex`.
  uint64_t cut_count;
  /// Messages given to the spool less those that came back. Guarded by `mutex`.
  int64_t stored_count;
  /// Messages given to Write. Guarded by `mutex`.
  uint64_t written_count;
  /// Secondary sockets that the send loop let go of without closing them. Send thread only, and
  /// Stop once it has joined that.
  std::deque<void*> dropped_sockets;
};

}  // namespace writer
}  // namespace logging
