// Write, Stop with its flush, and what FillStatus says meanwhile.
#include <climits>
#include <cstdlib>

#include "WorkerFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Sanitizers end a process that asks for far too much; here it is to get null, as without them.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace test {
namespace {

class Queue : public WorkerFixture {};
class Stopping : public WorkerFixture {
 protected:
  std::string stop_and_read_stdout() {
    ::testing::internal::CaptureStdout();
    stop();
    return ::testing::internal::GetCapturedStdout();
  }
};

// -- Write ----------------------------------------------------------------------------------------

TEST_F(Queue, MessagesAreCopied) {
  connect();
  std::string body = "before";
  worker->Write(body.size(), body.data());
  body = "after!";
  EXPECT_THAT(run(), Lines("send s1 'before' ok", kIdle));
}

TEST_F(Queue, FiveHundredAndFirstMessageGoesToTheSpool) {
  connect();
  write_many(500);
  EXPECT_THAT(FakeSpool::contents(), IsEmpty());
  EXPECT_EQ(worker->queue.size(), 500u);
  write("r500");
  write("r501");
  EXPECT_THAT(FakeSpool::contents(), Lines("r500", "r501"));
  EXPECT_EQ(worker->queue.size(), 500u);
}

TEST_F(Queue, TheSpoolStoresUnderTheQueuesLock) {
  connect();
  write_many(500);
  int looks = 0;
  log.listen([&](const std::string& line) {
    looks += 1;
    EXPECT_EQ(line, "spool store 'r500'");
    EXPECT_TRUE(queue_is_locked());
  });
  write("r500");
  EXPECT_EQ(looks, 1);
}

TEST_F(Queue, TheSendLoopSendsACopyWithTheQueueUnlocked) {
  connect();
  write("a");
  const void* const body = worker->queue.front()->data;
  int looks = 0;
  zmq.on_send = [&](const std::string&, const std::string&) {
    looks += 1;
    EXPECT_FALSE(queue_is_locked());
    return kOk;
  };
  run();
  EXPECT_EQ(looks, 1);
  ASSERT_EQ(zmq.adopted().size(), 1u);
  EXPECT_NE(zmq.adopted()[0], body);
}

TEST_F(Queue, SpooledLengthsAreTakenModulo65536) {
  connect();
  write(std::string(70000, 'x'));
  write_many(499);
  EXPECT_EQ(worker->queue.front()->size, 70000u) << "whole in memory";
  std::string body(70000, '?');
  for (size_t i = 0; i < body.size(); ++i)
    body[i] = static_cast<char>('a' + i % 26);
  write(std::string(65535, 'x'));
  EXPECT_EQ(status().cut, 0u);
  write(body);
  write(std::string(65536, 'y'));
  EXPECT_THAT(FakeSpool::contents(), Lines(std::string(65535, 'x'), body.substr(0, 4464), ""));
  EXPECT_EQ(status().cut, 2u);
}

TEST_F(Queue, AfterStopWhatFindsNoRoomInMemoryIsDroppedQuietly) {
  connect();
  stop();
  write_many(501);
  EXPECT_EQ(worker->queue.size(), 500u);
  test::take_queue(worker);
}

TEST_F(Queue, WithoutMemoryForTheBodyTheHostIsTold) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  connect();
  EXPECT_DEATH(worker->Write(ULONG_MAX / 2, "x"), "out of memory in malloc");
}

TEST_F(Queue, WithTheQueueFullAMessageIsSpooledWithoutMemoryForTheBody) {
  connect();
  write_many(500);
  worker->Write(1UL << 62, "x");  // modulo 65536 that is a message of no bytes
  EXPECT_THAT(FakeSpool::contents(), Lines(""));
}

// -- Stop -----------------------------------------------------------------------------------------

