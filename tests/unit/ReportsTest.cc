// How a report of any thread gets to the host's reporter on its main thread.
#include "Reports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "Reporter.h"
#include "threading/MsgThread.h"

#include "Conversion.h"

using standin::ReportKind;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// A writer's thread as far as reports see it: something that messages can be posted to.
class FakeWriter : public threading::MsgThread {
 public:
  bool OnHeartbeat(double, double) override { return true; }
  bool OnFinish(double) override { return true; }
  using BasicThread::Done;
  using BasicThread::Kill;

  /// What the host's main thread does with what was posted; returns how many there were.
  int process() {
    int processed = 0;
    while (threading::BasicOutputMessage* message = RetrieveOut()) {
      EXPECT_TRUE(message->Process());
      delete message;
      processed++;
    }
    return processed;
  }
};

class Reports : public test::ReportingTest {
 protected:
  void expect_all_on_this_thread() const {
    for (const standin::Report& report : recorder_.Reports())
      EXPECT_EQ(std::this_thread::get_id(), report.thread) << report.text;
  }
};

template <typename Action>
void elsewhere(Action action) {
  std::thread(action).join();
}

/// A thread of the writer's own reports these, in one scope.
void report_in_scope(FakeWriter& writer, const std::vector<std::string>& texts = {}) {
  elsewhere([&] {
    const reports::WriterScope scope(&writer);
    for (const std::string& text : texts)
      reports::warning("%s", text.c_str());
  });
}

}  // namespace

TEST_F(Reports, OnTheMainThreadAreMadeAtOnce) {
  const reports::WriterAlive alive;
  reports::weird("a weird");
  reports::info("an info of %d", 1);
  reports::warning("a warning of %s", "100% %s %n");
  reports::error("an error of %0.2f", 3.0);
  EXPECT_THAT(weirds(), ElementsAre("a weird"));
  EXPECT_THAT(recorder_.Texts(ReportKind::kInfo), ElementsAre("an info of 1"));
  EXPECT_THAT(warnings(), ElementsAre("a warning of 100% %s %n"));
  EXPECT_THAT(errors(), ElementsAre("an error of 3.00"));
}

TEST_F(Reports, OfAWriterThreadWaitForTheMainThreadToHandleItsMessage) {
  const reports::WriterAlive alive;
  FakeWriter writer;
  elsewhere([&] {
    const reports::WriterScope scope(&writer);
    reports::weird("a weird");
    reports::info("an info");
    reports::warning("a warning");
    reports::error("an error");
  });
  EXPECT_THAT(recorder_.Reports(), IsEmpty());
  EXPECT_GT(writer.process(), 0);
  std::vector<ReportKind> kinds;
  for (const standin::Report& report : recorder_.Reports())
    kinds.push_back(report.kind);
  EXPECT_THAT(kinds, ElementsAre(ReportKind::kWeird, ReportKind::kInfo, ReportKind::kWarning,
                                 ReportKind::kError));
  expect_all_on_this_thread();
}

TEST_F(Reports, OfAnotherThreadWaitForTheNextScopeOfAnyWriter) {
  const reports::WriterAlive alive;
  FakeWriter writer;
  elsewhere([] { reports::warning("from the send thread"); });
  EXPECT_EQ(0, writer.process());
  EXPECT_THAT(warnings(), IsEmpty());
  report_in_scope(writer);
  EXPECT_EQ(1, writer.process());
  EXPECT_THAT(warnings(), ElementsAre("from the send thread"));
  expect_all_on_this_thread();
}

TEST_F(Reports, AScopePostsNothingWhenNothingWaitsOrOthersHavePostedAlready) {
  const reports::WriterAlive alive;
  FakeWriter first, second;
  report_in_scope(first);
  EXPECT_EQ(0, first.process());
  elsewhere([] { reports::warning("from the send thread"); });
  report_in_scope(first);
  report_in_scope(second);
  EXPECT_EQ(0, second.process());
  EXPECT_EQ(1, first.process());
  EXPECT_THAT(warnings(), ElementsAre("from the send thread"));
}

TEST_F(Reports, AScopeOnTheMainThreadDeliversRightAway) {
  const reports::WriterAlive alive;
  FakeWriter writer;
  elsewhere([] { reports::warning("from the send thread"); });
  const reports::WriterScope scope(&writer);
  EXPECT_THAT(warnings(), ElementsAre("from the send thread"));
  EXPECT_EQ(0, writer.process());
}

TEST_F(Reports, OfOneThreadKeepTheirOrderWhicheverWriterCarriesThem) {
  const reports::WriterAlive alive;
  FakeWriter first, second;
  elsewhere([] { reports::warning("1"); });
  report_in_scope(first);
  elsewhere([] { reports::warning("2"); });
  report_in_scope(second);
  // The host comes to the second writer's message first.
  second.process();
  first.process();
  EXPECT_THAT(warnings(), ElementsAre("1", "2"));
}

