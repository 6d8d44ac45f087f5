// What a collector holds until an engine has acknowledged it, and what is said of the engine.
#include "PublicationWindow.h"
#include "TroubleReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using namespace zmqwriter;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class PublicationWindowTest : public testing::Test {
 protected:
  void add(PublicationWindow* window, int first, int last) {
    for (int number = first; number < last; ++number)
      window->Add(std::to_string(number), "event " + std::to_string(number), false, false);
  }
  /// The ids of those that wait, each taken once.
  static std::vector<std::string> take_all(PublicationWindow* window) {
    std::vector<std::string> ids;
    std::string id, raw;
    while (window->TakeWaiting(false, &id, &raw)) {
      EXPECT_EQ(raw, "event " + id);
      ids.push_back(id);
    }
    return ids;
  }
  static StreamFigures figures(const PublicationWindow& window) {
    StreamFigures figures;
    window.NoteFigures(&figures);
    return figures;
  }
};

TEST_F(PublicationWindowTest, ThereIsRoomUntilAsManyEventsAreHeldAndAgainWhenAnEighthIsFree) {
  PublicationWindow window(8, 1000000);
  add(&window, 0, 7);
  EXPECT_TRUE(window.HasRoom(0ms));
  add(&window, 7, 8);
  EXPECT_FALSE(window.HasRoom(1ms));
  EXPECT_GE(figures(window).stalled_s, 0.001);
  window.Acknowledge("3", false);
  EXPECT_FALSE(window.HasRoom(0ms));
  window.Acknowledge("0", false);
  EXPECT_TRUE(window.HasRoom(0ms));
  add(&window, 8, 9);
  EXPECT_TRUE(window.HasRoom(0ms)) << "only once it is full again there is none";
}

TEST_F(PublicationWindowTest, ThereIsRoomUntilAsManyBytesAreHeldAndAlwaysWhenItIsEmpty) {
  PublicationWindow window(100, 14);
  add(&window, 0, 1);
  EXPECT_TRUE(window.HasRoom(0ms));
  add(&window, 1, 2);
  EXPECT_EQ(figures(window).window_bytes, 14u);
  EXPECT_FALSE(window.HasRoom(0ms));
  window.Acknowledge("1", false);
  EXPECT_TRUE(window.HasRoom(0ms));
  PublicationWindow tiny(1, 1);
  add(&tiny, 0, 2);
  EXPECT_EQ(tiny.counts().held, 2u) << "what is there is taken";
  tiny.Acknowledge("0", false);
  EXPECT_FALSE(tiny.HasRoom(0ms));
  tiny.Acknowledge("1", false);
  EXPECT_TRUE(tiny.HasRoom(0ms));
}

TEST_F(PublicationWindowTest, AnAcknowledgementEndsTheWaitForRoom) {
  PublicationWindow window(1, 1000);
  add(&window, 0, 1);
  std::thread engine([&] { window.Acknowledge("0", false); });
  EXPECT_TRUE(window.HasRoom(1h));
  engine.join();
  window.AwaitEmpty(1h);
}

TEST_F(PublicationWindowTest, WhatIsRefusedOrReturnedWaitsAndIsCountedAsRepeated) {
  PublicationWindow window(100, 1000);
  add(&window, 0, 3);
  window.Add("3", "event 3", true, true);
  EXPECT_THAT(take_all(&window), ElementsAre("3"));
  EXPECT_EQ(figures(window).repeated, 0u);
  window.Refuse("1");
  window.Refuse("unknown");
  EXPECT_EQ(window.counts().waiting, 1u);
  EXPECT_THAT(take_all(&window), ElementsAre("1"));
  EXPECT_EQ(figures(window).repeated, 1u);
  EXPECT_EQ(window.counts().refused, 1u) << "until it is acknowledged";
  window.Acknowledge("1", false);
  EXPECT_EQ(window.counts().refused, 0u);
  EXPECT_EQ(window.counts().former, 1u);
  window.ReturnAll();
  EXPECT_EQ(window.counts().refused, 3u);
  EXPECT_THAT(take_all(&window), ElementsAre("0", "2", "3"));
  EXPECT_EQ(figures(window).repeated, 4u);
}

TEST_F(PublicationWindowTest, OneAfterTheOtherIsTakenAndTheFirstAfterTheLast) {
  PublicationWindow window(100, 1000);
  add(&window, 0, 3);
  std::vector<std::string> tried;
  std::string id, raw;
  for (int i = 0; i < 5; ++i) {
    window.ReturnAll();
    ASSERT_TRUE(window.TakeWaiting(true, &id, &raw));
    tried.push_back(id);
  }
  EXPECT_THAT(tried, ElementsAre("0", "1", "2", "0", "1"));
  window.ReturnAll();
  id = "2";
  EXPECT_FALSE(window.TakeWaiting(false, &id, &raw));
}

