#include "SendLoop.h"

#include <unistd.h>

#include "MutexLock.h"
#include "Reports.h"
#include "ZmqMessage.h"

#include "util.h"

namespace logging {
namespace writer {
namespace {

const useconds_t kIdlePollUs = 100000;
const useconds_t kHoldOffPauseUs = 1000000;
const int64_t kHoldOffSeconds = 9;

/// A forgotten socket keeps its connection. A laptop's primary may come and go a thousand times
/// between two restarts, and libzmq has no more than 1023 sockets to give.
const size_t kMaxDroppedSockets = 8;

}  // namespace

void SendLoop::run() {
  while (worker.running) {
    if (holding_off()) {
      usleep(kHoldOffPauseUs);
      continue;
    }
    drain_queue();
    usleep(kIdlePollUs);
  }
  if (secondary_socket)
    close_secondary(secondary_socket);
}

/// Ten seconds after the primary was marked as failed, but only if the loop comes by here while it
/// is: requeue normally keeps drain_queue going instead. The "5 minutes" of the warning are no
/// interval of the program. Both are required as they are.
bool SendLoop::holding_off() const {
  return state == STATE_PRIMARY && worker.main_fail_time > 0 &&
         worker.currentTime() - worker.main_fail_time <= kHoldOffSeconds;
}

void SendLoop::drain_queue() {
  while (worker.running && take_current()) {
    if (!make_message()) {
      reports::warning("Failed to initialize zmq_message");
      break;
    }
    const Outcome outcome = deliver();
    if (outcome == kDelivered)
      release_and_refill();
    else if (outcome == kFailed)
      requeue();
    zmq_msg_close(&msg);
  }
  abandon();
}

/// A record that was requeued is kept and sent again at once. Otherwise pops the next, past the
/// entries of records that were delivered meanwhile. False when nothing waits.
bool SendLoop::take_current() {
  if (current)
    return true;
  bool skipped;
  do {
    skipped = false;
    {
      MutexLock lock(&worker.mutex);
      while (!current && !worker.queue.empty()) {
        current = pop_entry(worker.queue);
        skipped = skipped || !current;
      }
      backlog = !worker.queue.empty();
      worker.in_work = current || skipped;
    }
    // Skipped entries may have been all that kept spooled messages out of memory, and no delivery
    // is to come that would fetch them.
    if (!current && skipped)
      refill();
  } while (!current && skipped);
  return current != nullptr;
}

/// Each attempt sends a copy of its own, so that `current` survives a failure.
bool SendLoop::make_message() {
  return init_with_copy(&msg, current->data, current->size);
}

SendLoop::Outcome SendLoop::deliver() {
  if (send_to_primary())
    return primary_answered();
  if (!worker.running)
    return kStopped;
  switch (state) {
    case STATE_PRIMARY:
      return worker.main_fail_time == 0 ? primary_did_not_answer() : search_secondaries();
    case STATE_NO_SECONDARY:
      return search_secondaries();
    case STATE_SECONDARY:
      return send_to_secondary(false);
  }
  return kFailed;
}

SendLoop::Outcome SendLoop::primary_answered() {
  worker.main_fail_time = 0;
  if (state != STATE_PRIMARY)
    reports::warning("Main zmq server %s is back online", worker.server.c_str());
  state = STATE_PRIMARY;
  return kDelivered;
}

/// The first time: it gets one more pass before the secondaries are searched.
SendLoop::Outcome SendLoop::primary_did_not_answer() {
  reports::warning("Main zmq server %s is not responding, 5 minutes timeout...",
                   worker.server.c_str());
  worker.main_fail_time = worker.currentTime();
  return kFailed;
}

/// With `switched` the secondary has just accepted this very message, which that left empty: so the
/// first thing that a secondary gets after its first message is an empty one, and if it does
/// not take that, the message counts as delivered all the same. Both are required.
SendLoop::Outcome SendLoop::send_to_secondary(bool switched) {
  if (worker.zmq_blocking_send(secondary_socket, &msg) >= 0) {
    state = STATE_SECONDARY;
    return kDelivered;
  }
  reports::warning("Secondary server %s is not responding", worker.secondary_server.c_str());
  close_secondary(secondary_socket);
  secondary_socket = nullptr;
  state = STATE_NO_SECONDARY;
  return switched ? kDelivered : kFailed;
}

SendLoop::Outcome SendLoop::search_secondaries() {
  const int32_t count = static_cast<int32_t>(worker.secondary_servers.size());
  for (worker.secondary_index = 0; worker.secondary_index < count; ++worker.secondary_index) {
    worker.secondary_server = worker.secondary_servers[worker.secondary_index];
    // May be null; a send on null simply fails.
    void* candidate = worker.Connect(worker.secondary_server);
    if (worker.zmq_blocking_send(candidate, &msg) >= 0) {
      reports::warning("Switched to secondary server %s", worker.secondary_server.c_str());
      forget_secondary();
      secondary_socket = candidate;
      return send_to_secondary(true);
    }
    close_secondary(candidate);
  }
  forget_secondary();
  reports::warning("Could not connect to any of secondary servers!");
  state = STATE_NO_SECONDARY;
  return kFailed;
}

/// Spins for room only while a backlog is there to be worked off and the primary is answering.
bool SendLoop::send_to_primary() {
  if (backlog && primary_answers)
    primary_spin.wait(worker.socket);
  primary_answers = worker.zmq_blocking_send(worker.socket, &msg) >= 0;
  return primary_answers;
}

void SendLoop::close_secondary(void* secondary) {
  zmq_disconnect(secondary, worker.secondary_server.c_str());
  zmq_close(secondary);
}

/// A secondary that was left because the primary came back is neither closed nor used again: the
/// next search lets go of its socket. The context cannot end before its sockets are closed,
/// so they are kept for Stop to close, and the oldest is closed when they become many.
void SendLoop::forget_secondary() {
  if (!secondary_socket)
    return;
  worker.dropped_sockets.push_back(secondary_socket);
  secondary_socket = nullptr;
  if (worker.dropped_sockets.size() > kMaxDroppedSockets) {
    zmq_close(worker.dropped_sockets.front());
    worker.dropped_sockets.pop_front();
  }
}

void SendLoop::release_and_refill() {
  if (current->size > 0)
    ZmqWorker::count_one(worker.delivered_count);
  settle_record(current);
  current = nullptr;
  refill();
}

/// Tops the queue up from the spool. A spool that has less than it said gives an empty record.
void SendLoop::refill() {
  while (!spool->IsEmpty()) {
    {
      MutexLock lock(&worker.mutex);
      if (worker.queue.size() >= kQueueBound)
        return;
    }
    unsigned short size = 0;
    void* body = spool->Get(&size);
    zmq_message* const record = new_record(body, size);
    if (!record)
      out_of_memory("malloc");
    MutexLock lock(&worker.mutex);
    worker.stored_count -= size > 0;
    worker.queue.push(record);
  }
}

/// Every failed pass leaves one more entry at the tail, while `current` is tried again at once.
void SendLoop::requeue() {
  MutexLock lock(&worker.mutex);
  current->entries += 1;
  worker.queue.push(current);
}

/// Leaves `current` to its queue entries; without any it is lost.
void SendLoop::abandon() {
  if (current && current->entries == 0)
    settle_record(current);
  current = nullptr;
  MutexLock lock(&worker.mutex);
  worker.in_work = false;
}

}  // namespace writer
}  // namespace logging
