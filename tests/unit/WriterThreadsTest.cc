// Several writers in several threads that share one worker. The worker is a fake that complains
// about what would be a use after free with the real one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "WriterStatus.h"
#include "ZMQ.h"

#include "Net.h"
#include "logging/Component.h"
#include "logging/WriterFrontend.h"
#include "standin/Host.h"

#include "Conversion.h"
#include "FakeWorker.h"
#include "ScriptConstants.h"
#include "TempDir.h"
#include "WriterUnderTest.h"

using test::FakeWorker;
using test::Frontend;
using test::RecordBuilder;
using test::WriterUnderTest;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

/// Lets threads go on only when all have arrived.
class Barrier {
 public:
  explicit Barrier(int threads) : missing_(threads) {}

  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (--missing_ == 0)
      all_here_.notify_all();
    all_here_.wait(lock, [this] { return missing_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable all_here_;
  int missing_;
};

class WriterThreads : public test::ReportingTest {
 protected:
  WriterThreads() { FakeWorker::reset(); }
  ~WriterThreads() override { EXPECT_THAT(FakeWorker::misuses(), IsEmpty()); }

  test::TempDir dir_;
  test::ScriptConstants constants_;
};

using WriterThreadsDeathTest = WriterThreads;

}  // namespace

TEST_F(WriterThreads, ThreeWritersStartedAtOnceShareOneWorkerAndOneIdentifier) {
  constants_.set(BifConst::LogZMQ::zmq_agent_id, "");
  const int kWriters = 3;
  for (int round = 1; round <= 200; round++) {
    std::filesystem::remove_all("orvik");
    std::vector<std::unique_ptr<Frontend>> frontends;
    for (int i = 0; i < kWriters; i++)
      frontends.emplace_back(new Frontend);
    std::unique_ptr<logging::writer::ZMQ> writers[kWriters];
    std::atomic<int> written(0);
    Barrier start(kWriters);
    std::vector<std::thread> threads;
    for (int i = 0; i < kWriters; i++) {
      threads.emplace_back([&, i] {
        RecordBuilder record;
        record.text("uid", "CAbc");
        start.wait();
        writers[i].reset(new logging::writer::ZMQ(frontends[i]->get()));
        EXPECT_TRUE(writers[i]->DoInit(frontends[i]->get()->Info(), 0, nullptr));
        if (writers[i]->DoWrite(record.size(), record.fields(), record.vals()))
          ++written;
      });
    }
    for (std::thread& thread : threads)
      thread.join();

    ASSERT_EQ(round, FakeWorker::starts());
    ASSERT_EQ(kWriters, written);
    std::set<std::string> identifiers = {test::read_file("orvik/agent.id")};
    for (const auto& writer : writers)
      identifiers.insert(writer->agent_id);
    ASSERT_EQ(1u, identifiers.size()) << "round " << round;
    for (auto& writer : writers)
      writer.reset();
    ASSERT_EQ(round, FakeWorker::stops());
  }
}

TEST_F(WriterThreads, RecordsUnderWayNeverMeetAWorkerThatIsBeingDeleted) {
  for (int round = 0; round < 200; round++) {
    WriterUnderTest storming[2];
    WriterUnderTest destroyed;
    for (WriterUnderTest* writer : {&storming[0], &storming[1], &destroyed})
      writer->init();
    const std::size_t before = FakeWorker::message_count();
    std::atomic<std::size_t> accepted(0);
    std::vector<std::thread> threads;
    for (WriterUnderTest& writer : storming) {
      threads.emplace_back([&] {
        while (writer.write())
          ++accepted;
      });
    }
    EXPECT_TRUE(test::wait_until([&] { return accepted > 10; }));
    destroyed.destroy();
    for (std::thread& thread : threads)
      thread.join();
    // What DoWrite has accepted has reached the worker before it stopped, all of it.
    ASSERT_EQ(accepted, FakeWorker::message_count() - before);
    ASSERT_THAT(FakeWorker::misuses(), IsEmpty());
  }
}

TEST_F(WriterThreads, DestroyingAWriterWaitsForARecordUnderWay) {
  std::mutex mutex;
  std::condition_variable changed;
  bool writing = false, go_on = false;
  std::atomic<bool> stopped(false);
  FakeWorker::listen([&](const std::string& call) {
    if (call == "Stop")
      stopped = true;
    std::unique_lock<std::mutex> lock(mutex);
    if (call != "Write" || writing)
      return;
    writing = true;
    changed.notify_all();
    changed.wait(lock, [&] { return go_on; });
    EXPECT_FALSE(stopped);
  });
  WriterUnderTest held, probe, destroyed;
  held.init();
  std::thread holds([&] { EXPECT_TRUE(held.write()); });
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return writing; });
  }
  std::thread releases([&] {
    // Refused as soon as the destruction is under way.
    EXPECT_TRUE(test::wait_until([&] { return !probe.write(); }));
    EXPECT_FALSE(stopped);
    std::lock_guard<std::mutex> lock(mutex);
    go_on = true;
    changed.notify_all();
  });
  destroyed.destroy();
  EXPECT_TRUE(stopped);
  holds.join();
  releases.join();
}