TEST_F(Stopping, EndsEverythingInOrderAndLeavesTheSpoolAsItIs) {
  connect();
  FakeSpool::put("d");
  write("a");
  write("b");
  stop();
  EXPECT_THAT(log.all(),
              Lines(".msg_init_size 1", ".msg_init_data 1", ".msg_close", "send s1 'a' ok",
                    ".msg_close",  //
                    ".msg_init_size 1", ".msg_init_data 1", ".msg_close", "send s1 'b' ok",
                    ".msg_close",  //
                    "disconnect s1 tcp://p:5555", "close s1", "ctx_destroy", ".spool_close",
                    ".deliver_pending"));
  EXPECT_EQ(worker->socket, nullptr);
  EXPECT_EQ(worker->context, nullptr);
  EXPECT_THAT(FakeSpool::contents(), Lines("d"));
}

TEST_F(Stopping, WithThePrimaryDownEachRecordGetsOneAttemptAndIsDropped) {
  connect("a");  // the secondary is not used
  sends({kFail, kOk, kFail, kFail});
  write_many(4);
  EXPECT_EQ(stop_and_read_stdout(), "ZMQ worker finished, sent 1 messages, failed 3 times\n");
  EXPECT_THAT(log.story(), Lines("send s1 'r0' failed", "send s1 'r1' ok", "send s1 'r2' failed",
                                 "send s1 'r3' failed", "disconnect s1 tcp://p:5555", "close s1",
                                 "ctx_destroy"));
  EXPECT_TRUE(worker->queue.empty());
  EXPECT_THAT(FakeSpool::contents(), IsEmpty());
  EXPECT_EQ(worker->DroppedByFlush(), 3u);
}

TEST_F(Stopping, TheFinalLineShowsTheLower32BitsOfTheCounts) {
  connect();
  worker->sent_count = (1ull << 32) + 7;
  worker->failed_count = 0x80000000ull;
  EXPECT_EQ(stop_and_read_stdout(),
            "ZMQ worker finished, sent 7 messages, failed -2147483648 times\n");
}

TEST_F(Stopping, BeforeStartOrASecondTimeDoesNothing) {
  connect();
  worker->running = false;
  worker->Stop();
  EXPECT_THAT(log.all(), IsEmpty());
  stop();
  log.clear();
  ::testing::internal::CaptureStdout();
  worker->Stop();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_THAT(log.all(), IsEmpty());
}

TEST_F(Stopping, TheFlushSendsTheRecordsOwnBodiesWithTheQueueLocked) {
  connect();
  write("a");
  write("b");
  const void* const first = worker->queue.front()->data;
  const void* const second = worker->queue.back()->data;
  int looks = 0;
  zmq.on_send = [&](const std::string&, const std::string&) {
    looks += 1;
    EXPECT_TRUE(queue_is_locked());
    return kOk;
  };
  stop();
  EXPECT_EQ(looks, 2);
  EXPECT_THAT(zmq.adopted(), ElementsAre(first, second));
}

TEST_F(Stopping, EntriesOfDeliveredRecordsAreNotFlushed) {
  connect();
  sends({kFail, kFail, kFail, kFail});
  write("a");
  run("send s1 'a' ok");
  ASSERT_EQ(worker->queue.size(), 2u);
  EXPECT_TRUE(worker->queue.front()->done);
  EXPECT_EQ(worker->queue.front()->data, nullptr) << "the body goes with the delivery";
  EXPECT_THAT(stop(), Lines("disconnect s1 tcp://p:5555", "close s1", "ctx_destroy"));
}

TEST_F(Stopping, ARecordWhoseMessageCannotBeInitialisedIsLeftOutOfTheFlush) {
  connect();
  write("a");
  write("b");
  void* const body = worker->queue.front()->data;
  zmq.on_init_size = [calls = 0](size_t) mutable { return ++calls != 1; };
  EXPECT_THAT(stop(),
              Lines("send s1 'b' ok", "disconnect s1 tcp://p:5555", "close s1", "ctx_destroy"));
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(failed(), 0u);
  EXPECT_EQ(worker->DroppedByFlush(), 1u);
  // The record was freed, its body was not: that is still there to be read and released.
  EXPECT_EQ(std::string(static_cast<char*>(body), 1), "a");
  free(body);
}

// -- FillStatus -----------------------------------------------------------------------------------

