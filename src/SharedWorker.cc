#include "SharedWorker.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "Paths.h"
#include "WriterStatus.h"
#include "ZmqWorker.h"

#include "ConstantText.h"

namespace logging {
namespace writer {
namespace shared_worker {
namespace {

/// Held while a worker is created and brought up, and while it is stopped and deleted.
std::mutex lifecycle;

/// Held for reading while the worker is used, for writing while the state below changes.
pthread_rwlock_t use = PTHREAD_RWLOCK_INITIALIZER;

// Guarded by `use`.
ZmqWorker* worker = nullptr;  ///< still set while it is being stopped
std::uint64_t past_sent = 0;  ///< by workers that are gone
std::uint64_t past_failed = 0;
std::uint64_t past_cut = 0;
std::uint64_t past_delivered = 0;
std::int64_t past_stored = 0;
std::uint64_t past_written = 0;

/// Whether writes reach the worker. Cleared before `use` is taken for writing: where the lock
/// prefers readers, a stream of writes could keep the writer out.
std::atomic<bool> accepting(false);

class Reading {
 public:
  Reading() { pthread_rwlock_rdlock(&use); }
  ~Reading() { pthread_rwlock_unlock(&use); }
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;
};

class Changing {
 public:
  Changing() { pthread_rwlock_wrlock(&use); }
  ~Changing() { pthread_rwlock_unlock(&use); }
  Changing(const Changing&) = delete;
  Changing& operator=(const Changing&) = delete;
};

}  // namespace

void ensure() {
  std::lock_guard<std::mutex> lock(lifecycle);
  if (accepting)
    return;
  // With the parentheses: the worker has no constructor, and every member must start as zero.
  ZmqWorker* const created = new ZmqWorker();
  created->Init(text_of(BifConst::LogZMQ::zmq_primary_server),
                text_of(BifConst::LogZMQ::zmq_public_key),
                text_of(BifConst::LogZMQ::zmq_secondary_server));
  created->Start();
  const Changing changing;
  worker = created;
  accepting = true;
}

bool write(unsigned long size, const void* data) {
  if (!accepting)
    return false;  // without waiting for one that is being ended
  const Reading reading;
  if (!accepting)
    return false;
  worker->Write(size, data);
  return true;
}

void end() {
  std::lock_guard<std::mutex> lock(lifecycle);
  if (!accepting.exchange(false))
    return;
  {
    // Comes when no write is under way any more.
    const Changing changing;
  }
  worker->Stop();
  const Changing changing;
  DravenholtZmqWriterStatus last = DravenholtZmqWriterStatus();
  worker->FillStatus(&last);
  past_sent += last.sent;
  past_failed += last.failed;
  past_cut += last.cut;
  past_delivered += last.delivered;
  past_stored += last.stored;
  past_written += last.written;
  delete worker;
  worker = nullptr;
}

}  // namespace shared_worker
}  // namespace writer
}  // namespace logging

extern "C" void dravenholt_zmqwriter_status(DravenholtZmqWriterStatus* status) {
  using namespace logging::writer::shared_worker;
  *status = DravenholtZmqWriterStatus();
  status->spool_folder = paths::kSpoolFolder;
  status->install_prefix = paths::kInstallPrefix;
  const Reading reading;
  if (worker) {
    status->worker = 1;
    worker->FillStatus(status);
  }
  status->sent += past_sent;
  status->failed += past_failed;
  status->cut += past_cut;
  status->delivered += past_delivered;
  status->stored += past_stored;
  status->written += past_written;
}
