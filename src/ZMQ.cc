#include "ZMQ.h"

#include <dirent.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <flatbuffers/flatbuffers.h>

#include "AgentIdFile.h"
#include "Paths.h"
#include "RecordConversion.h"
#include "WriterStatus.h"
#include "ZmqWorker.h"

#include "UID.h"
#include "util.h"
#include "zmq.bif.h"

namespace logging {
namespace writer {
namespace {

const std::size_t kMaxPathLength = 1024;

/// The one delivery worker of the process; null until a writer's DoInit has brought it up.
std::atomic<ZmqWorker*> worker(nullptr);

/// Held while the worker is created and brought up, and while it is stopped and deleted.
std::mutex worker_lifecycle;

/// Every writer there is, for the one that deletes the worker.
std::vector<ZMQ*> writers;  // guarded by writers_mutex
std::mutex writers_mutex;

/// What dravenholt_zmqwriter_status tells. Has a lock of its own, since the other one is held for
/// as long as a worker takes to stop.
struct StatusSource {
  std::mutex mutex;
  ZmqWorker* worker;     // null while there is none; still set while it is being stopped
  std::uint64_t sent;    // by workers that are gone
  std::uint64_t failed;  // likewise
  std::uint64_t cut;     // likewise
} status_source;

/// Serialises writers that look for the agent-id file, so that one of them creates it and the
/// others find it.
std::mutex agent_id_mutex;
/// The identifier that could not be stored; guarded by agent_id_mutex.
std::string& unstored_agent_id = *new std::string;

/// Runs `action`; no exception leaves the plug-in, and a failed allocation is fatal.
template <typename Action>
auto or_out_of_memory(Action action) -> decltype(action()) {
  try {
    return action();
  } catch (const std::bad_alloc&) {
    out_of_memory("malloc");
    abort();
  }
}

std::string text_of(StringVal* constant) {
  const BroString* text = constant->AsString();
  return std::string(reinterpret_cast<const char*>(text->Bytes()), text->Len());
}

std::string generate_agent_id() {
  Bro::UID uid;
  uid.Set(128, nullptr, 0);
  return uid.Base62("");
}

bool write_agent_id(const char* path, const std::string& agent_id) {
  FILE* file = fopen(path, "wb");
  if (!file)
    return false;
  const bool written = fwrite(agent_id.data(), 1, agent_id.size(), file) == agent_id.size();
  return fclose(file) == 0 && written;
}

void bring_up(ZmqWorker* created) {
  created->Init(text_of(BifConst::LogZMQ::zmq_primary_server),
                text_of(BifConst::LogZMQ::zmq_public_key),
                text_of(BifConst::LogZMQ::zmq_secondary_server));
  created->Start();
}

/// Creates the shared worker unless it is there.
void ensure_worker() {
  std::lock_guard<std::mutex> lifecycle(worker_lifecycle);
  if (worker.load())
    return;
  // With the parentheses: the worker has no constructor, and every member must start as zero.
  ZmqWorker* created = new ZmqWorker();
  bring_up(created);
  {
    std::lock_guard<std::mutex> lock(status_source.mutex);
    status_source.worker = created;
  }
  // Only now: a writer that lost an earlier worker may be writing already, and must not meet one
  // that is half brought up.
  worker.store(created);
}

/// From here on no status is taken from the worker, and its totals are kept.
void retire_from_status(ZmqWorker* stopped) {
  DravenholtZmqWriterStatus last = DravenholtZmqWriterStatus();
  std::lock_guard<std::mutex> lock(status_source.mutex);
  stopped->FillStatus(&last);
  status_source.sent += last.sent;
  status_source.failed += last.failed;
  status_source.cut += last.cut;
  status_source.worker = nullptr;
}

}  // namespace

/// One DoWrite's hold on the shared worker. The flag goes up before the pointer is read, and the
/// one that deletes the worker clears the pointer before it looks at the flags: so either the
/// pointer is read as null, or the flag is seen and waited for. Both need sequential consistency.
class WorkerUse {
 public:
  explicit WorkerUse(ZMQ* writer) : using_worker_(writer->using_worker) {
    using_worker_.store(true);
    shared_ = worker.load();
  }
  ~WorkerUse() { using_worker_.store(false, std::memory_order_release); }
  WorkerUse(const WorkerUse&) = delete;
  WorkerUse& operator=(const WorkerUse&) = delete;

  /// Null when there is none.
  ZmqWorker* shared() const { return shared_; }

  /// Waits until no writer holds a worker that it read before `worker` was cleared. Writers that
  /// come later read null, so this ends as soon as the writes under way have.
  static void wait_for_all() {
    std::lock_guard<std::mutex> lock(writers_mutex);
    for (const ZMQ* writer : writers)
      while (writer->using_worker.load())
        std::this_thread::yield();
  }

