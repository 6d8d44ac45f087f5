#include "FakeWorker.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "WriterStatus.h"
#include "ZmqWorker.h"

namespace {

struct State {
  std::mutex mutex;
  std::vector<test::FakeWorker::Connection> inits;
  int starts = 0;
  int stops = 0;
  std::vector<std::string> messages;
  std::vector<std::string> misuses;
  std::function<void(const std::string&)> listener;  // not guarded: see listen()

  void misuse(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    misuses.push_back(what);
  }
  void tell(const std::string& call) {
    if (listener)
      listener(call);
  }
};

State& state() {
  static State* instance = new State;
  return *instance;
}

/// The worker there is. The class has no destructor that a fake could define, so its deletion shows
/// only where the memory is given back: in operator delete, below.
std::atomic<void*> living_worker(nullptr);
std::atomic<int> worker_deletions(0);

/// Of this thread, until one fails; negative for no limit.
thread_local long allocations_left = -1;

/// `running` in the fake: true from Start until Stop begins.
const char* const kNotRunning = "Write while the worker does not run";

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = allocations_left-- == 0 ? nullptr : std::malloc(size ? size : 1);
  if (!memory)
    throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  void* expected = memory;
  if (memory && living_worker.compare_exchange_strong(expected, nullptr))
    ++worker_deletions;
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}

namespace test {

void FakeWorker::reset() {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().inits.clear();
  state().starts = 0;
  state().stops = 0;
  worker_deletions = 0;
  state().messages.clear();
  state().misuses.clear();
  state().listener = nullptr;
}

std::vector<FakeWorker::Connection> FakeWorker::inits() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().inits;
}

int FakeWorker::starts() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().starts;
}

int FakeWorker::stops() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().stops;
}

int FakeWorker::deletions() {
  return worker_deletions;
}

std::vector<std::string> FakeWorker::messages() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().messages;
}

std::size_t FakeWorker::message_count() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().messages.size();
}

std::vector<std::string> FakeWorker::misuses() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().misuses;
}

void FakeWorker::fail_allocation(long number) {
  allocations_left = number;
}

void FakeWorker::listen(std::function<void(const std::string&)> listener) {
  state().listener = std::move(listener);
}

}  // namespace test

namespace logging {
namespace writer {

void ZmqWorker::Init(std::string arg_server, std::string arg_public_key,
                     std::string arg_secondary_servers) {
  if (!server.empty())
    state().misuse("Init twice");
  living_worker = this;
  server = arg_server;
  public_key = arg_public_key;
  pthread_mutex_init(&mutex, nullptr);
  // Other writers may find a worker that is half brought up, if they are let.
  std::this_thread::yield();
  std::lock_guard<std::mutex> lock(state().mutex);
  state().inits.push_back({arg_server, arg_public_key, arg_secondary_servers});
}

void ZmqWorker::Start() {
  if (server.empty())
    state().misuse("Start before Init");
  state().tell("Start");
  running = true;
  std::lock_guard<std::mutex> lock(state().mutex);
  state().starts++;
}

void ZmqWorker::Write(unsigned long size, const void* data) {
  if (!running)
    state().misuse(kNotRunning);
  state().tell("Write");
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().messages.emplace_back(static_cast<const char*>(data), size);
  }
  std::this_thread::yield();  // so that a Stop that does not wait has every chance
  if (!running)
    state().misuse(kNotRunning);
  ++sent_count;
  if (size > 65535) {
    std::lock_guard<std::mutex> lock(state().mutex);
    ++cut_count;
  }
}

void ZmqWorker::Stop() {
  if (!running.exchange(false))
    state().misuse("Stop without Start");
  state().tell("Stop");
  std::lock_guard<std::mutex> lock(state().mutex);
  state().stops++;
}

void ZmqWorker::FillStatus(DravenholtZmqWriterStatus* status) {
  status->queued = 0;
  status->in_work = 0;
  status->spooled = 0;
  status->running = running;
  status->sent = sent_count;
  status->failed = failed_count;
  std::lock_guard<std::mutex> lock(state().mutex);
  status->cut = cut_count;
}

}  // namespace writer
}  // namespace logging
