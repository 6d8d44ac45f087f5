// The send loop's required steps as examples: the order of sends, connects, closes, sleeps,
// warnings and spool operations. SendLoopModelTest tries everything that these do not, in random
// worlds.
//
// s1 is the primary; the secondaries get s2, s3, ... as they are connected.
#include "WorkerFixture.h"

using ::testing::Contains;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

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

  /// Fails on its nth call.
  static std::function<bool(size_t)> failing_call(int nth) {
    return [nth, calls = 0](size_t) mutable { return ++calls != nth; };
  }

  void everything_down() {
    zmq.on_send = [](const std::string&, const std::string&) { return kFail; };
  }

  /// How often the loop has asked whether the primary can take a message.
  size_t polls() { return log.starting_with(".getsockopt s1 15").size(); }

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

TEST_F(SendLoop, HealthyPrimaryGetsEachRecordOnceInOrderAndByteForByte) {
  connect();
  std::string every_byte;
  for (int i = 0; i < 256; ++i)
    every_byte += static_cast<char>(i);
  write(every_byte);
  worker->Write(0, nullptr);
  write("c");
  EXPECT_THAT(run(),
              Lines("send s1 '" + every_byte + "' ok", "send s1 '' ok", "send s1 'c' ok", kIdle));
  EXPECT_EQ(sent(), 3u);
  EXPECT_EQ(failed(), 0u);
  EXPECT_TRUE(worker->queue.empty());
}

TEST_F(SendLoop, EmptyQueueIsPolledEveryTenthOfASecond) {
  connect();
  FakeSpool::put("left alone until a message is delivered");
  EXPECT_THAT(run(kIdle, 3), Lines(kIdle, kIdle, kIdle));
}

TEST_F(SendLoop, ReturnsAtOnceWhenItIsNotToRun) {
  connect();
  write("a");
  worker->running = false;
  worker->main_fail_time = 5;
  worker->secondary_index = 6;
  worker->DoWork();
  EXPECT_THAT(log.story(), IsEmpty());
  EXPECT_EQ(worker->main_fail_time, 0);
  EXPECT_EQ(worker->secondary_index, 0);
}

TEST_F(SendLoop, AMessageIsInitialisedTwiceWithoutLeakingTheFirstRoom) {
  connect();
  write("body");
  run();
  EXPECT_THAT(log.all(), Lines(".msg_init_size 4", ".msg_init_data 4", ".msg_close",
                               "send s1 'body' ok", ".msg_close", kIdle));
  EXPECT_EQ(zmq.live_contents(), 0u);
}

// -- Primary fails --------------------------------------------------------------------------------

TEST_F(SendLoop, FirstFailureWarnsRequeuesAndRetriesAtOnce) {
  connect("a");
  sends({kFail, kFail, kOk});
  write("r");
  write("after it");
  const int64_t start = clock.now_us() / 1000000;
  int64_t marked = -1;
  size_t waiting = 99;
  zmq.on_init_size = [&, calls = 0](size_t) mutable {
    if (++calls == 2) {
      marked = worker->main_fail_time;
      waiting = worker->queue.size();
    }
    return kOk;
  };
  EXPECT_THAT(run(), Lines("send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNotResponding,
                           "send s1 'r' ok", "send s1 'after it' ok", kIdle));
  EXPECT_EQ(marked, start + 1);
  EXPECT_EQ(waiting, 2u) << "the requeued entry waits while the record is sent again";
  EXPECT_EQ(worker->main_fail_time, 0);
  EXPECT_EQ(sent(), 2u);
  EXPECT_EQ(failed(), 1u);
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
  EXPECT_EQ(worker->queue.size(), 4u);
  EXPECT_EQ(sent(), 0u);
  EXPECT_EQ(failed(), 4u);
}

// -- Secondaries ----------------------------------------------------------------------------------

TEST_F(SendLoop, ASecondaryGetsAMessageThenAnEmptyOneAndTheRestUntilThePrimaryIsBack) {
  connect("a");
  sends(switching({kFail, kFail, kOk, kOk, kOk}));
  write_many(4);
  const auto rest = after(switched("r0"), run());
  EXPECT_THAT(rest, Lines("send s1 'r1' failed", kRetryPause, "send s1 'r1' failed",
                          "send s2 'r1' ok",               //
                          "send s1 'r2' ok", kBackOnline,  //
                          "send s1 'r3' ok", kIdle, "disconnect s2 tcp://a:5555", "close s2"));
  EXPECT_EQ(sent(), 5u) << "the empty message is counted";
  EXPECT_EQ(failed(), 3u);
}