class Status : public WorkerFixture {
 protected:
  static bool all_handed_over(const DravenholtZmqWriterStatus& s) {
    return s.queued == 0 && !s.in_work && !s.spooled;
  }
};

TEST_F(Status, CountsWhatWaitsUntilTheWorkerStops) {
  connect();
  EXPECT_TRUE(all_handed_over(status()));
  write_many(3);
  EXPECT_EQ(status().queued, 3u);
  EXPECT_EQ(status().in_work, 0);
  EXPECT_EQ(status().spooled, 0);
  EXPECT_EQ(status().running, 1);
  FakeSpool::put("d");
  EXPECT_EQ(status().spooled, 1);
  stop();
  EXPECT_TRUE(all_handed_over(status()));
  EXPECT_EQ(status().running, 0);
  EXPECT_EQ(status().sent, 3u);
  EXPECT_EQ(status().failed, 0u);
}

TEST_F(Status, TellsRecordsFromEmptyMessagesAndWhatTheSpoolHolds) {
  connect("a");
  write_many(503);
  EXPECT_EQ(status().stored, 3);
  EXPECT_EQ(status().written, 503u);
  FakeSpool::promise_nothing(1);                  // as where a full disk did not take a record
  sends({kFail, kFail, kFail, kFail, kOk, kOk});  // a switch
  run();
  EXPECT_EQ(status().sent, 505u) << "with two empty messages";
  EXPECT_EQ(status().delivered, 503u);
  EXPECT_EQ(status().stored, 0) << "what came back with nothing in it does not count";
  write("last");
  stop();
  EXPECT_EQ(status().delivered, 504u);
  EXPECT_EQ(status().written, 504u) << "what comes back from the spool does not count again";
}

TEST_F(Status, LeavesTheFieldsOfOthersAlone) {
  connect();
  DravenholtZmqWriterStatus s = {};
  s.worker = 7;
  s.spool_folder = "folder";
  s.install_prefix = "prefix";
  s.cut = 7;
  worker->FillStatus(&s);
  EXPECT_EQ(s.cut, 0u) << "set, not added to";
  EXPECT_EQ(s.worker, 7);
  EXPECT_STREQ(s.spool_folder, "folder");
  EXPECT_STREQ(s.install_prefix, "prefix");
}

TEST_F(Status, ShowsTheRecordInWorkWhileItIsSent) {
  connect();
  write("a");
  DravenholtZmqWriterStatus during = {};
  zmq.on_send = [&](const std::string&, const std::string&) {
    during = status();
    return kOk;
  };
  run();
  EXPECT_EQ(during.queued, 0u);
  EXPECT_EQ(during.in_work, 1);
  EXPECT_TRUE(all_handed_over(status()));
  EXPECT_EQ(status().sent, 1u);
}

TEST_F(Status, NeverSaysThatAllWasHandedOverWhileSomethingIsLeft) {
  connect("a");
  // Failures, a switch, a way back, and a spool that is fetched record by record.
  sends({kFail, kFail, kFail, kFail, kOk, kOk, kFail, kFail, kFail, kFail, kOk});
  write("r1");
  FakeSpool::put("d1");
  FakeSpool::put("d2");
  int delivered = 0;
  int looks = 0;
  log.clear();
  log.listen([&](const std::string& line) {
    const bool body_sent = line.find("' ok") != std::string::npos &&
                           line.compare(0, 4, "send") == 0 && line.find("''") == std::string::npos;
    delivered += body_sent;
    looks += 1;
    EXPECT_TRUE(delivered == 3 || !all_handed_over(status())) << "at " << line;
    if (line == kIdle) {
      EXPECT_TRUE(all_handed_over(status()));
      worker->running = false;
    }
  });
  worker->DoWork();
  log.listen(nullptr);
  EXPECT_EQ(delivered, 3);
  EXPECT_GT(looks, 30);
}

TEST_F(Status, ARecordThatWasGivenUpIsNotInWork) {
  connect();
  zmq.on_init_size = [calls = 0](size_t) mutable { return ++calls != 1; };
  write("a");
  run();
  EXPECT_TRUE(all_handed_over(status()));
}

}  // namespace
}  // namespace test
