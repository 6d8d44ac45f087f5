#include "Reporter.h"

#include <gtest/gtest.h>

#include <thread>

#include "standin/MainThread.h"
#include "standin/ReportRecorder.h"

using standin::ReportKind;
using standin::ReportRecorder;

namespace {

// What `action` prints on stderr.
template <typename Action>
std::string printed(Action action) {
  testing::internal::CaptureStderr();
  action();
  return testing::internal::GetCapturedStderr();
}

class ReporterTest : public testing::Test {
 protected:
  void TearDown() override { standin::set_network_time(0); }

  Reporter out_;
};

}  // namespace

TEST_F(ReporterTest, LinesHaveTheHostsForm) {
  EXPECT_EQ(printed([&] { out_.Info("%d lines", 3); }), "3 lines\n");
  EXPECT_EQ(printed([&] { out_.Warning("careful"); }), "warning: careful\n");
  EXPECT_EQ(printed([&] { out_.Error("broken"); }), "error: broken\n");
  EXPECT_EQ(printed([&] { out_.InternalWarning("odd"); }), "internal warning: odd\n");
  EXPECT_EQ(printed([&] { out_.Weird("Empty type!"); }), "weird: Empty type!\n");
}

TEST_F(ReporterTest, NetworkTimeStandsInFrontOnceItIsKnown) {
  standin::set_network_time(1340213005.165293);
  EXPECT_EQ(printed([&] { out_.Info("text"); }), "1340213005.165293 text\n");
  EXPECT_EQ(printed([&] { out_.Error("text"); }), "1340213005.165293 error: text\n");
}

TEST_F(ReporterTest, LocationStandsBetweenPrefixAndText) {
  const Location location("a.bro", 7, 7, 0, 0);
  out_.PushLocation(&location);
  EXPECT_EQ(printed([&] { out_.Warning("text"); }), "warning in a.bro, line 7: text\n");
  EXPECT_EQ(printed([&] { out_.Info("text"); }), "a.bro, line 7: text\n");
  out_.PopLocation();
  EXPECT_EQ(printed([&] { out_.Warning("text"); }), "warning: text\n");
}

TEST_F(ReporterTest, OnlyErrorsAreCounted) {
  ReportRecorder recorder;
  EXPECT_EQ(out_.Errors(), 0);
  out_.Info("a");
  out_.Warning("a");
  out_.Weird("a");
  EXPECT_EQ(out_.Errors(), 0);
  out_.Error("a");
  out_.Error("b");
  EXPECT_EQ(out_.Errors(), 2);
}

TEST_F(ReporterTest, RecorderKeepsKindTextAndThreadAndPrintsNothing) {
  ReportRecorder recorder;
  std::thread::id other;
  const std::string output = printed([&] {
    out_.Info("one");
    std::thread([&] {
      other = std::this_thread::get_id();
      out_.Warning("two %d", 2);
    }).join();
    out_.Weird("three");
  });
  EXPECT_EQ(output, "");
  const auto reports = recorder.Reports();
  ASSERT_EQ(reports.size(), 3u);
  EXPECT_EQ(reports[0].kind, ReportKind::kInfo);
  EXPECT_EQ(reports[0].thread, std::this_thread::get_id());
  EXPECT_EQ(reports[1].text, "two 2");
  EXPECT_EQ(reports[1].thread, other);
  EXPECT_EQ(recorder.Texts(ReportKind::kWeird), std::vector<std::string>{"three"});
  recorder.Clear();
  EXPECT_TRUE(recorder.Reports().empty());
}

TEST_F(ReporterTest, ReportsFromManyThreadsAreAllKept) {
  ReportRecorder recorder;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 250; ++i)
        out_.Error("%d", i);
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(recorder.Reports().size(), 1000u);
  EXPECT_EQ(out_.Errors(), 1000);
}

TEST_F(ReporterTest, NameOfAWeirdIsAFormat) {
  ReportRecorder recorder;
  out_.Weird("100%%");
  EXPECT_EQ(recorder.Texts(ReportKind::kWeird), std::vector<std::string>{"100%"});
  EXPECT_TRUE(recorder.Texts(ReportKind::kInternalWarning).empty());
  out_.Weird("%s");
  EXPECT_EQ(recorder.Texts(ReportKind::kInternalWarning).size(), 1u);
}

TEST_F(ReporterTest, RuntimeErrorsAreThrown) {
  ReportRecorder recorder;
  EXPECT_THROW(out_.ExprRuntimeError(nullptr, "bad"), InterpreterException);
  const Location location("a.bro", 1, 1, 0, 0);
  EXPECT_THROW(out_.RuntimeError(&location, "bad"), InterpreterException);
}

TEST_F(ReporterTest, RecorderGivesAProcessWithoutReporterOne) {
  ReportRecorder recorder;
  ASSERT_NE(reporter, nullptr);
  reporter->Error("seen");
  EXPECT_EQ(recorder.Texts(ReportKind::kError), std::vector<std::string>{"seen"});
}

TEST(ReporterDeathTest, FatalErrorEndsWithStatusOne) {
  EXPECT_EXIT(Reporter().FatalError("no %s", "way"), testing::ExitedWithCode(1),
              "^fatal error: no way\n");
}

TEST(ReporterDeathTest, FatalErrorIsPrintedAlsoWhileRecording) {
  EXPECT_EXIT(
      {
        ReportRecorder recorder;
        Reporter().FatalError("no way");
      },
      testing::ExitedWithCode(1), "fatal error: no way");
}

TEST(ReporterDeathTest, InternalErrorAndFatalErrorWithCoreAbort) {
  EXPECT_EXIT(Reporter().InternalError("bug"), testing::KilledBySignal(SIGABRT),
              "internal error: bug");
  EXPECT_EXIT(Reporter().FatalErrorWithCore("bug"), testing::KilledBySignal(SIGABRT),
              "fatal error: bug");
}