TEST_F(SendLoop, SecondariesAreSearchedInListOrderAndOneWithoutASocketSimplyFails) {
  connect("a,b,b");
  zmq.on_connect = [](const std::string& endpoint) { return endpoint != "tcp://a:5555"; };
  // The primary twice, b once.
  sends({kFail, kFail, kFail, kFail, kFail, kFail, kOk, kOk});
  write("r");
  const auto story = run();
  EXPECT_THAT(std::vector<std::string>(story.begin() + 7, story.end()),
              Lines("socket s2", "connect s2 tcp://a:5555 failed",
                    "error: Failed to connect to ZMQ server tcp://a:5555", "close s2",
                    "send null 'r' failed", kRetryPause, "send null 'r' failed",
                    "disconnect null tcp://a:5555",
                    "close null",  //
                    "socket s3", "connect s3 tcp://b:5555 ok", "send s3 'r' failed", kRetryPause,
                    "send s3 'r' failed", "disconnect s3 tcp://b:5555",
                    "close s3",  //
                    "socket s4", "connect s4 tcp://b:5555 ok", "send s4 'r' ok",
                    switched_to("tcp://b:5555"), "send s4 '' ok", kIdle,
                    "disconnect s4 tcp://b:5555", "close s4"));
  EXPECT_EQ(worker->secondary_index, 2);
  EXPECT_EQ(sent(), 2u);
  EXPECT_EQ(failed(), 4u) << "the send on no socket is counted too";
}

TEST_F(SendLoop, ASearchDropsTheSocketOfAnEarlierSecondaryAndStopClosesIt) {
  connect("a");
  // On a; back; out again, on a anew.
  sends(switching({kOk, kFail, kFail, kFail, kFail, kOk, kOk}));
  write_many(3);
  const auto rest = after(switched("r0"), run());
  EXPECT_THAT(rest,
              Lines("send s1 'r1' ok", kBackOnline,  //
                    "send s1 'r2' failed", kRetryPause, "send s1 'r2' failed",
                    kNotResponding,  //
                    "send s1 'r2' failed", kRetryPause, "send s1 'r2' failed", "socket s3",
                    "connect s3 tcp://a:5555 ok", "send s3 'r2' ok", switched_to("tcp://a:5555"),
                    "send s3 '' ok", kIdle, "disconnect s3 tcp://a:5555", "close s3"));
  EXPECT_THAT(stop(), Lines("disconnect s1 tcp://p:5555", "close s1", "close s2", "ctx_destroy"));
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
  EXPECT_EQ(log.starting_with(kBackOnline).size(), 40u);
  EXPECT_EQ(zmq.open_sockets().size(), 1u + 8u);
}

// -- Hold-off, and messages that cannot be initialised --------------------------------------------

TEST_F(SendLoop, HoldOffLastsTenSecondsWhenTheLoopComesByWithAFailedPrimary) {
  connect();
  sends({kFail, kFail});
  zmq.on_init_size = failing_call(2);
  write("r");
  // Whole seconds 0 to 9 after the failure; the abandoned record has an entry left.
  std::vector<std::string> expected(10, kRetryPause);
  expected.push_back("send s1 'r' ok");
  expected.push_back(kIdle);
  EXPECT_THAT(after({"send s1 'r' failed", kRetryPause, "send s1 'r' failed", kNotResponding,
                     kInitFailed, kIdle},
                    run(kIdle, 2)),
              ElementsAreArray(expected));
  EXPECT_EQ(worker->main_fail_time, 0);
}

TEST_F(SendLoop, ARecordWhoseMessageCannotBeInitialisedIsLostAndTheNextOneSent) {
  connect();
  zmq.on_init_size = failing_call(1);
  zmq.on_init_data = failing_call(1);
  write_many(3);
  EXPECT_THAT(run(kIdle, 3),
              Lines(kInitFailed, kIdle, kInitFailed, kIdle, "send s1 'r2' ok", kIdle));
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(failed(), 0u);
  EXPECT_EQ(zmq.live_contents(), 0u);
}

// -- The spool ------------------------------------------------------------------------------------

TEST_F(SendLoop, AfterADeliverySpooledMessagesComeBackNewestFirstAtTheTail) {
  connect();
  FakeSpool::put("d1");
  FakeSpool::put("d2");
  FakeSpool::promise_nothing(1);  // comes back empty, and is sent as an empty message
  write("a");
  write("b");
  EXPECT_THAT(
      run(), Lines("send s1 'a' ok", "spool get nothing", "spool get 'd2'", "spool get 'd1'",
                   "send s1 'b' ok", "send s1 '' ok", "send s1 'd2' ok", "send s1 'd1' ok", kIdle));
}