 private:
  std::atomic<bool>& using_worker_;
  ZmqWorker* shared_;
};

namespace {

/// Stops and deletes the shared worker, for all writers, if there is one.
void end_worker() {
  std::lock_guard<std::mutex> lifecycle(worker_lifecycle);
  ZmqWorker* ended = worker.exchange(nullptr);
  if (!ended)
    return;
  WorkerUse::wait_for_all();
  ended->Stop();
  retire_from_status(ended);
  delete ended;
}

}  // namespace

ZMQ::ZMQ(WriterFrontend* frontend)
    : WriterBackend(frontend),
      fields(nullptr),
      num_fields(0),
      formatter(nullptr),
      using_worker(false) {
  agent_id = text_of(BifConst::LogZMQ::zmq_agent_id);
  if (agent_id.empty())
    DetectAgentId();
  if (agent_id.empty() || agent_id == "-")
    reports::weird("Agent id is not set!");

  set_separator = text_of(BifConst::LogZMQ::set_separator);
  unset_field = text_of(BifConst::LogZMQ::unset_field);
  empty_field = text_of(BifConst::LogZMQ::empty_field);
  const threading::formatter::Ascii::SeparatorInfo separators("", set_separator, unset_field,
                                                              empty_field);
  formatter = new threading::formatter::Ascii(this, separators);

  std::lock_guard<std::mutex> lock(writers_mutex);
  writers.push_back(this);
}

ZMQ::~ZMQ() {
  end_worker();
  // The host drops what a thread posts once it is being ended: this is the way for such reports.
  reports::deliver_pending();
  {
    std::lock_guard<std::mutex> lock(writers_mutex);
    writers.erase(std::find(writers.begin(), writers.end(), this));
  }
  delete formatter;
}

WriterBackend* ZMQ::Instantiate(WriterFrontend* frontend) {
  return or_out_of_memory([=] { return new ZMQ(frontend); });
}

char* ZMQ::FS(const char* format, ...) {
  char* text = nullptr;
  va_list arguments;
  va_start(arguments, format);
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length < 0)
    out_of_memory("malloc");
  return text;
}

void ZMQ::DetectAgentId() {
  std::lock_guard<std::mutex> lock(agent_id_mutex);
  char path[kMaxPathLength] = {0};
  snprintf(path, sizeof path, "%s", paths::kInstallPrefix);
  if (!directoryExists(path))
    mkdir(path, 0770);  // when it fails, so does writing the file, and that is reported
  const std::size_t length = strlen(path);
  snprintf(path + length, sizeof path - length, "%s", agent_id_file::kName);

  agent_id = agent_id_file::read(path);
  if (!agent_id.empty())
    return;
  agent_id = unstored_agent_id.empty() ? generate_agent_id() : unstored_agent_id;
  if (write_agent_id(path, agent_id)) {
    unstored_agent_id.clear();
  } else {
    unstored_agent_id = agent_id;
    reports::error("Failed to write to %s", path);
  }
}

bool ZMQ::DoInit(const WriterInfo&, int arg_num_fields, const threading::Field* const* arg_fields) {
  const reports::WriterScope scope(this);
  num_fields = arg_num_fields;
  fields = arg_fields;
  or_out_of_memory(ensure_worker);
  return true;
}

bool ZMQ::DoWrite(int count, const threading::Field* const* descriptions, threading::Value** vals) {
  const reports::WriterScope scope(this);
  return or_out_of_memory([=] {
    flatbuffers::FlatBufferBuilder builder(kInitialBufferBytes);
    convert_record(builder, agent_id, count, descriptions, vals);
    const WorkerUse use(this);
    if (!use.shared())
      return false;
    use.shared()->Write(builder.GetSize(), builder.GetBufferPointer());
    return true;
  });
}

bool ZMQ::DoSetBuf(bool) {
  return true;
}

bool ZMQ::DoFlush(double) {
  return true;
}

bool ZMQ::DoRotate(const char*, double, double, bool) {
  return true;
}

bool ZMQ::DoFinish(double) {
  return true;
}

bool ZMQ::DoHeartbeat(double, double) {
  // Opening the scope sends for reports of the send thread, also when no record comes along.
  const reports::WriterScope scope(this);
  return true;
}

bool directoryExists(const char* path) {
  DIR* folder = opendir(path);
  if (!folder)
    return false;
  closedir(folder);
  return true;
}

}  // namespace writer
}  // namespace logging

extern "C" void dravenholt_zmqwriter_status(DravenholtZmqWriterStatus* status) {
  using logging::writer::status_source;
  *status = DravenholtZmqWriterStatus();
  status->spool_folder = paths::kSpoolFolder;
  status->install_prefix = paths::kInstallPrefix;
  std::lock_guard<std::mutex> lock(status_source.mutex);
  if (status_source.worker) {
    status->worker = 1;
    status_source.worker->FillStatus(status);
  }
  status->sent += status_source.sent;
  status->failed += status_source.failed;
  status->cut += status_source.cut;
}
