// What the tests of the worker share: a worker over fake libzmq, clock and spool, whose send loop
// runs on the test's own thread.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <zmq.h>

#include <deque>
#include <string>
#include <vector>

#include "CallLog.h"
#include "FakeClock.h"
#include "FakeSpool.h"
#include "FakeZmq.h"
#include "WriterStatus.h"
#include "ZmqWorker.h"

namespace test {

constexpr bool kOk = true;
constexpr bool kFail = false;

const char kIdle[] = "sleep 100000 us";
const char kRetryPause[] = "sleep 1000000 us";

const char kNotResponding[] =
    "warning: Main zmq server tcp://p:5555 is not responding, 5 minutes timeout...";
const char kBackOnline[] = "warning: Main zmq server tcp://p:5555 is back online";
const char kNoSecondary[] = "warning: Could not connect to any of secondary servers!";
const char kInitFailed[] = "warning: Failed to initialize zmq_message";

inline std::string switched_to(const std::string& server) {
  return "warning: Switched to secondary server " + server;
}

inline std::string secondary_gone(const std::string& server) {
  return "warning: Secondary server " + server + " is not responding";
}

/// Matches these lines and no others, like ElementsAre, but compiles in half the time.
template <typename... Line>
auto Lines(Line... lines) {
  return ::testing::ElementsAreArray(std::vector<std::string>{std::string(lines)...});
}

/// The socket to the primary, and a send thread that runs: as after Start, without the thread.
inline void connect(logging::writer::ZmqWorker* worker) {
  worker->context = zmq_ctx_new();
  worker->socket = worker->Connect(worker->server);
  worker->running = true;
}

/// Stop, where the test is the send thread; the thread that is joined ends at once.
inline void stop(logging::writer::ZmqWorker* worker) {
  worker->running = true;
  const auto end_at_once = [](void* nothing) { return nothing; };
  pthread_create(&worker->thread, nullptr, end_at_once, nullptr);
  worker->Stop();
}

/// Frees and forgets what waits, and gives it, oldest first.
inline std::vector<std::string> take_queue(logging::writer::ZmqWorker* worker) {
  std::vector<std::string> bodies;
  for (auto& queue = worker->queue; !queue.empty(); queue.pop()) {
    bodies.emplace_back(static_cast<char*>(queue.front()->data), queue.front()->size);
    free(queue.front()->data);
    free(queue.front());
  }
  return bodies;
}

class WorkerFixture : public ::testing::Test {
 protected:
  using Worker = logging::writer::ZmqWorker;

  WorkerFixture() {
    log.clear();
    FakeSpool::reset();
  }

  void TearDown() override {
    log.listen(nullptr);
    if (worker) {
      if (!worker->running)
        drive();
      stop();
      delete worker;
    }
    EXPECT_THAT(zmq.misuse(), ::testing::IsEmpty());
    EXPECT_THAT(zmq.open_sockets(), ::testing::IsEmpty());
    EXPECT_EQ(zmq.live_contents(), 0u);
  }

  /// A worker as after Start, but without its thread: run() does that one's work.
  void connect(const std::string& secondaries = "") {
    worker = new Worker();
    worker->Init("p", "", secondaries);
    ::test::connect(worker);
    drive();
    log.clear();
  }

  /// Makes the worker believe that it was started.
  void drive() {
    driven = true;
    worker->running = true;
  }

  void write(const std::string& body) { worker->Write(body.size(), body.data()); }

  void write_many(int count) {
    for (int i = 0; i < count; ++i)
      write("r" + std::to_string(i));
  }

  /// Outcomes of the next sends, in order, whatever the socket. Later ones succeed.
  void sends(std::deque<bool> outcomes) {
    zmq.on_send = [outcomes](const std::string&, const std::string&) mutable {
      if (outcomes.empty())
        return kOk;
      const bool outcome = outcomes.front();
      outcomes.pop_front();
      return outcome;
    };
  }

  /// Clears `running` as soon as the log has its `nth` line that begins with `start`.
  void stop_at(const std::string& start, int nth = 1) {
    log.listen([this, start, nth](const std::string& line) mutable {
      if (line.compare(0, start.size(), start) == 0 && --nth == 0)
        worker->running = false;
    });
  }

  /// Runs the send loop until it is idle, or has come to the `nth` line that begins with `last`,
  /// and gives what it did.
  std::vector<std::string> run(const std::string& last = kIdle, int nth = 1) {
    log.clear();
    worker->running = true;
    stop_at(last, nth);
    worker->DoWork();
    log.listen(nullptr);
    return log.story();
  }

  /// Stop, and what it did. When the loop was driven by hand, the thread that is joined has just
  /// ended.
  std::vector<std::string> stop() {
    log.clear();
    if (driven)
      ::test::stop(worker);
    else
      worker->Stop();
    return log.story();
  }

  DravenholtZmqWriterStatus status() {
    DravenholtZmqWriterStatus result = {};
    worker->FillStatus(&result);
    return result;
  }

  bool queue_is_locked() {
    if (pthread_mutex_trylock(&worker->mutex) != 0)
      return true;
    pthread_mutex_unlock(&worker->mutex);
    return false;
  }

  uint64_t sent() const { return worker->sent_count; }
  uint64_t failed() const { return worker->failed_count; }

  CallLog& log = CallLog::instance();
  FakeClock clock;
  FakeZmq zmq;
  Worker* worker = nullptr;

 private:
  bool driven = false;
};

}  // namespace test