TEST_F(WriterThreads, WorkersMayComeAndGoWhileOthersWriteAndAsk) {
  std::atomic<bool> done(false);
  WriterUnderTest steady;
  std::thread writes([&] {
    while (!done)
      steady.write();
  });
  std::thread asks([&] {
    std::uint64_t sent = 0;
    while (!done) {
      DravenholtZmqWriterStatus status;
      dravenholt_zmqwriter_status(&status);
      EXPECT_GE(status.sent, sent);  // totals never go back
      sent = status.sent;
      std::this_thread::yield();
    }
  });
  for (int round = 0; round < 200; round++) {
    WriterUnderTest writer;
    writer.init();
    std::this_thread::yield();
  }
  done = true;
  writes.join();
  asks.join();
  EXPECT_EQ(200, FakeWorker::starts());
  EXPECT_EQ(200, FakeWorker::stops());
}

// No exception gets out: each operation ends the process where any of its allocations fails.
TEST_F(WriterThreadsDeathTest, FailedAllocationIsFatalWhereverItHappens) {
  const auto run = [](const std::function<bool(WriterUnderTest&)>& operation, long allocation) {
    WriterUnderTest writer;
    // Something for the writer to carry to the main thread.
    std::thread([] { reports::warning("from the send thread"); }).join();
    std::thread([&] {
      FakeWorker::fail_allocation(allocation);
      operation(writer);
      FakeWorker::fail_allocation(-1);
    }).join();
    _exit(0);
  };
  const std::pair<const char*, std::function<bool(WriterUnderTest&)>> operations[] = {
      {"DoInit", [](WriterUnderTest& writer) { return writer.init(); }},
      {"DoWrite", [](WriterUnderTest& writer) { return writer->DoWrite(0, nullptr, nullptr); }},
      {"DoHeartbeat", [](WriterUnderTest& writer) { return writer->DoHeartbeat(1.0, 2.0); }},
  };
  for (const auto& operation : operations) {
    SCOPED_TRACE(operation.first);
    EXPECT_EXIT(run(operation.second, 0), ::testing::KilledBySignal(SIGABRT),
                "out of memory in malloc");
    EXPECT_EXIT(run(operation.second, 1000), ::testing::ExitedWithCode(0), "");
  }
}

// -- Inside the stand-in host, with threads of its own --------------------------------------------

namespace {

/// The host with the component, but without the plug-in's folder.
class TestHost {
 public:
  TestHost() : host_(options()), component_("ZMQ", logging::writer::ZMQ::Instantiate) {}

  standin::Host* operator->() { return &host_; }

  logging::WriterFrontend* create_writer(const std::string& path, RecordBuilder& like) {
    return host_.CreateWriter("ZMQ", path, like.field_list());
  }

 private:
  static standin::Host::Options options() {
    standin::Host::Options options;
    options.heartbeat_seconds = 0.01;
    return options;
  }

  standin::Host host_;
  logging::Component component_;
};

class InsideTheHost : public WriterThreads {
 protected:
  InsideTheHost() { record_.text("ptype", "ftp").text("uid", "CAbc"); }

  logging::WriterFrontend* create_writer(const std::string& path) {
    return host_.create_writer(path, record_);
  }
  void write(logging::WriterFrontend* writer) {
    writer->Write(record_.size(), test::copy_values(record_));
  }
  bool until(const std::function<bool()>& condition) {
    return test::wait_until([&] {
      host_->Pump();
      return condition();
    });
  }

  RecordBuilder record_;
  TestHost host_;
};

}  // namespace

// The host destroys a writer that has nothing left to do while others still have records.
TEST_F(WriterThreads, NoRecordIsLostWhenTheHostEndsWithUnevenQueues) {
  RecordBuilder record;
  record.text("ptype", "ftp").text("uid", "CAbc");
  for (std::size_t round = 0; round < 200; round++) {
    FakeWorker::reset();
    std::size_t written = 0;
    TestHost host;
    for (std::size_t records : {round % 3, std::size_t{40}, round * 5, std::size_t{0}}) {
      logging::WriterFrontend* const writer = host.create_writer(std::to_string(records), record);
      for (std::size_t i = 0; i < records; i++)
        writer->Write(record.size(), test::copy_values(record));
      written += records;
    }
    host->Finish();
    ASSERT_EQ(written, FakeWorker::message_count()) << "round " << round;
    ASSERT_EQ(1, FakeWorker::starts());
    ASSERT_EQ(1, FakeWorker::stops());
    ASSERT_THAT(errors(), IsEmpty()) << "round " << round;
  }
}

