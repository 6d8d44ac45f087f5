// The send thread's work.
#pragma once

#include <cstdint>

#include <zmq.h>

#include "PersistentQueue.h"
#include "PolloutSpin.h"
#include "ZmqWorker.h"

namespace logging {
namespace writer {

/// The send thread's work and its local state. One pass of the inner loop makes one attempt to
/// deliver `current`: the primary is always tried first, then what `state` says.
class SendLoop {
 public:
  /// Neither is owned; both outlive the loop.
  SendLoop(ZmqWorker& worker, PersistentQueue* spool) : worker(worker), spool(spool) {}

  /// Sends until the worker's `running` is cleared.
  void run();

 private:
  enum State { STATE_PRIMARY = 0, STATE_NO_SECONDARY = 1, STATE_SECONDARY = 2 };
  /// Of one attempt to deliver; kStopped: given up, as Stop has come.
  enum Outcome { kDelivered, kFailed, kStopped };

  bool holding_off() const;
  void drain_queue();
  bool take_current();
  bool make_message();
  Outcome deliver();
  Outcome primary_answered();
  Outcome primary_did_not_answer();
  Outcome send_to_secondary(bool switched);
  Outcome search_secondaries();

  bool send_to_primary();
  void close_secondary(void* secondary);
  void forget_secondary();

  void release_and_refill();
  void refill();
  void requeue();
  void abandon();

  ZmqWorker& worker;
  PersistentQueue* const spool;
  State state = STATE_PRIMARY;
  void* secondary_socket = nullptr;
  /// The record being sent. Its queue entries, if any, are those that failed passes left.
  zmq_message* current = nullptr;
  zmq_msg_t msg;

  PolloutSpin primary_spin;
  bool primary_answers = false;  ///< the latest send to the primary succeeded
  bool backlog = false;          ///< entries were waiting when `current` was popped
};

}  // namespace writer
}  // namespace logging
