// The send loop step by step: the exact order of sends, connects, disconnects, closes, sleeps,
// warnings and spool operations, for each row of the table of states, and what is counted.
//
// s1 is the primary; the secondaries get s2, s3, ... as they are connected.
#include "WorkerFixture.h"

using ::testing::Contains;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;

namespace test {
namespace {

class SendLoop : public WorkerFixture {
 protected:
  /// Brings the loop to a secondary: one record is delivered to tcp://a:5555 as s2. `outcomes` are
  /// those of the sends that come after.
  static std::deque<bool> switching(std::deque<bool> outcomes) {
    const std::deque<bool> start = {kFail, kFail, kFail, kFail, kOk, kOk};
    outcomes.insert(outcomes.begin(), start.begin(), start.end());
    return outcomes;
  }

  /// The calls of that, up to and with the empty message.
  static std::vector<std::string> switched(const std::string& body) {
    const std::string failed = "send s1 '" + body + "' failed";
    return {failed,
            kRetryPause,
            failed,
            kNotResponding,
            failed,
            kRetryPause,
            failed,
            "socket s2",
            "connect s2 tcp://a:5555 ok",
            "send s2 '" + body + "' ok",
            switched_to("tcp://a:5555"),
            "send s2 '' ok"};
  }

  /// Outcomes without number: sends on the endpoint fail, the others succeed.
  void down(const std::string& endpoint) {
    zmq.on_send = [endpoint](const std::string& to, const std::string&) { return to != endpoint; };
  }

  /// Fails on its nth call.
  static std::function<bool(size_t)> failing_call(int nth) {
    return [nth, calls = 0](size_t) mutable { return ++calls != nth; };
  }

  void everything_down() {
    zmq.on_send = [](const std::string&, const std::string&) { return kFail; };
  }

