#include "SharedWorker.h"

#include <pthread.h>

#include <atomic>
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
/// What workers that are gone have counted; the other fields are not used.
DravenholtZmqWriterStatus past = DravenholtZmqWriterStatus();

/// Whether writes reach the worker. Cleared before `use` is taken for writing: where the lock
/// prefers readers, a stream of writes could keep the writer out.
std::atomic<bool> accepting(false);

/// Holds `use`.
class Holding {
 public:
  explicit Holding(int (*lock)(pthread_rwlock_t*)) { lock(&use); }
  ~Holding() { pthread_rwlock_unlock(&use); }
  Holding(const Holding&) = delete;
  Holding& operator=(const Holding&) = delete;
};

void add_counts(const DravenholtZmqWriterStatus& counts, DravenholtZmqWriterStatus* to) {
  to->sent += counts.sent;
  to->failed += counts.failed;
  to->cut += counts.cut;
  to->delivered += counts.delivered;
  to->stored += counts.stored;
  to->written += counts.written;
}

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
  const Holding changing(pthread_rwlock_wrlock);
  worker = created;
  accepting = true;
}

bool write(unsigned long size, const void* data) {
  if (!accepting)
    return false;  // without waiting for one that is being ended
  const Holding reading(pthread_rwlock_rdlock);
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
    const Holding changing(pthread_rwlock_wrlock);
  }
  worker->Stop();
  const Holding changing(pthread_rwlock_wrlock);
  DravenholtZmqWriterStatus last = DravenholtZmqWriterStatus();
  worker->FillStatus(&last);
  add_counts(last, &past);
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
  const Holding reading(pthread_rwlock_rdlock);
  if (worker) {
    status->worker = 1;
    worker->FillStatus(status);
  }
  add_counts(past, status);
}