TEST_F(SendLoop, RefillStopsWithFiveHundredWaitingAndThenFetchesOneForEachDelivery) {
  connect();
  for (int i = 0; i < 10; ++i)
    FakeSpool::put("d" + std::to_string(i));
  sends({kFail, kFail});
  write_many(499);
  // 498 are left after the first, and the entry that its failure has left.
  EXPECT_THAT(run("send", 5), Lines("send s1 'r0' failed", kRetryPause, "send s1 'r0' failed",
                                    kNotResponding, "send s1 'r0' ok", "spool get 'd9'",  //
                                    "send s1 'r1' ok", "spool get 'd8'",                  //
                                    "send s1 'r2' ok", "spool get 'd7'", kIdle));
  EXPECT_EQ(worker->queue.size(), 500u);
}

TEST_F(SendLoop, SkippedEntriesDoNotStrandTheSpool) {
  connect();
  // So long an outage that 501 entries of one record fill the queue. Meanwhile a message came,
  // which nothing but a delivery fetches.
  sends(std::deque<bool>(2 * 501, kFail));
  write("r");
  log.listen([&, passes = 0](const std::string& line) mutable {
    if (line == kNoSecondary && ++passes == 500)
      write("spooled");
    // Neither in the spool nor in the queue, and yet not forgotten.
    if (line == "spool get 'spooled'") {
      EXPECT_EQ(status().in_work, 1);
    }
    if (line == kIdle)
      worker->running = false;
  });
  worker->DoWork();
  log.listen(nullptr);
  const auto story = log.story();
  ASSERT_GE(story.size(), 5u);
  EXPECT_THAT(
      std::vector<std::string>(story.end() - 5, story.end()),
      Lines("send s1 'r' ok", kBackOnline, "spool get 'spooled'", "send s1 'spooled' ok", kIdle));
  EXPECT_TRUE(worker->queue.empty());
}

// -- Stop -----------------------------------------------------------------------------------------

TEST_F(SendLoop, StopDuringTheFirstAttemptGivesTheRecordUpWithoutARetry) {
  connect("a");
  everything_down();
  write("r");
  EXPECT_THAT(run("send s1 'r' failed"), Lines("send s1 'r' failed", kIdle));
  EXPECT_EQ(failed(), 1u);
  EXPECT_TRUE(worker->queue.empty()) << "neither sent, requeued nor spooled";
  EXPECT_THAT(FakeSpool::contents(), IsEmpty());
  EXPECT_EQ(zmq.live_contents(), 0u);
}

// -- The spin for writability ---------------------------------------------------------------------

struct Spin {
  const char* promise;
  std::function<int(int poll)> events;  // what the nth poll gets, from 1 on
  int records;
  size_t polls;
};

class Spins : public SendLoop, public ::testing::WithParamInterface<Spin> {};

// With `records` waiting, all but the first send (nothing is known of the primary yet) and the last
// (nothing waits behind it) spin.
TEST_P(Spins, Bounded) {
  connect();
  zmq.on_events = [poll = 0]() mutable { return GetParam().events(++poll); };
  write_many(GetParam().records);
  EXPECT_THAT(run(), Contains("send s1 'r" + std::to_string(GetParam().records - 1) + "' ok"));
  EXPECT_EQ(polls(), GetParam().polls) << GetParam().promise;
}

int room_after(int polls, int poll) {
  return poll > polls ? ZMQ_POLLOUT : 0;
}

INSTANTIATE_TEST_SUITE_P(
    Table, Spins,
    ::testing::Values(Spin{"none without a backlog", [](int) { return ZMQ_POLLOUT; }, 1, 0},
                      Spin{"one poll is enough with room", [](int) { return ZMQ_POLLOUT; }, 4, 2},
                      Spin{"given up when polling fails", [](int) { return -1; }, 4, 2},
                      // 68 sends; before the 1st, 2nd, 4th, 8th, 16th, 32nd, 48th and 64th.
                      Spin{"before fewer and fewer sends", [](int) { return 0; }, 70, 8 * 128},
                      // Without success before the 1st, 2nd, 4th and 8th of 22 sends, then before
                      // the 16th to the 22nd.
                      Spin{"before each again once one helped",
                           [](int n) { return room_after(4 * 128, n); }, 24, 4 * 128 + 7},
                      Spin{"one that failed skips no send",
                           [](int n) { return room_after(128, n); }, 5, 128 + 2}));

TEST_F(SendLoop, SpinsForNoSendAfterAFailure) {
  connect("a");
  sends({kOk, kFail, kFail, kOk});
  write_many(4);
  run();
  // r1 fails after one; again without; r2: one; r3: one, as an entry of r1 waits.
  EXPECT_EQ(polls(), 3u);

  everything_down();
  write_many(50);
  run(kNoSecondary, 20);
  EXPECT_EQ(polls(), 0u);
}

}  // namespace
}  // namespace test