  /// Expects `story` to begin with `start`, and gives what comes after it.
  static std::vector<std::string> after(const std::vector<std::string>& start,
                                        const std::vector<std::string>& story) {
    EXPECT_GE(story.size(), start.size());
    const auto end = story.begin() + static_cast<long>(std::min(start.size(), story.size()));
    EXPECT_THAT(std::vector<std::string>(story.begin(), end), ElementsAreArray(start));
    return std::vector<std::string>(end, story.end());
  }
};

// -- Primary healthy ------------------------------------------------------------------------------

TEST_F(SendLoop, HealthyPrimaryGetsEachRecordOnceInOrder) {
  connect();
  write("a");
  write("b");
  write("c");
  EXPECT_THAT(run(), Lines("send s1 'a' ok", "send s1 'b' ok", "send s1 'c' ok", kIdle));
  EXPECT_EQ(sent(), 3u);
  EXPECT_EQ(failed(), 0u);
  EXPECT_TRUE(inside().queue.empty());
}

TEST_F(SendLoop, EmptyQueueIsPolledEveryTenthOfASecond) {
  connect();
  EXPECT_THAT(run(kIdle, 3), Lines(kIdle, kIdle, kIdle));
}

TEST_F(SendLoop, ReturnsAtOnceWhenItIsNotToRun) {
  connect();
  write("a");
  inside().running = false;
  inside().main_fail_time = 5;
  inside().secondary_index = 6;
  worker->DoWork();
  EXPECT_THAT(log.story(), IsEmpty());
  EXPECT_EQ(inside().main_fail_time, 0);
  EXPECT_EQ(inside().secondary_index, 0);
}

TEST_F(SendLoop, ABodyGoesOutByteForByte) {
  connect();
  std::string body;
  for (int i = 0; i < 256; ++i)
    body += static_cast<char>(i);
  write(body);
  EXPECT_THAT(run(), Lines("send s1 '" + body + "' ok", kIdle));
}

TEST_F(SendLoop, AnEmptyMessageIsSentAsOne) {
  connect();
  worker->Write(0, nullptr);
  EXPECT_THAT(run(), Lines("send s1 '' ok", kIdle));
  EXPECT_EQ(sent(), 1u);
}

TEST_F(SendLoop, AMessageIsInitialisedTwiceWithoutLeakingTheFirstRoom) {
  connect();
  write("body");
  run();
  EXPECT_THAT(log.all(), Lines(".msg_init_size 4", ".msg_init_data 4", ".msg_close",
                               "send s1 'body' ok", ".msg_close", kIdle));
  EXPECT_EQ(zmq.live_contents(), 0u);
}

TEST_F(SendLoop, ASecondAttemptAfterASecondIsStillASuccess) {
  connect();
  sends({kFail, kOk});
  write("a");
  EXPECT_THAT(run(), Lines("send s1 'a' failed", kRetryPause, "send s1 'a' ok", kIdle));
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(failed(), 0u);
  EXPECT_EQ(inside().main_fail_time, 0);
}

// -- Primary fails --------------------------------------------------------------------------------

TEST_F(SendLoop, FirstFailureWarnsRequeuesAndRetriesAtOnce) {
  connect("a");
  sends({kFail, kFail, kOk});
  write("r");
  int64_t marked = -1;
  size_t waiting = 99;
  log.listen([&](const std::string& line) {
    if (line == "send s1 'r' ok") {
      marked = inside().main_fail_time;
      waiting = inside().queue.size();
    }
    if (line == kIdle)
      inside().running = false;
  });
  log.clear();
  const int64_t start = clock.now_us() / 1000000;
  worker->DoWork();
  EXPECT_THAT(log.story(), Lines("send s1 'r' failed", kRetryPause, "send s1 'r' failed",
                                 kNotResponding, "send s1 'r' ok", kIdle));
  EXPECT_EQ(marked, start + 1);
  EXPECT_EQ(waiting, 1u) << "the requeued entry waits while the record is sent again";
  EXPECT_EQ(inside().main_fail_time, 0);
  EXPECT_TRUE(inside().queue.empty());
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(failed(), 1u);
}

TEST_F(SendLoop, ASecondOutageOfThePrimaryWarnsAnew) {
  connect();
  sends({kFail, kFail, kOk, kFail, kFail, kOk});
  write("a");
  write("b");
  EXPECT_THAT(run(), Lines("send s1 'a' failed", kRetryPause, "send s1 'a' failed", kNotResponding,
                           "send s1 'a' ok",  //
                           "send s1 'b' failed", kRetryPause, "send s1 'b' failed", kNotResponding,
                           "send s1 'b' ok", kIdle));
}

TEST_F(SendLoop, ARecordThatFailedIsSentBeforeThoseThatWaited) {
  connect();
  sends({kFail, kFail});
  write("a");
  write("b");
  EXPECT_THAT(run(), Lines("send s1 'a' failed", kRetryPause, "send s1 'a' failed", kNotResponding,
                           "send s1 'a' ok", "send s1 'b' ok", kIdle));
}

TEST_F(SendLoop, WithoutSecondariesEveryFurtherPassWarnsAndPushesOneMoreEntry) {
  connect();
  everything_down();
  write("r");
  // Four passes.
  EXPECT_THAT(run(kNoSecondary, 3),
              Lines("send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNotResponding,
                    "send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNoSecondary,
                    "send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNoSecondary,
                    "send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNoSecondary, kIdle));
  EXPECT_EQ(inside().queue.size(), 4u);
  EXPECT_EQ(sent(), 0u);
  EXPECT_EQ(failed(), 4u);
}

TEST_F(SendLoop, EntriesLeftByFailedPassesAreSkippedOnceTheRecordIsDelivered) {
  connect();
  sends({kFail, kFail, kFail, kFail, kFail, kFail});
  write("a");
  write("b");
  write("c");
  EXPECT_THAT(run(),
              Lines("send s1 'a' failed", kRetryPause, "send s1 'a' failed",
                    kNotResponding,  //
                    "send s1 'a' failed", kRetryPause, "send s1 'a' failed",
                    kNoSecondary,  //
                    "send s1 'a' failed", kRetryPause, "send s1 'a' failed",
                    kNoSecondary,  //
                    "send s1 'a' ok", kBackOnline, "send s1 'b' ok", "send s1 'c' ok", kIdle));
  EXPECT_TRUE(inside().queue.empty());
  EXPECT_EQ(sent(), 3u);
  EXPECT_EQ(failed(), 3u);
}

TEST_F(SendLoop, NothingIsSaidWhenThePrimaryTakesTheSecondPass) {
  connect("a");
  sends({kFail, kFail, kOk});
  write("r");
  const auto story = run();
  EXPECT_THAT(story, Contains(kNotResponding)) << "the outage was reported";
  EXPECT_THAT(story, Not(Contains(kBackOnline))) << "its end is not, on purpose: nobody was asked";
  EXPECT_EQ(sent(), 1u);
}

TEST_F(SendLoop, BackOnlineAfterNobodyAnswered) {
  connect();
  sends({kFail, kFail, kFail, kFail, kFail, kOk});
  write("r");
  EXPECT_THAT(run(),
              Lines("send s1 'r' failed", kRetryPause, "send s1 'r' failed",
                    kNotResponding,  //
                    "send s1 'r' failed", kRetryPause, "send s1 'r' failed",
                    kNoSecondary,  //
                    "send s1 'r' failed", kRetryPause, "send s1 'r' ok", kBackOnline, kIdle));
  EXPECT_EQ(inside().main_fail_time, 0);
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(failed(), 2u);
}

// -- Switching ------------------------------------------------------------------------------------

TEST_F(SendLoop, SwitchingSendsTheMessageAndThenAnEmptyOne) {
  connect("a");
  sends(switching({}));
  write("r");
  const auto rest = after(switched("r"), run());
  EXPECT_THAT(rest, Lines(kIdle, "disconnect s2 tcp://a:5555", "close s2"));
  EXPECT_EQ(sent(), 2u) << "both sends to the secondary are counted";
  EXPECT_EQ(failed(), 2u);
  EXPECT_EQ(inside().secondary_server, "tcp://a:5555");
  EXPECT_EQ(inside().secondary_index, 0);
  EXPECT_TRUE(inside().queue.empty());
}

TEST_F(SendLoop, LaterMessagesFailOnThePrimaryAndGoToTheSecondaryWithoutAWord) {
  connect("a");
  down("tcp://p:5555");
  write("r1");
  write("r2");
  write("r3");
  const auto rest = after(switched("r1"), run());
  EXPECT_THAT(rest, Lines("send s1 'r2' failed", kRetryPause, "send s1 'r2' failed",
                          "send s2 'r2' ok",  //
                          "send s1 'r3' failed", kRetryPause, "send s1 'r3' failed",
                          "send s2 'r3' ok", kIdle, "disconnect s2 tcp://a:5555", "close s2"));
  EXPECT_EQ(sent(), 4u);
  EXPECT_EQ(failed(), 4u);
}

TEST_F(SendLoop, BackOnlineFromASecondaryKeepsItsSocketUntilTheEnd) {
  connect("a");
  sends(switching({kFail, kFail, kOk, kOk, kOk}));
  write("r1");
  write("r2");
  write("r3");
  write("r4");
  const auto rest = after(switched("r1"), run());
  EXPECT_THAT(rest, Lines("send s1 'r2' failed", kRetryPause, "send s1 'r2' failed",
                          "send s2 'r2' ok",               //
                          "send s1 'r3' ok", kBackOnline,  //
                          "send s1 'r4' ok", kIdle, "disconnect s2 tcp://a:5555", "close s2"));
}

TEST_F(SendLoop, AfterTheFirstSwitchAFailureOnThePrimaryDoesNotSearchAgain) {
  connect("a,b");
  sends(switching({kFail, kFail, kFail, kOk}));
  write("r1");
  write("r2");
  const auto rest = after(switched("r1"), run());
  EXPECT_THAT(
      rest, Lines("send s1 'r2' failed", kRetryPause, "send s1 'r2' failed", "send s2 'r2' failed",
                  kRetryPause, "send s2 'r2' ok", kIdle, "disconnect s2 tcp://a:5555", "close s2"));
}

TEST_F(SendLoop, ASecondaryThatFailsIsClosedAndTheRecordGoesRoundAgain) {
  connect("a");
  //            primary       secondary     primary       search
  sends(switching({kFail, kFail, kFail, kFail, kFail, kFail, kOk, kOk}));
  write("r1");
  write("r2");
  const auto rest = after(switched("r1"), run());
  EXPECT_THAT(
      rest, Lines("send s1 'r2' failed", kRetryPause, "send s1 'r2' failed", "send s2 'r2' failed",
                  kRetryPause, "send s2 'r2' failed", secondary_gone("tcp://a:5555"),
                  "disconnect s2 tcp://a:5555",
                  "close s2",  //
                  "send s1 'r2' failed", kRetryPause, "send s1 'r2' failed", "socket s3",
                  "connect s3 tcp://a:5555 ok", "send s3 'r2' ok", switched_to("tcp://a:5555"),
                  "send s3 '' ok", kIdle, "disconnect s3 tcp://a:5555", "close s3"));
  EXPECT_EQ(sent(), 4u);
  EXPECT_EQ(failed(), 5u);
  EXPECT_TRUE(inside().queue.empty());
}

TEST_F(SendLoop, WhenTheEmptySendFailsTheMessageCountsAsDelivered) {
  connect("a");
  const std::deque<bool> outcomes = {kFail, kFail, kFail, kFail, kOk, kFail, kFail, kOk};
  sends(outcomes);
  write("r1");
  write("r2");
  EXPECT_THAT(run(),
              Lines("send s1 'r1' failed", kRetryPause, "send s1 'r1' failed",
                    kNotResponding,  //
                    "send s1 'r1' failed", kRetryPause, "send s1 'r1' failed", "socket s2",
                    "connect s2 tcp://a:5555 ok", "send s2 'r1' ok", switched_to("tcp://a:5555"),
                    "send s2 '' failed", kRetryPause, "send s2 '' failed",
                    secondary_gone("tcp://a:5555"), "disconnect s2 tcp://a:5555", "close s2",  //
                    "send s1 'r2' ok", kBackOnline, kIdle));
  EXPECT_EQ(sent(), 2u);
  EXPECT_EQ(failed(), 3u);
  EXPECT_TRUE(inside().queue.empty());
}

TEST_F(SendLoop, AfterAFailedEmptySendTheNextFailureOfThePrimarySearches) {
  connect("a");
  sends({kFail, kFail, kFail, kFail, kOk, kFail, kFail, kFail, kFail, kOk, kOk});
  write("r1");
  write("r2");
  const auto story = run();
  EXPECT_THAT(std::vector<std::string>(story.begin() + 17, story.end()),
              Lines("send s1 'r2' failed", kRetryPause, "send s1 'r2' failed", "socket s3",
                    "connect s3 tcp://a:5555 ok", "send s3 'r2' ok", switched_to("tcp://a:5555"),
                    "send s3 '' ok", kIdle, "disconnect s3 tcp://a:5555", "close s3"));
}

TEST_F(SendLoop, SecondariesAreSearchedInListOrder) {
  connect("a,b,c");
  // Primary twice, then a, b down and c up.
  sends({kFail, kFail, kFail, kFail, kFail, kFail, kFail, kFail, kOk, kOk});
  write("r");
  const auto story = run();
  EXPECT_THAT(std::vector<std::string>(story.begin() + 7, story.end()),
              Lines("socket s2", "connect s2 tcp://a:5555 ok", "send s2 'r' failed", kRetryPause,
                    "send s2 'r' failed", "disconnect s2 tcp://a:5555",
                    "close s2",  //
                    "socket s3", "connect s3 tcp://b:5555 ok", "send s3 'r' failed", kRetryPause,
                    "send s3 'r' failed", "disconnect s3 tcp://b:5555",
                    "close s3",  //
                    "socket s4", "connect s4 tcp://c:5555 ok", "send s4 'r' ok",
                    switched_to("tcp://c:5555"), "send s4 '' ok", kIdle,
                    "disconnect s4 tcp://c:5555", "close s4"));
  EXPECT_EQ(inside().secondary_index, 2);
  EXPECT_EQ(sent(), 2u);
  EXPECT_EQ(failed(), 4u);
}

TEST_F(SendLoop, WhenNoneOfThreeAcceptsTheRecordIsRequeued) {
  connect("a,b,c");
  everything_down();
  write("r");
  const auto story = run(kNoSecondary);
  EXPECT_THAT(
      std::vector<std::string>(story.begin() + 7, story.end()),
      Lines("socket s2", "connect s2 tcp://a:5555 ok", "send s2 'r' failed", kRetryPause,
            "send s2 'r' failed", "disconnect s2 tcp://a:5555",
            "close s2",  //
            "socket s3", "connect s3 tcp://b:5555 ok", "send s3 'r' failed", kRetryPause,
            "send s3 'r' failed", "disconnect s3 tcp://b:5555",
            "close s3",  //
            "socket s4", "connect s4 tcp://c:5555 ok", "send s4 'r' failed", kRetryPause,
            "send s4 'r' failed", "disconnect s4 tcp://c:5555", "close s4", kNoSecondary, kIdle));
  EXPECT_EQ(inside().queue.size(), 2u);
  EXPECT_EQ(inside().secondary_index, 3);
  EXPECT_EQ(failed(), 5u);
}

TEST_F(SendLoop, ASecondaryThatIsListedTwiceIsTriedTwice) {
  connect("a,a");
  sends({kFail, kFail, kFail, kFail, kFail, kFail, kOk, kOk});
  write("r");
  const auto story = run();
  EXPECT_THAT(std::vector<std::string>(story.begin() + 7, story.end()),
              Lines("socket s2", "connect s2 tcp://a:5555 ok", "send s2 'r' failed", kRetryPause,
                    "send s2 'r' failed", "disconnect s2 tcp://a:5555", "close s2", "socket s3",
                    "connect s3 tcp://a:5555 ok", "send s3 'r' ok", switched_to("tcp://a:5555"),
                    "send s3 '' ok", kIdle, "disconnect s3 tcp://a:5555", "close s3"));
  EXPECT_EQ(inside().secondary_index, 1);
}

TEST_F(SendLoop, WithoutASocketForItASecondarySimplyFails) {
  connect("a,b");
  zmq.on_connect = [](const std::string& endpoint) { return endpoint != "tcp://a:5555"; };
  sends({kFail, kFail, kFail, kFail, kOk, kOk});
  write("r");
  const auto story = run();
  EXPECT_THAT(std::vector<std::string>(story.begin() + 7, story.end()),
              Lines("socket s2", "connect s2 tcp://a:5555 failed",
                    "error: Failed to connect to ZMQ server tcp://a:5555", "close s2",
                    "send null 'r' failed", kRetryPause, "send null 'r' failed",
                    "disconnect null tcp://a:5555", "close null",  //
                    "socket s3", "connect s3 tcp://b:5555 ok", "send s3 'r' ok",
                    switched_to("tcp://b:5555"), "send s3 '' ok", kIdle,
                    "disconnect s3 tcp://b:5555", "close s3"));
  EXPECT_EQ(failed(), 3u) << "the send on no socket is counted too";
}

TEST_F(SendLoop, EachSearchMakesAKeyPairOfItsOwn) {
  connect("a");
  everything_down();
  write("r");
  run(kNoSecondary, 2);
  EXPECT_THAT(log.starting_with(".curve_keypair"), Lines(".curve_keypair", ".curve_keypair"));
}

TEST_F(SendLoop, TheMessageThatSwitchesIsDeliveredOnceInSpiteOfItsEntries) {
  connect("a");
  // Nobody for three passes, then the secondary.
  std::deque<bool> outcomes(2 + 4 + 4 + 2, kFail);
  outcomes.insert(outcomes.end(), {kOk, kOk});
  sends(outcomes);
  write("r1");
  write("r2");
  const auto story = run();
  EXPECT_THAT(log.starting_with("send s4"), Lines("send s4 'r1' ok", "send s4 '' ok"));
  EXPECT_THAT(story, Contains("send s1 'r2' ok"));
  EXPECT_TRUE(inside().queue.empty());
}

// -- A second outage ------------------------------------------------------------------------------

TEST_F(SendLoop, ASearchDropsTheSocketOfAnEarlierSecondaryWithoutClosingIt) {
  connect("a");
  // On a; back; out again, on a anew.
  sends(switching({kOk, kFail, kFail, kFail, kFail, kOk, kOk}));
  write("r1");
  write("r2");
  write("r3");
  const auto rest = after(switched("r1"), run());
  EXPECT_THAT(rest,
              Lines("send s1 'r2' ok", kBackOnline,  //
                    "send s1 'r3' failed", kRetryPause, "send s1 'r3' failed",
                    kNotResponding,  //
                    "send s1 'r3' failed", kRetryPause, "send s1 'r3' failed", "socket s3",
                    "connect s3 tcp://a:5555 ok", "send s3 'r3' ok", switched_to("tcp://a:5555"),
                    "send s3 '' ok", kIdle, "disconnect s3 tcp://a:5555", "close s3"));
  EXPECT_THAT(zmq.open_sockets(), Lines("s1", "s2"));
}

TEST_F(SendLoop, StopClosesDroppedSocketsSoThatTheContextCanEnd) {
  connect("a");
  sends(switching({kOk, kFail, kFail, kFail, kFail, kOk, kOk}));
  write_many(3);
  run();
  EXPECT_THAT(stop(), Lines("disconnect s1 tcp://p:5555", "close s1", "close s2", "ctx_destroy"));
}

TEST_F(SendLoop, AFruitlessSearchDropsTheSocketOfAnEarlierSecondaryToo) {
  connect("a");
  sends(switching({kOk, kFail, kFail, kFail, kFail, kFail, kFail, kOk}));
  write_many(3);
  const auto rest = after(switched("r0"), run());
  EXPECT_THAT(
      rest, Lines("send s1 'r1' ok", kBackOnline,  //
                  "send s1 'r2' failed", kRetryPause, "send s1 'r2' failed",
                  kNotResponding,  //
                  "send s1 'r2' failed", kRetryPause, "send s1 'r2' failed", "socket s3",
                  "connect s3 tcp://a:5555 ok", "send s3 'r2' failed", kRetryPause,
                  "send s3 'r2' failed", "disconnect s3 tcp://a:5555", "close s3", kNoSecondary,  //
                  "send s1 'r2' ok", kBackOnline, kIdle));
  EXPECT_THAT(zmq.open_sockets(), Lines("s1", "s2"));
}

TEST_F(SendLoop, DroppedSocketsDoNotPileUp) {
  connect("a");
  // Forty outages, each with a switch and a way back.
  std::deque<bool> outcomes;
  for (int i = 0; i < 40; ++i)
    for (const bool outcome : switching({kOk}))
      outcomes.push_back(outcome);
  sends(outcomes);
  write_many(80);
  run();
  EXPECT_EQ(log.starting_with("warning: Switched").size(), 40u);
  EXPECT_EQ(log.starting_with(kBackOnline).size(), 40u);
  EXPECT_EQ(zmq.open_sockets().size(), 1u + 8u);
}

// -- Hold-off -------------------------------------------------------------------------------------

TEST_F(SendLoop, HoldOffLastsTenSecondsWhenTheLoopComesByWithAFailedPrimary) {
  connect();
  sends({kFail, kFail});
  zmq.on_init_size = failing_call(2);
  write("r");
  const auto story = run(kIdle, 2);
  const auto rest = after(
      {"send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNotResponding, kInitFailed, kIdle},
      story);
  // Whole seconds 0 to 9 after the failure, one look each.
  std::vector<std::string> expected(10, kRetryPause);
  expected.push_back("send s1 'r' ok");
  expected.push_back(kIdle);
  EXPECT_THAT(rest, ElementsAreArray(expected));
  EXPECT_EQ(inside().main_fail_time, 0);
}

TEST_F(SendLoop, NoHoldOffOnceTheStateIsAnother) {
  connect();
  sends({kFail, kFail, kFail, kFail});
  zmq.on_init_size = failing_call(3);
  write("r");
  EXPECT_THAT(run(kIdle, 2),
              Lines("send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNotResponding,
                    "send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNoSecondary,
                    kInitFailed, kIdle, "send s1 'r' ok", kBackOnline, kIdle));
}

// -- A message that cannot be initialised ---------------------------------------------------------

TEST_F(SendLoop, WhenTheMessageCannotBeSizedItsRecordIsLostAndTheNextOneSent) {
  connect();
  zmq.on_init_size = failing_call(1);
  write("a");
  write("b");
  EXPECT_THAT(run(kIdle, 2), Lines(kInitFailed, kIdle, "send s1 'b' ok", kIdle));
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(failed(), 0u);
}

TEST_F(SendLoop, WhenTheMessageCannotTakeItsBodyItsRecordIsLostAndTheNextOneSent) {
  connect();
  zmq.on_init_data = failing_call(1);
  write("a");
  write("b");
  EXPECT_THAT(run(kIdle, 2), Lines(kInitFailed, kIdle, "send s1 'b' ok", kIdle));
  EXPECT_EQ(zmq.live_contents(), 0u);
}

TEST_F(SendLoop, AnAbandonedRecordIsSentFromTheEntryThatAFailedPassLeft) {
  connect();
  sends({kFail, kFail, kFail, kFail});
  zmq.on_init_size = failing_call(3);
  write("a");
  write("b");
  // Behind b: that one waited longer in the queue.
  EXPECT_THAT(run(kIdle, 2),
              Lines("send s1 'a' failed", kRetryPause, "send s1 'a' failed", kNotResponding,
                    "send s1 'a' failed", kRetryPause, "send s1 'a' failed", kNoSecondary,
                    kInitFailed, kIdle, "send s1 'b' ok", kBackOnline, "send s1 'a' ok", kIdle));
  EXPECT_TRUE(inside().queue.empty());
}

// -- The spool ------------------------------------------------------------------------------------

TEST_F(SendLoop, AfterADeliverySpooledMessagesComeBackNewestFirstAtTheTail) {
  connect();
  FakeSpool::put("d1");
  FakeSpool::put("d2");
  write("a");
  write("b");
  EXPECT_THAT(run(), Lines("send s1 'a' ok", "spool get 'd2'", "spool get 'd1'", "send s1 'b' ok",
                           "send s1 'd2' ok", "send s1 'd1' ok", kIdle));
}

TEST_F(SendLoop, WithNothingToDeliverTheSpoolStaysAsItIs) {
  connect();
  FakeSpool::put("d1");
  EXPECT_THAT(run(kIdle, 2), Lines(kIdle, kIdle));
  EXPECT_THAT(FakeSpool::contents(), Lines("d1"));
}

TEST_F(SendLoop, AFailureDoesNotFetchFromTheSpool) {
  connect();
  everything_down();
  FakeSpool::put("d1");
  write("a");
  run(kNoSecondary, 2);
  EXPECT_THAT(log.starting_with("spool"), IsEmpty());
}

TEST_F(SendLoop, RefillStopsWithFiveHundredWaiting) {
  connect();
  for (int i = 0; i < 10; ++i)
    FakeSpool::put("d" + std::to_string(i));
  write_many(497);
  const auto story = run("send", 1);
  // 496 are left after the first; that makes room for four.
  EXPECT_THAT(story, Lines("send s1 'r0' ok", "spool get 'd9'", "spool get 'd8'", "spool get 'd7'",
                           "spool get 'd6'", kIdle));
  EXPECT_EQ(inside().queue.size(), 500u);
  EXPECT_EQ(FakeSpool::contents().size(), 6u);
}

TEST_F(SendLoop, EachFurtherDeliveryFetchesOne) {
  connect();
  for (int i = 0; i < 10; ++i)
    FakeSpool::put("d" + std::to_string(i));
  write_many(500);
  EXPECT_THAT(run("send", 3), Lines("send s1 'r0' ok", "spool get 'd9'",  //
                                    "send s1 'r1' ok", "spool get 'd8'",  //
                                    "send s1 'r2' ok", "spool get 'd7'", kIdle));
}

TEST_F(SendLoop, WithFiveHundredStillWaitingADeliveryFetchesNothing) {
  connect();
  sends({kFail, kFail});
  FakeSpool::put("d1");
  write_many(500);
  // The requeued entry makes it 500 again when r0 is delivered.
  EXPECT_THAT(run("send", 4), Lines("send s1 'r0' failed", kRetryPause, "send s1 'r0' failed",
                                    kNotResponding, "send s1 'r0' ok",  //
                                    "send s1 'r1' ok", "spool get 'd1'", kIdle));
}

TEST_F(SendLoop, ADeliveryToASecondaryFetchesToo) {
  connect("a");
  sends(switching({}));
  FakeSpool::put("d1");
  write("r");
  const auto rest = after(switched("r"), run());
  EXPECT_THAT(rest, Lines("spool get 'd1'", "send s1 'd1' ok", kBackOnline, kIdle,
                          "disconnect s2 tcp://a:5555", "close s2"));
}

TEST_F(SendLoop, ASpoolRecordThatComesBackEmptyIsSentAsAnEmptyMessage) {
  connect();
  FakeSpool::promise_nothing(2);
  FakeSpool::put("d1");
  write("a");
  EXPECT_THAT(run(),
              Lines("send s1 'a' ok", "spool get nothing", "spool get nothing", "spool get 'd1'",
                    "send s1 '' ok", "send s1 '' ok", "send s1 'd1' ok", kIdle));
  EXPECT_EQ(sent(), 4u);
}

TEST_F(SendLoop, AnEmptySpoolRecordSurvivesFailedPasses) {
  connect();
  sends({kOk, kFail, kFail, kFail, kFail, kOk});
  FakeSpool::promise_nothing(1);
  write("a");
  EXPECT_THAT(run(), Lines("send s1 'a' ok", "spool get nothing",  //
                           "send s1 '' failed", kRetryPause, "send s1 '' failed",
                           kNotResponding,  //
                           "send s1 '' failed", kRetryPause, "send s1 '' failed", kNoSecondary,
                           "send s1 '' ok", kBackOnline, kIdle));
}

TEST_F(SendLoop, SkippedEntriesDoNotStrandTheSpool) {
  connect();
  // So long an outage that 500 entries of one record fill the queue. Meanwhile a message came.
  std::deque<bool> outcomes(2 * 500, kFail);
  sends(outcomes);
  write("r");
  int passes = 0;
  log.listen([&](const std::string& line) {
    if (line == kNoSecondary && ++passes == 499)
      write("late");
    if (line == kIdle)
      inside().running = false;
  });
  log.clear();
  worker->DoWork();
  log.listen(nullptr);
  EXPECT_THAT(log.starting_with("send s1 'late' ok"), Lines("send s1 'late' ok"));

  // The same with the message in the spool, which nothing but a delivery empties.
  sends(std::deque<bool>(2 * 501, kFail));
  write("r");
  passes = 0;
  log.listen([&](const std::string& line) {
    if (line == kNoSecondary && ++passes == 500)
      FakeSpool::put("spooled");
    // Neither in the spool nor in the queue, and yet not forgotten.
    if (line == "spool get 'spooled'") {
      EXPECT_EQ(status().in_work, 1);
    }
    if (line == kIdle)
      inside().running = false;
  });
  log.clear();
  inside().running = true;
  worker->DoWork();
  log.listen(nullptr);
  const auto story = log.story();
  ASSERT_GE(story.size(), 5u);
  EXPECT_THAT(
      std::vector<std::string>(story.end() - 5, story.end()),
      Lines("send s1 'r' ok", kBackOnline, "spool get 'spooled'", "send s1 'spooled' ok", kIdle));
  EXPECT_TRUE(inside().queue.empty());
}

// -- Stop during each step ------------------------------------------------------------------------

TEST_F(SendLoop, StopDuringTheFirstAttemptGivesTheRecordUpWithoutARetry) {
  connect("a");
  everything_down();
  write("r");
  EXPECT_THAT(run("send s1 'r' failed"), Lines("send s1 'r' failed", kIdle));
  EXPECT_EQ(failed(), 1u);
  EXPECT_TRUE(inside().queue.empty()) << "neither sent, requeued nor spooled";
  EXPECT_THAT(FakeSpool::contents(), IsEmpty());
  EXPECT_EQ(zmq.live_contents(), 0u);
}

TEST_F(SendLoop, StopDuringTheRetryPauseStillMakesTheSecondAttempt) {
  connect();
  everything_down();
  write("r");
  EXPECT_THAT(run(kRetryPause),
              Lines("send s1 'r' failed", kRetryPause, "send s1 'r' failed", kIdle));
  EXPECT_EQ(failed(), 1u);
  EXPECT_TRUE(inside().queue.empty());
}

TEST_F(SendLoop, StopDuringASuccessfulSendStillReleasesAndRefills) {
  connect();
  FakeSpool::put("d");
  write("a");
  write("b");
  EXPECT_THAT(run("send s1 'a' ok"), Lines("send s1 'a' ok", "spool get 'd'", kIdle));
  EXPECT_EQ(inside().queue.size(), 2u);
}

TEST_F(SendLoop, StopDuringTheNotRespondingWarningLeavesTheRequeuedRecordToTheFlush) {
  connect();
  sends({kFail, kFail});
  write("r");
  EXPECT_THAT(run(kNotResponding), Lines("send s1 'r' failed", kRetryPause, "send s1 'r' failed",
                                         kNotResponding, kIdle));
  EXPECT_EQ(inside().queue.size(), 1u);
  EXPECT_THAT(stop(),
              Lines("send s1 'r' ok", "disconnect s1 tcp://p:5555", "close s1", "ctx_destroy"));
}

TEST_F(SendLoop, StopDuringASearchEndsItWithSingleAttempts) {
  connect("a,b,c");
  everything_down();
  write("r");
  const auto story = run("connect s2");
  EXPECT_THAT(std::vector<std::string>(story.begin() + 7, story.end()),
              Lines("socket s2", "connect s2 tcp://a:5555 ok", "send s2 'r' failed",
                    "disconnect s2 tcp://a:5555", "close s2",  //
                    "socket s3", "connect s3 tcp://b:5555 ok", "send s3 'r' failed",
                    "disconnect s3 tcp://b:5555", "close s3",  //
                    "socket s4", "connect s4 tcp://c:5555 ok", "send s4 'r' failed",
                    "disconnect s4 tcp://c:5555", "close s4", kNoSecondary, kIdle));
  EXPECT_EQ(inside().queue.size(), 2u);
  EXPECT_THAT(stop(),
              Lines("send s1 'r' failed", "disconnect s1 tcp://p:5555", "close s1", "ctx_destroy"))
      << "one attempt, whatever the number of entries";
}

TEST_F(SendLoop, StopAsASecondaryAcceptsStillSendsTheEmptyMessage) {
  connect("a");
  sends(switching({}));
  write("r");
  const auto rest = after(switched("r"), run("send s2 'r' ok"));
  EXPECT_THAT(rest, Lines(kIdle, "disconnect s2 tcp://a:5555", "close s2"));
  EXPECT_EQ(inside().queue.size(), 1u) << "the entry of the delivered record";
  EXPECT_THAT(stop(), Lines("disconnect s1 tcp://p:5555", "close s1", "ctx_destroy"));
}

TEST_F(SendLoop, StopBeforeAFailingEmptySendMakesItASingleAttempt) {
  connect("a");
  sends({kFail, kFail, kFail, kFail, kOk, kFail});
  write("r");
  const auto story = run("warning: Switched");
  EXPECT_THAT(
      std::vector<std::string>(story.begin() + 9, story.end()),
      Lines("send s2 'r' ok", switched_to("tcp://a:5555"), "send s2 '' failed",
            secondary_gone("tcp://a:5555"), "disconnect s2 tcp://a:5555", "close s2", kIdle));
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(failed(), 3u);
}

TEST_F(SendLoop, StopWhileASecondaryFailsRequeuesTheRecord) {
  connect("a");
  sends(switching({kFail, kFail, kFail, kFail}));
  write("r1");
  write("r2");
  const auto rest = after(switched("r1"), run("send s2 'r2' failed"));
  EXPECT_THAT(
      rest, Lines("send s1 'r2' failed", kRetryPause, "send s1 'r2' failed", "send s2 'r2' failed",
                  secondary_gone("tcp://a:5555"), "disconnect s2 tcp://a:5555", "close s2", kIdle));
  EXPECT_THAT(stop(), Lines("send s1 'r2' failed", "disconnect s1 tcp://p:5555", "close s1",
                            "ctx_destroy"));
}

TEST_F(SendLoop, StopDuringThePrimarysFailureInAnotherStateGivesUpTheRecord) {
  connect("a");
  sends(switching({kFail}));
  write("r1");
  write("r2");
  const auto rest = after(switched("r1"), run("send s1 'r2' failed"));
  EXPECT_THAT(rest, Lines("send s1 'r2' failed", kIdle, "disconnect s2 tcp://a:5555", "close s2"));
}

TEST_F(SendLoop, ARecordAbandonedOnStopIsFlushedFromTheEntriesThatItLeft) {
  connect();
  sends({kFail, kFail, kFail, kFail, kFail});
  write("r");
  EXPECT_THAT(run("send s1 'r' failed", 5),
              Lines("send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNotResponding,
                    "send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNoSecondary,
                    "send s1 'r' failed", kIdle));
  EXPECT_EQ(inside().queue.size(), 2u);
  EXPECT_THAT(stop(),
              Lines("send s1 'r' ok", "disconnect s1 tcp://p:5555", "close s1", "ctx_destroy"));
  EXPECT_EQ(sent(), 1u);
}

TEST_F(SendLoop, StopDuringTheHoldOffEndsIt) {
  connect();
  sends({kFail, kFail});
  zmq.on_init_size = failing_call(2);
  write("r");
  EXPECT_THAT(run(kRetryPause, 3),
              Lines("send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNotResponding,
                    kInitFailed, kIdle, kRetryPause, kRetryPause));
}

TEST_F(SendLoop, StopDuringTheRefillFinishesIt) {
  connect();
  FakeSpool::put("d1");
  FakeSpool::put("d2");
  write("a");
  EXPECT_THAT(run("spool get"), Lines("send s1 'a' ok", "spool get 'd2'", "spool get 'd1'", kIdle));
  EXPECT_EQ(inside().queue.size(), 2u);
}

TEST_F(SendLoop, StopWhileAMessageCannotBeInitialisedEndsTheLoop) {
  connect();
  zmq.on_init_size = [](size_t) { return kFail; };
  write("a");
  EXPECT_THAT(run(kInitFailed), Lines(kInitFailed, kIdle));
  zmq.on_init_size = nullptr;
}

// Whatever the moment: nothing is sent twice, nothing read that was freed, nothing left over.
TEST_F(SendLoop, StopAtAnyStepOfAnEventfulRunLosesAtMostTheRecordInWork) {
  // On a; a fails; nobody; the primary is back; out again, on a anew.
  const std::deque<bool> outcomes =
      switching({kFail, kFail, kOk,   kFail, kFail, kFail, kFail, kFail, kFail, kFail, kFail,
                 kOk,   kOk,   kFail, kFail, kFail, kFail, kOk,   kOk,   kFail, kFail, kOk});
  const int records = 8;
  int step = 0;
  for (bool stopped_early = true; stopped_early;) {
    ++step;
    connect("a");
    sends(outcomes);
    FakeSpool::put("d0");
    FakeSpool::put("d1");
    write_many(records);
    log.listen([&, seen = 0](const std::string& line) mutable {
      if (++seen == step || line == kIdle)
        inside().running = false;
    });
    log.clear();
    worker->DoWork();
    stopped_early = static_cast<int>(log.all().size()) >= step;
    auto sends_made = log.starting_with("send");
    log.listen(nullptr);
    zmq.on_send = nullptr;
    stop();
    for (const auto& line : log.starting_with("send"))
      sends_made.push_back(line);

    int missing = 0;
    const auto delivered = [&](const std::string& body) {
      const std::string end = " '" + body + "' ok";
      return std::count_if(sends_made.begin(), sends_made.end(), [&](const std::string& line) {
        return line.size() > end.size() &&
               line.compare(line.size() - end.size(), end.size(), end) == 0;
      });
    };
    for (int i = 0; i < records; ++i) {
      const auto times = delivered("r" + std::to_string(i));
      EXPECT_LE(times, 1) << "r" << i << ", stopped at step " << step;
      missing += times == 0;
    }
    EXPECT_LE(missing, 1) << "stopped at step " << step;
    EXPECT_EQ(zmq.live_contents(), 0u) << "stopped at step " << step;
    EXPECT_THAT(zmq.open_sockets(), IsEmpty()) << "stopped at step " << step;
    delete worker;
    worker = nullptr;
    FakeSpool::reset();
    if (::testing::Test::HasFailure())
      break;
  }
  EXPECT_GT(step, 100);
}

// -- The look for writability ---------------------------------------------------------------------

class Looks : public SendLoop {
 protected:
  size_t looks() { return log.starting_with(".getsockopt s1 15").size(); }
};

TEST_F(Looks, NoneWithoutABacklog) {
  connect();
  for (int i = 0; i < 5; ++i) {
    write("r");
    run();
    EXPECT_EQ(looks(), 0u);
  }
}

TEST_F(Looks, OneBeforeEachSendWhileABacklogWaitsAndThePrimaryAnswers) {
  connect();
  write_many(4);
  run();
  // Not before the first, as nothing is known of the primary then; not before the last.
  EXPECT_EQ(looks(), 2u);
}

TEST_F(Looks, InVainAreBoundedAndComeBeforeFewerAndFewerSends) {
  connect();
  zmq.on_events = [] { return 0; };
  write_many(70);
  EXPECT_THAT(run(), Contains("send s1 'r69' ok"));
  // 68 sends with a backlog; before the 1st, 2nd, 4th, 8th, 16th, 32nd, 48th and 64th.
  EXPECT_EQ(looks(), 8u * 128);
}

TEST_F(Looks, ComeBeforeEachSendAgainOnceOneHelped) {
  connect();
  size_t asked = 0;
  // In vain before the 1st, 2nd, 4th and 8th send.
  zmq.on_events = [&] { return ++asked > 4 * 128 ? ZMQ_POLLOUT : 0; };
  write_many(24);
  run();
  // Of 22 sends, the 16th to the 22nd.
  EXPECT_EQ(looks(), 4u * 128 + 7);
}

TEST_F(Looks, OneInVainLeavesNoneOut) {
  connect();
  size_t asked = 0;
  zmq.on_events = [&] { return ++asked > 128 ? ZMQ_POLLOUT : 0; };
  write_many(5);
  run();
  EXPECT_EQ(looks(), 128u + 2);
}

TEST_F(Looks, AreGivenUpWhenTheyFail) {
  connect();
  zmq.on_events = [] { return -1; };
  write_many(4);
  EXPECT_THAT(run(), Contains("send s1 'r3' ok"));
  EXPECT_EQ(looks(), 2u);
}

TEST_F(Looks, NoneWhileAServerDoesNotAnswer) {
  connect("a");
  write_many(50);
  down("tcp://p:5555");
  run("send s2", 20);
  EXPECT_EQ(looks(), 0u);
}

TEST_F(Looks, NoneForTheFirstSendAfterAFailure) {
  connect();
  sends({kOk, kFail, kFail, kOk});
  write_many(4);
  run();
  // r1: one look, then it fails; again without a look; r2: one; r3: an entry of r1 waits: one.
  EXPECT_EQ(looks(), 3u);
}

}  // namespace
}  // namespace test