// One writer has ended before the host begins to destroy; another has records left.
TEST_F(InsideTheHost, WriterThatHasEndedLeavesTheWorkerToOneThatStillWrites) {
  FakeWorker::listen([](const std::string& call) {
    if (call == "Write")
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
  });
  logging::WriterFrontend* const idle = create_writer("idle");
  logging::WriterFrontend* const busy = create_writer("busy");
  terminating = true;
  idle->Stop();
  EXPECT_TRUE(test::wait_until([&] { return idle->backend->Killed(); }));
  for (int i = 0; i < 10; i++)
    write(busy);
  host_->Finish();
  EXPECT_EQ(10u, FakeWorker::message_count());
  EXPECT_THAT(errors(), IsEmpty());
}

// The host may create a writer while it ends, which nothing has told to finish.
TEST_F(InsideTheHost, WriterThatWasNotToldToFinishIsNotWaitedForInVain) {
  logging::WriterFrontend* const ended = create_writer("ended");
  logging::WriterFrontend* const late = create_writer("late");
  terminating = true;
  write(late);
  ended->Stop();
  EXPECT_TRUE(test::wait_until([&] { return ended->backend->Killed(); }));
  host_->Pump();  // destroys the one that has ended
  EXPECT_EQ(1u, FakeWorker::message_count());
  EXPECT_EQ(1, FakeWorker::stops());
  host_->Finish();
}

TEST_F(InsideTheHost, RemovedStreamTakesTheWorkerFromTheOthersAtOnce) {
  logging::WriterFrontend* const kept = create_writer("kept");
  logging::WriterFrontend* const removed = create_writer("removed");
  EXPECT_TRUE(until([&] { return FakeWorker::starts() == 1; }));
  removed->Stop();
  EXPECT_TRUE(until([&] { return FakeWorker::stops() == 1; }));
  kept->SetBuf(false);
  write(kept);
  EXPECT_TRUE(until([&] { return !errors().empty(); }));
  EXPECT_THAT(errors(), ::testing::ElementsAre("kept/Log::WRITER_ZMQ: terminating thread"));
  host_->Finish();
  EXPECT_EQ(0u, FakeWorker::message_count());
}

TEST_F(WriterThreads, WriterWhoseThreadWasNeverStartedIsNotWaitedFor) {
  WriterUnderTest never_started, destroyed;
  destroyed.init();
  never_started.init();
  terminating = true;
  destroyed.destroy();
  never_started.destroy();
  terminating = false;
  EXPECT_EQ(1, FakeWorker::stops());
}

TEST_F(InsideTheHost, ReportsOfWriterThreadsAreMadeOnTheMainThreadInOrderAndToTheLast) {
  const int kWriters = 3, kRecords = 500;
  RecordBuilder like;
  like.text("ptype", "dns");
  std::vector<logging::WriterFrontend*> writers;
  std::vector<std::string> expected[kWriters], by_writer[kWriters];
  for (int w = 0; w < kWriters; w++)
    writers.push_back(host_.create_writer(std::to_string(w), like));
  for (int i = 0; i < kRecords; i++) {
    for (int w = 0; w < kWriters; w++) {
      const std::string ptype = std::to_string(w) + "-" + std::to_string(i);
      RecordBuilder record;
      record.text("ptype", ptype);
      writers[static_cast<std::size_t>(w)]->Write(1, test::copy_values(record));
      expected[w].push_back("Unsupported protocol type " + ptype + ", using generic format");
    }
  }
  host_->Finish();
  for (const standin::Report& report : recorder_.Reports()) {
    EXPECT_EQ(std::this_thread::get_id(), report.thread);
    for (int w = 0; w < kWriters; w++)
      if (report.text.find(" " + std::to_string(w) + "-") != std::string::npos)
        by_writer[w].push_back(report.text);
  }
  for (int w = 0; w < kWriters; w++)
    EXPECT_THAT(by_writer[w], ElementsAreArray(expected[w]));
}

TEST_F(InsideTheHost, ReportsOfAThreadOfItsOwnArriveWithTheNextHeartbeat) {
  create_writer("a");
  std::thread send_thread([] { reports::warning("from the send thread, %d %%", 7); });
  send_thread.join();
  EXPECT_TRUE(until([&] { return !warnings().empty(); }));
  EXPECT_THAT(warnings(), ::testing::ElementsAre("from the send thread, 7 %"));
  for (const standin::Report& report : recorder_.Reports())
    EXPECT_EQ(std::this_thread::get_id(), report.thread);
  host_->Finish();
}

TEST_F(InsideTheHost, ReportsMadeWhileTheWorkerStopsComeWithItsEnd) {
  FakeWorker::listen([](const std::string& call) {
    if (call == "Stop")
      std::thread([] { reports::warning("last words"); }).join();
  });
  create_writer("a");
  host_->Finish();
  EXPECT_THAT(warnings(), ::testing::ElementsAre("last words"));
  for (const standin::Report& report : recorder_.Reports())
    EXPECT_EQ(std::this_thread::get_id(), report.thread);
}
