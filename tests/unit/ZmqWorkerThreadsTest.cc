// The worker with its own send thread, several writers and somebody who asks for its status. Worth
// most under ThreadSanitizer.
#include <algorithm>
#include <atomic>
#include <thread>

#include "TempDir.h"
#include "WorkerFixture.h"

namespace test {
namespace {

class Threads : public ::testing::Test {
 protected:
  Threads() {
    log.clear();
    FakeSpool::reset();
    worker.Init("p", "", "a");
  }

  void TearDown() override {
    EXPECT_THAT(zmq.misuse(), ::testing::IsEmpty());
    EXPECT_THAT(zmq.open_sockets(), ::testing::IsEmpty());
    EXPECT_EQ(zmq.live_contents(), 0u);
  }

  DravenholtZmqWriterStatus status() {
    DravenholtZmqWriterStatus result = {};
    worker.FillStatus(&result);
    return result;
  }

  bool drained() {
    const auto s = status();
    return s.queued == 0 && !s.in_work && !s.spooled;
  }

  void write(int writer, int count) {
    for (int i = 0; i < count; ++i) {
      const std::string body = "w" + std::to_string(writer) + "." + std::to_string(i);
      worker.Write(body.size(), body.data());
    }
  }

  /// Bodies that were accepted, without the empty ones, sorted.
  std::vector<std::string> delivered() {
    std::vector<std::string> bodies;
    for (const std::string& line : log.starting_with("send")) {
      const auto from = line.find('\'') + 1;
      const auto to = line.rfind('\'');
      if (line.compare(to, 4, "' ok") == 0 && to > from)
        bodies.push_back(line.substr(from, to - from));
    }
    std::sort(bodies.begin(), bodies.end());
    return bodies;
  }

  static std::vector<std::string> written(int writers, int count) {
    std::vector<std::string> bodies;
    for (int writer = 0; writer < writers; ++writer)
      for (int i = 0; i < count; ++i)
        bodies.push_back("w" + std::to_string(writer) + "." + std::to_string(i));
    std::sort(bodies.begin(), bodies.end());
    return bodies;
  }

  CallLog& log = CallLog::instance();
  FakeZmq zmq;
  logging::writer::ZmqWorker worker = logging::writer::ZmqWorker();
};

TEST_F(Threads, EveryMessageOfFourWritersIsDeliveredOnce) {
  const int count = 1500;
  worker.Start();
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 4; ++writer)
    writers.emplace_back([this, writer] { write(writer, count); });
  std::atomic<bool> ask{true};
  std::thread watcher([&] {
    while (ask)
      status();
  });
  for (auto& writer : writers)
    writer.join();
  EXPECT_TRUE(wait_until([this] { return drained(); }));
  ask = false;
  watcher.join();
  EXPECT_EQ(status().sent, 4u * count);
  worker.Stop();
  EXPECT_EQ(delivered(), written(4, count));
}

TEST_F(Threads, AnOutageInBetweenLosesAndRepeatsNothing) {
  std::atomic<bool> up{true};
  zmq.on_send = [&](const std::string&, const std::string&) { return up.load(); };
  worker.Start();
  std::thread first([this] { write(0, 300); });
  std::thread second([this] { write(1, 300); });
  up = false;
  first.join();
  second.join();
  // With these at the latest there is something that the outage hits.
  write(2, 600);
  EXPECT_TRUE(wait_until([this] { return log.starting_with("warning: Main").size() > 0; }));
  up = true;
  EXPECT_TRUE(wait_until([this] { return drained(); }));
  worker.Stop();
  auto expected = written(2, 300);
  for (int i = 0; i < 600; ++i)
    expected.push_back("w2." + std::to_string(i));
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(delivered(), expected);
}

TEST_F(Threads, WritersMayGoOnWhileTheWorkerStops) {
  worker.Start();
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 4; ++writer)
    writers.emplace_back([this, writer] { write(writer, 400); });
  worker.Stop();
  for (auto& writer : writers)
    writer.join();
  const std::vector<std::string> left = take_queue(&worker);
  auto all = delivered();
  const size_t sent_count = all.size();
  all.insert(all.end(), left.begin(), left.end());
  for (const std::string& body : FakeSpool::contents())
    all.push_back(body);
  std::sort(all.begin(), all.end());
  EXPECT_TRUE(std::adjacent_find(all.begin(), all.end()) == all.end()) << "something twice";
  EXPECT_EQ(status().sent, sent_count);
}

TEST_F(Threads, StoppedFromSeveralThreadsAtOnceItStopsOnce) {
  worker.Start();
  write(0, 10);
  std::vector<std::thread> stoppers;
  for (int i = 0; i < 4; ++i)
    stoppers.emplace_back([this] { worker.Stop(); });
  for (auto& stopper : stoppers)
    stopper.join();
  EXPECT_EQ(log.starting_with("ctx_destroy").size(), 1u);
  EXPECT_EQ(delivered(), written(1, 10));
}

}  // namespace
}  // namespace test