TEST_F(PublicationWindowTest, WhatIsAcknowledgedOrDroppedIsHeldNoMore) {
  PublicationWindow window(100, 1000);
  window.Add("0", "event 0", true, true);
  add(&window, 1, 4);
  window.Acknowledge("0", true);
  window.Acknowledge("0", true);
  EXPECT_EQ(window.Drop("2"), "event 2");
  EXPECT_EQ(window.Drop("2"), std::nullopt);
  const StreamFigures now = figures(window);
  EXPECT_EQ(now.acknowledged, 1u);
  EXPECT_EQ(now.stored_before, 1u);
  EXPECT_EQ(now.window_events, 2u);
  EXPECT_EQ(now.window_bytes, 14u);
  EXPECT_GT(now.oldest_s, 0);
  EXPECT_EQ(window.counts().former + window.counts().waiting, 0u);
  const std::vector<UnsentEvent> left = window.events();
  ASSERT_EQ(left.size(), 2u);
  EXPECT_EQ(left[0].id + left[0].raw + left[1].id + left[1].raw, "1event 13event 3");
  add(&window, 4, 5);  // in the place of one that was finished
  window.Acknowledge("1", false);
  window.Acknowledge("3", false);
  EXPECT_EQ(window.events()[0].raw, "event 4");
  EXPECT_EQ(window.counts().refused, 0u);
}

class TroubleReportTest : public testing::Test {
 protected:
  void refuse(StreamTrouble trouble) { report_.NoteRefusal({trouble, "it is so"}); }
  /// What is said.
  std::string review(bool left, std::optional<StreamProblem> seen = std::nullopt) {
    CaptureStderr();
    over_ = report_.Review(left, [&](const StreamProblem&) {
      ++looks_;
      return seen;
    });
    return GetCapturedStderr();
  }
  std::uint64_t refused(StreamTrouble trouble) const {
    StreamFigures figures;
    report_.NoteFigures(&figures);
    return figures.refused[static_cast<std::size_t>(trouble)];
  }
  std::string trouble() const {
    StreamFigures figures;
    report_.NoteFigures(&figures);
    return figures.trouble;
  }

  TroubleReport report_{"so it waits"};
  bool over_ = false;
  int looks_ = 0;
};

TEST_F(TroubleReportTest, EachKindIsSaidOnceAndThatItIsOver) {
  EXPECT_EQ(review(false), "");
  refuse(StreamTrouble::kFull);
  EXPECT_TRUE(report_.in_doubt());
  EXPECT_EQ(review(true), "warning: the engine takes no events: it is so; so it waits\n");
  EXPECT_EQ(trouble(), "full");
  refuse(StreamTrouble::kFull);
  EXPECT_EQ(review(true), "");
  refuse(StreamTrouble::kNotAuthorised);
  EXPECT_THAT(review(true), HasSubstr("warning"));
  report_.NoteTaken();
  EXPECT_FALSE(report_.in_doubt());
  EXPECT_EQ(review(true), "") << "some that were refused are left";
  EXPECT_FALSE(over_);
  EXPECT_THAT(review(false), HasSubstr("takes events again, after"));
  EXPECT_TRUE(over_);
  EXPECT_EQ(review(false) + trouble(), "");
  EXPECT_FALSE(over_);
  EXPECT_EQ(refused(StreamTrouble::kFull), 2u);
  EXPECT_EQ(refused(StreamTrouble::kNotAuthorised), 1u);
  EXPECT_EQ(looks_, 0);
}

TEST_F(TroubleReportTest, ANewConnectionIsTriedBeforeAnythingIsSaid) {
  report_.DoubtConnection();
  EXPECT_TRUE(report_.in_doubt());
  EXPECT_EQ(review(true), "");
  refuse(StreamTrouble::kFull);
  report_.DoubtConnection();
  EXPECT_THAT(review(true), HasSubstr("it is so")) << "what was known before is not forgotten";
}

TEST_F(TroubleReportTest, WhatHasSeveralReasonsIsLookedIntoOnceAfterEachRefusal) {
  refuse(StreamTrouble::kNoQuorum);
  EXPECT_THAT(review(true, StreamProblem{StreamTrouble::kNotAuthorised, "a right is missing"}),
              HasSubstr("no events: a right is missing;"));
  EXPECT_EQ(refused(StreamTrouble::kNotAuthorised), 1u);
  EXPECT_EQ(review(true), "");
  EXPECT_EQ(looks_, 1);
  refuse(StreamTrouble::kNoStream);  // and nothing to see: it is what it was
  EXPECT_EQ(review(true), "");
  EXPECT_EQ(looks_, 2);
  EXPECT_EQ(refused(StreamTrouble::kNotAuthorised), 2u);
  EXPECT_EQ(trouble(), "not_authorised");
}

TEST_F(TroubleReportTest, ARefusalThatIsOverBeforeALookIsCountedAsOther) {
  refuse(StreamTrouble::kNoQuorum);
  report_.NoteTaken();
  EXPECT_EQ(review(false), "");
  EXPECT_EQ(refused(StreamTrouble::kOther), 1u);
}

}  // namespace
