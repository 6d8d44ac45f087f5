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

#include "MutexLock.h"
#include "PersistentQueue.h"
#include "Reports.h"
#include "SendLoop.h"
#include "WorkerSettings.h"
#include "WriterStatus.h"
#include "ZmqMessage.h"

#include "SettingsFile.h"
#include "util.h"

namespace logging {
namespace writer {

using namespace worker_settings;

/// The one spool of the process: made by the first Init, deleted by Stop. From Start on it is
/// replaced only under the worker's mutex.
static PersistentQueue* zmq_pqueue = nullptr;

namespace {

const useconds_t kRetryPauseUs = 1000000;

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

}  // namespace

static void* worker_func(void* worker) {
  static_cast<ZmqWorker*>(worker)->DoWork();
  return worker;
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
  // Copied before the lock is taken, which all writers and the send thread wait for. With the queue
  // full the copy is not used, and it does not matter then whether there was memory for it.
  void* const body = malloc(size > 0 ? size : 1);
  zmq_message* const record = body ? new_record(body, size) : nullptr;
  if (record && size > 0)
    memcpy(body, data, size);
  {
    MutexLock lock(&mutex);
    ++written_count;
    if (queue.size() < kQueueBound) {
      if (record)
        queue.push(record);
      else
        out_of_memory("malloc");
      return;
    }
    if (zmq_pqueue) {  // gone once stopped
      // A longer message is cut: the spool's lengths have 16 bits.
      cut_count += size > USHRT_MAX;
      ++stored_count;
      zmq_pqueue->Store(static_cast<unsigned short>(size), data);
    }
  }
  free(body);
  free(record);
}

void ZmqWorker::DoWork() {
  main_fail_time = 0;
  secondary_index = 0;
  if (running)
    SendLoop(*this, zmq_pqueue).run();
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
  // Counts are cut to 32 bits: the line is required to print them with %d.
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
    record->data = nullptr;  // it is the message's now
    bool sent = false;
    if (init_with_body(&msg, body, record->size)) {
      sent = zmq_blocking_send(socket, &msg) >= 0;
      zmq_msg_close(&msg);
    }
    if (!sent)
      count_one(dropped_by_flush);
    else if (record->size > 0)
      count_one(delivered_count);
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
  status->delivered = delivered_count.load(std::memory_order_relaxed);
  status->stored = stored_count;
  status->written = written_count;
}

}  // namespace writer
}  // namespace logging
