#include "ZmqWorker.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <utility>

#include <zmq.h>

#include "PersistentQueue.h"
#include "Reports.h"
#include "SendLook.h"
#include "WorkerSettings.h"
#include "WriterStatus.h"

#include "SettingsFile.h"
#include "util.h"

namespace logging {
namespace writer {

using namespace worker_settings;

/// The one spool of the process: made by the first Init, deleted by Stop. From Start on it is
/// replaced only under the worker's mutex.
static PersistentQueue* zmq_pqueue = nullptr;

namespace {

/// Entries in memory from which on Write spools and the refill stops.
const size_t kQueueBound = 500;

const useconds_t kIdlePollUs = 100000;
const useconds_t kRetryPauseUs = 1000000;
const useconds_t kHoldOffPauseUs = 1000000;
const int64_t kHoldOffSeconds = 9;

/// A forgotten socket keeps its connection. A laptop's primary may come and go a thousand times
/// between two restarts, and libzmq has no more than 1023 sockets to give.
const size_t kMaxDroppedSockets = 8;

void count_one(std::atomic<uint64_t>& counter) {
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~MutexLock() { pthread_mutex_unlock(mutex_); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

/// A progress line on standard output, visible at once even when that is a pipe or a file.
void print_line(const char* format, ...) __attribute__((format(printf, 1, 2)));

void print_line(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vprintf(format, arguments);
  va_end(arguments);
  fflush(stdout);
}

// -- Configuration --------------------------------------------------------------------------------

std::string string_setting(const char* key, const std::string& default_value) {
  return settings ? settings->getStringVal(key, default_value.c_str()) : default_value;
}

int int_setting(const char* key, int default_value) {
  return settings ? settings->getIntVal(key, default_value) : default_value;
}

void set_spool_limits(PersistentQueue* spool) {
  const int relative = int_setting(kDiskRelative, kDefaultDiskRelative);
  const int absolute = int_setting(kDiskAbsolute, kDefaultDiskAbsolute);
  const double disk_mb = working_disk_mb();
  const int limit_mb = spool_limit_mb(relative, absolute, disk_mb);
  reports::info("Disk size is %0.2fMb, setting maximum usage to %dMb", disk_mb, limit_mb);
  const int chunk_mb = int_setting(kChunkSize, kDefaultChunkSize);
  spool->SetLimits(megabytes_to_bytes(chunk_mb), megabytes_to_bytes(limit_mb));
}

// -- Connection -----------------------------------------------------------------------------------

void set_int_option(void* socket, int option, int value) {
  zmq_setsockopt(socket, option, &value, sizeof value);
}

/// A key pair of its own for every connection, never kept. False when libzmq has no CURVE: then the
/// options fail too, which is overlooked, and messages would go in the clear.
bool set_client_keys(void* socket) {
  char public_key[kCurveKeyLength] = {0};
  char secret_key[kCurveKeyLength] = {0};
  if (zmq_curve_keypair(public_key, secret_key) != 0)
    return false;
  zmq_setsockopt(socket, ZMQ_CURVE_PUBLICKEY, public_key, sizeof public_key);
  zmq_setsockopt(socket, ZMQ_CURVE_SECRETKEY, secret_key, sizeof secret_key);
  return true;
}

/// The server's key, from hexadecimal text of any length. A wrong key never opens the connection to
/// plain text: a libzmq that has CURVE, and Start goes on with no other, was switched to it by the
/// client keys before this.
void set_server_key(void* socket, const std::string& hex) {
  const ServerKey key = decode_server_key(hex);
  zmq_setsockopt(socket, ZMQ_CURVE_SERVERKEY, key.bytes, key.length);
}

// -- Records and messages -------------------------------------------------------------------------

void* allocate(size_t size) {
  void* block = malloc(size > 0 ? size : 1);
  if (!block)
    out_of_memory("malloc");
  return block;
}

void* copy_of(const void* data, size_t size) {
  void* copy = allocate(size);
  if (size > 0)
    memcpy(copy, data, size);
  return copy;
}

/// A record with one queue entry, for the caller to push.
zmq_message* new_record(void* body, uint64_t size) {
  zmq_message* record = static_cast<zmq_message*>(allocate(sizeof(zmq_message)));
  record->data = body;
  record->size = size;
  record->entries = 1;
  record->done = false;
  return record;
}

/// The same with a copy of the bytes as its body; null without memory.
zmq_message* try_new_record(const void* data, uint64_t size) {
  void* const body = malloc(size > 0 ? size : 1);
  zmq_message* const record =
      body ? static_cast<zmq_message*>(malloc(sizeof(zmq_message))) : nullptr;
  if (!record) {
    free(body);
    return nullptr;
  }
  if (size > 0)
    memcpy(body, data, size);
  *record = {body, size, 1, false};
  return record;
}

/// Marks a record as settled. Its body, if it still owns one, goes at once; the record itself as
/// soon as no queue entry refers to it.
void settle_record(zmq_message* record) {
  free(record->data);
  record->data = nullptr;
  record->done = true;
  if (record->entries == 0)
    free(record);
}

/// Pops the entry at the head. Gives its record, or null when the entry was a stale one: its
/// record has been settled, and goes with its last entry.
zmq_message* pop_entry(std::queue<zmq_message*>& queue) {
  zmq_message* record = queue.front();
  queue.pop();
  record->entries -= 1;
  if (!record->done)
    return record;
  if (record->entries == 0)
    free(record);
  return nullptr;
}

void free_data(void* data, void* /* hint */) {
  free(data);
}

/// Second half of a message's initialisation: after zmq_msg_init_size(msg, size) has succeeded,
/// gives it `body` as its content, without copying. Owns `body` from now on. After a failure `msg`
/// must not be used.
///
/// The two initialisations of one message object without a close between them are wanted so. But
/// the first one has set aside room for `size` bytes that the second no longer knows of. A
/// message object is a handle: a copy of its bits, closed afterwards, gives the room back.
bool adopt_body(zmq_msg_t* msg, void* body, size_t size) {
  zmq_msg_t sized = *msg;
  const bool adopted = zmq_msg_init_data(msg, body, size, free_data, nullptr) == 0;
  zmq_msg_close(&sized);
  if (!adopted)
    free(body);
  return adopted;
}

}  // namespace

static void* worker_func(void* worker) {
  static_cast<ZmqWorker*>(worker)->DoWork();
  return worker;
}

// -- The send loop --------------------------------------------------------------------------------

/// The send thread's work and its local state. One pass of the inner loop makes one attempt to
/// deliver `current`: the primary is always tried first, then what `state` says.
class ZmqWorker::SendLoop {
 public:
  explicit SendLoop(ZmqWorker& owner) : worker(owner) {}
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
  State state = STATE_PRIMARY;
  void* secondary_socket = nullptr;
  /// The record being sent. Its queue entries, if any, are those that failed passes left.
  zmq_message* current = nullptr;
  zmq_msg_t msg;

  SendLook look_at_primary;
  bool primary_answers = false;  ///< the latest send to the primary succeeded
  bool backlog = false;          ///< entries were waiting when `current` was popped
};

void ZmqWorker::SendLoop::run() {
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
/// interval of the program. Both on purpose.
bool ZmqWorker::SendLoop::holding_off() const {
  return state == STATE_PRIMARY && worker.main_fail_time > 0 &&
         worker.currentTime() - worker.main_fail_time <= kHoldOffSeconds;
}

void ZmqWorker::SendLoop::drain_queue() {
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
bool ZmqWorker::SendLoop::take_current() {
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
bool ZmqWorker::SendLoop::make_message() {
  return zmq_msg_init_size(&msg, current->size) == 0 &&
         adopt_body(&msg, copy_of(current->data, current->size), current->size);
}

ZmqWorker::SendLoop::Outcome ZmqWorker::SendLoop::deliver() {
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

ZmqWorker::SendLoop::Outcome ZmqWorker::SendLoop::primary_answered() {
  worker.main_fail_time = 0;
  if (state != STATE_PRIMARY)
    reports::warning("Main zmq server %s is back online", worker.server.c_str());
  state = STATE_PRIMARY;
  return kDelivered;
}

/// The first time: it gets one more pass before the secondaries are searched.
ZmqWorker::SendLoop::Outcome ZmqWorker::SendLoop::primary_did_not_answer() {
  reports::warning("Main zmq server %s is not responding, 5 minutes timeout...",
                   worker.server.c_str());
  worker.main_fail_time = worker.currentTime();
  return kFailed;
}

/// With `switched` the secondary has just accepted this very message, which that left empty: so the
/// first thing that a secondary gets after its first message is an empty one, and if it does
/// not take that, the message counts as delivered all the same. Both on purpose.
ZmqWorker::SendLoop::Outcome ZmqWorker::SendLoop::send_to_secondary(bool switched) {
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

ZmqWorker::SendLoop::Outcome ZmqWorker::SendLoop::search_secondaries() {
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

/// Looks for room only while a backlog is there to be worked off and the primary is answering.
bool ZmqWorker::SendLoop::send_to_primary() {
  if (backlog && primary_answers)
    look_at_primary.before_send(worker.socket);
  primary_answers = worker.zmq_blocking_send(worker.socket, &msg) >= 0;
  return primary_answers;
}

void ZmqWorker::SendLoop::close_secondary(void* secondary) {
  zmq_disconnect(secondary, worker.secondary_server.c_str());
  zmq_close(secondary);
}

/// A secondary that was left because the primary came back is neither closed nor used again: the
/// next search lets go of its socket. The context cannot end before its sockets are closed,
/// so they are kept for Stop to close, and the oldest is closed when they become many.
void ZmqWorker::SendLoop::forget_secondary() {
  if (!secondary_socket)
    return;
  worker.dropped_sockets.push_back(secondary_socket);
  secondary_socket = nullptr;
  if (worker.dropped_sockets.size() > kMaxDroppedSockets) {
    zmq_close(worker.dropped_sockets.front());
    worker.dropped_sockets.pop_front();
  }
}

void ZmqWorker::SendLoop::release_and_refill() {
  settle_record(current);
  current = nullptr;
  refill();
}

/// Tops the queue up from the spool. A spool that has less than it said gives an empty record.
void ZmqWorker::SendLoop::refill() {
  while (!zmq_pqueue->IsEmpty()) {
    {
      MutexLock lock(&worker.mutex);
      if (worker.queue.size() >= kQueueBound)
        return;
    }
    unsigned short size = 0;
    void* body = zmq_pqueue->Get(&size);
    zmq_message* record = new_record(body, size);
    MutexLock lock(&worker.mutex);
    worker.queue.push(record);
  }
}

/// Every failed pass leaves one more entry at the tail, while `current` is tried again at once.
void ZmqWorker::SendLoop::requeue() {
  MutexLock lock(&worker.mutex);
  current->entries += 1;
  worker.queue.push(current);
}

/// Leaves `current` to its queue entries; without any it is lost.
void ZmqWorker::SendLoop::abandon() {
  if (current && current->entries == 0)
    settle_record(current);
  current = nullptr;
  MutexLock lock(&worker.mutex);
  worker.in_work = false;
}

// -- The worker -----------------------------------------------------------------------------------

void ZmqWorker::Init(std::string default_server, std::string default_public_key,
                     std::string default_secondary_servers) {
  pthread_mutex_init(&mutex, nullptr);
  if (!zmq_pqueue) {
    zmq_pqueue = new PersistentQueue();
    set_spool_limits(zmq_pqueue);
  }
  server = correct_zmq_uri(string_setting(kServer, default_server));
  public_key = string_setting(kPublicKey, default_public_key);
  for (const std::string& secondary :
       split_servers(string_setting(kSecondaryServers, default_secondary_servers)))
    secondary_servers.push_back(correct_zmq_uri(secondary));
  running = false;
}

std::string ZmqWorker::correct_zmq_uri(std::string uri) {
  return correct_uri(std::move(uri));
}

void ZmqWorker::Start() {
  if (running)
    return;
  failed_count = 0;
  sent_count = 0;
  context = zmq_ctx_new();
  print_line("Connecting to %s\n", server.c_str());
  socket = Connect(server);
  if (!socket) {
    reports::error("Failed to open ZMQ socket");
    return;
  }
  running = true;
  if (pthread_create(&thread, nullptr, worker_func, this) != 0) {
    running = false;
    reports::error("Failed to start the send thread");
  }
}

void* ZmqWorker::Connect(std::string uri) {
  void* s = zmq_socket(context, ZMQ_PUSH);
  if (!s) {
    reports::error("Failed to open ZMQ socket");
    return nullptr;
  }
  set_int_option(s, ZMQ_RCVTIMEO, kTimeoutMs);
  set_int_option(s, ZMQ_SNDTIMEO, kTimeoutMs);
  set_int_option(s, ZMQ_LINGER, kTimeoutMs);
  set_int_option(s, ZMQ_IMMEDIATE, 1);
  set_int_option(s, ZMQ_SNDHWM, 1);
  if (!set_client_keys(s)) {
    reports::error(
        "This libzmq has no CURVE security: nothing will be sent. Install a libzmq that was built "
        "with it.");
    zmq_close(s);
    return nullptr;
  }
  print_line("Using zmq server %s\n", uri.c_str());
  print_line("Using zmq public key %s\n", public_key.c_str());
  set_server_key(s, public_key);
  if (zmq_connect(s, uri.c_str()) != 0) {
    reports::error("Failed to connect to ZMQ server %s", uri.c_str());
    zmq_close(s);
    return nullptr;
  }
  return s;
}

void ZmqWorker::Write(unsigned long size, const void* data) {
  // Copied before the lock is taken, since all writers and the send thread wait for each other
  // there. With the queue full that was in vain, and so is a failure of it then.
  zmq_message* const record = try_new_record(data, size);
  {
    MutexLock lock(&mutex);
    if (queue.size() < kQueueBound) {
      if (record)
        queue.push(record);
      else
        out_of_memory("malloc");
      return;
    }
    if (zmq_pqueue) {  // gone once stopped
      // Cutting it is on purpose: the spool's lengths have 16 bits.
      cut_count += size > USHRT_MAX;
      zmq_pqueue->Store(static_cast<unsigned short>(size), data);
    }
  }
  if (record)
    free(record->data);
  free(record);
}

void ZmqWorker::DoWork() {
  main_fail_time = 0;
  secondary_index = 0;
  if (running)
    SendLoop(*this).run();
}

int ZmqWorker::zmq_blocking_send(void* to, zmq_msg_t* msg) {
  int result = zmq_sendmsg(to, msg, 0);
  if (result < 0 && running) {
    usleep(kRetryPauseUs);
    result = zmq_sendmsg(to, msg, 0);
  }
  count_one(result >= 0 ? sent_count : failed_count);
  return result;
}

int64_t ZmqWorker::currentTime() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return now.tv_sec;
}

void ZmqWorker::Stop() {
  if (!running.exchange(false))
    return;
  pthread_join(thread, nullptr);
  flush_queue();
  // %d as ever: counts are cut to 32 bits.
  print_line("ZMQ worker finished, sent %d messages, failed %d times\n",
             static_cast<int>(sent_count.load()), static_cast<int>(failed_count.load()));
  if (socket) {
    zmq_disconnect(socket, server.c_str());
    zmq_close(socket);
    socket = nullptr;
  }
  for (void* dropped : dropped_sockets)
    zmq_close(dropped);
  dropped_sockets.clear();
  if (context) {
    zmq_ctx_destroy(context);
    context = nullptr;
  }
  {
    MutexLock lock(&mutex);
    delete zmq_pqueue;
    zmq_pqueue = nullptr;
  }
  reports::deliver_pending();
}

void ZmqWorker::flush_queue() {
  MutexLock lock(&mutex);
  while (!queue.empty()) {
    zmq_message* record = pop_entry(queue);
    if (!record)
      continue;
    zmq_msg_t msg;
    void* const body = record->data;
    // From here on the body is the message's. When zmq_msg_init_size fails there is none to take
    // it, and that it is not freed then is on purpose. When zmq_msg_init_data fails, adopt_body
    // frees it.
    record->data = nullptr;
    bool sent = false;
    if (zmq_msg_init_size(&msg, record->size) == 0 && adopt_body(&msg, body, record->size)) {
      sent = zmq_blocking_send(socket, &msg) >= 0;
      zmq_msg_close(&msg);
    }
    if (!sent)
      count_one(dropped_by_flush);
    settle_record(record);
  }
}

void ZmqWorker::FillStatus(DravenholtZmqWriterStatus* status) {
  MutexLock lock(&mutex);
  status->queued = queue.size();
  status->in_work = in_work;
  status->spooled = zmq_pqueue && !zmq_pqueue->IsEmpty();
  status->running = running;
  status->sent = sent_count.load(std::memory_order_relaxed);
  status->failed = failed_count.load(std::memory_order_relaxed);
  status->cut = cut_count;
}

}  // namespace writer
}  // namespace logging