TEST_F(Reports, OfAWriterThatIsBeingEndedAreDeliveredWithoutAMessageOfItsOwn) {
  const reports::WriterAlive alive;
  FakeWriter killed, ending;
  report_in_scope(killed, {"1"});
  killed.Kill();
  ending.Done();
  EXPECT_TRUE(ending.Terminating());
  report_in_scope(killed, {"2"});
  report_in_scope(ending, {"3"});
  EXPECT_EQ(0, ending.process());
  EXPECT_THAT(warnings(), IsEmpty());
  reports::deliver_pending();
  EXPECT_THAT(warnings(), ElementsAre("1", "2", "3"));

  FakeWriter other;
  report_in_scope(ending, {"4"});
  report_in_scope(other);
  EXPECT_EQ(1, other.process());
  EXPECT_THAT(warnings(), ElementsAre("1", "2", "3", "4"));
}

TEST_F(Reports, AMessageThatTheHostDropsLosesNoReport) {
  const reports::WriterAlive alive;
  {
    FakeWriter dropped;  // deletes what was posted, as the host does
    report_in_scope(dropped, {"1"});
  }
  FakeWriter other;
  report_in_scope(other, {"2"});
  other.process();
  EXPECT_THAT(warnings(), ElementsAre("1", "2"));
}

TEST_F(Reports, WithoutAnyWriterAreMadeAtOnceOnTheirOwnThread) {
  std::thread::id maker;
  elsewhere([&] {
    maker = std::this_thread::get_id();
    reports::warning("from a worker by itself");
  });
  ASSERT_THAT(warnings(), ElementsAre("from a worker by itself"));
  EXPECT_EQ(maker, recorder_.Reports()[0].thread);
}

TEST_F(Reports, TheLastWriterTakesAlongWhatWaits) {
  {
    const reports::WriterAlive first;
    {
      const reports::WriterAlive second;
      elsewhere([] { reports::warning("1"); });
    }
    EXPECT_THAT(warnings(), IsEmpty());
  }
  EXPECT_THAT(warnings(), ElementsAre("1"));
  elsewhere([] { reports::warning("2"); });
  EXPECT_THAT(warnings(), ElementsAre("1", "2"));
}

TEST_F(Reports, DeliveringIsLeftToTheMainThread) {
  const reports::WriterAlive alive;
  elsewhere([] {
    reports::warning("1");
    reports::deliver_pending();
  });
  EXPECT_THAT(warnings(), IsEmpty());
  reports::deliver_pending();
  EXPECT_THAT(warnings(), ElementsAre("1"));
  reports::deliver_pending();
  EXPECT_THAT(warnings(), ElementsAre("1"));
}

TEST_F(Reports, ScopesMayBeNested) {
  const reports::WriterAlive alive;
  FakeWriter outer, inner;
  elsewhere([&] {
    const reports::WriterScope outer_scope(&outer);
    {
      const reports::WriterScope inner_scope(&inner);
      reports::warning("1");
    }
    reports::warning("2");
  });
  EXPECT_EQ(1, inner.process());
  EXPECT_EQ(1, outer.process());
  EXPECT_THAT(warnings(), ElementsAre("1", "2"));
}

TEST_F(Reports, AreDroppedOnceTheHostHasNoReporter) {
  Reporter* const own = reporter;
  reporter = nullptr;
  reports::error("1");
  elsewhere([] { reports::error("2"); });
  reporter = own;
  EXPECT_THAT(recorder_.Reports(), IsEmpty());
}

TEST_F(Reports, OfManyThreadsAllArriveEachThreadsInOrder) {
  const int kThreads = 4, kReports = 500;
  const reports::WriterAlive alive;
  FakeWriter writers[kThreads];
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&writers, t] {
      for (int i = 0; i < kReports; i++) {
        // The last thread is not a writer's.
        if (t == kThreads - 1) {
          reports::warning("%d:%d", t, i);
          continue;
        }
        const reports::WriterScope scope(&writers[t]);
        reports::warning("%d:%d", t, i);
      }
    });
  }
  for (int i = 0; i < 100; i++) {
    for (FakeWriter& writer : writers)
      writer.process();
    std::this_thread::yield();
  }
  for (std::thread& thread : threads)
    thread.join();
  reports::deliver_pending();
  expect_all_on_this_thread();
  ASSERT_EQ(static_cast<std::size_t>(kThreads * kReports), warnings().size());
  int next[kThreads] = {};
  for (const std::string& text : warnings()) {
    const int t = std::stoi(text);
    EXPECT_EQ(std::to_string(t) + ":" + std::to_string(next[t]++), text);
  }
}
