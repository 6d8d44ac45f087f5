// Writers: what crosses the threads, in which order, and who owns it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "Net.h"
#include "Poison.h"
#include "TempDir.h"
#include "logging/Manager.h"
#include "logging/WriterFrontend.h"
#include "standin/Host.h"
#include "standin/ReportRecorder.h"
#include "threading/Manager.h"

using logging::WriterBackend;
using logging::WriterFrontend;
using standin::ReportKind;
using testing::ElementsAre;
using threading::Field;
using threading::Value;

namespace {

// What happened to the writers of a test, in order, and how they shall behave.
struct Story {
  std::mutex mutex;
  std::vector<std::string> events;
  std::vector<uint64_t> written;
  std::thread::id child;
  std::thread::id destroyed_on;
  // Behaviour; set before the writer exists.
  std::function<bool(WriterBackend*, Value**)> on_write;
  std::function<bool(WriterBackend*)> on_rotate;
  std::function<void(WriterBackend*)> on_destroy;
  bool init_result = true;
  bool flush_result = true;
  bool heartbeat_result = true;
  bool finish_result = true;

  void add(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(event);
  }
  std::vector<std::string> all() {
    std::lock_guard<std::mutex> lock(mutex);
    return events;
  }
  bool has(const std::string& event) {
    const auto known = all();
    return std::find(known.begin(), known.end(), event) != known.end();
  }
  std::vector<uint64_t> numbers() {
    std::lock_guard<std::mutex> lock(mutex);
    return written;
  }
};

Story* story = nullptr;

class ProbeWriter : public WriterBackend {
 public:
  explicit ProbeWriter(WriterFrontend* frontend) : WriterBackend(frontend) {
    story->add("construct");
  }
  ~ProbeWriter() override {
    if (story->on_destroy)
      story->on_destroy(this);
    std::lock_guard<std::mutex> lock(story->mutex);
    story->destroyed_on = std::this_thread::get_id();
    story->events.push_back("destroy");
  }
  static WriterBackend* make(WriterFrontend* frontend) { return new ProbeWriter(frontend); }

 protected:
  bool DoInit(const WriterInfo& info, int num_fields, const Field* const*) override {
    EXPECT_EQ(&info, &Info());
    story->add("init " + std::string(info.path) + " " + std::to_string(num_fields));
    child_ = std::this_thread::get_id();
    std::lock_guard<std::mutex> lock(story->mutex);
    story->child = child_;
    return story->init_result;
  }
  bool DoWrite(int, const Field* const*, Value** vals) override {
    EXPECT_EQ(std::this_thread::get_id(), child_);
    {
      std::lock_guard<std::mutex> lock(story->mutex);
      story->written.push_back(vals[0]->val.uint_val);
    }
    return story->on_write ? story->on_write(this, vals) : true;
  }
  bool DoSetBuf(bool enabled) override {
    story->add(enabled ? "setbuf on" : "setbuf off");
    return true;
  }
  bool DoFlush(double) override {
    story->add("flush");
    return story->flush_result;
  }
  bool DoRotate(const char* path, double open, double close, bool terminating) override {
    story->add(std::string("rotate ") + path);
    if (story->on_rotate)
      return story->on_rotate(this);
    return FinishedRotation("new", path, open, close, terminating);
  }
  bool DoFinish(double) override {
    story->add("finish");
    return story->finish_result;
  }
  bool DoHeartbeat(double, double) override {
    story->add("heartbeat");
    return story->heartbeat_result;
  }

 private:
  std::thread::id child_;
};

const std::vector<Field>& columns() {
  static const std::vector<Field> fields = [] {
    std::vector<Field> list;
    list.reserve(2);
    list.emplace_back("n", nullptr, TYPE_COUNT, TYPE_VOID, false);
    list.emplace_back("s", nullptr, TYPE_STRING, TYPE_VOID, true);
    return list;
  }();
  return fields;
}

class WriterTest : public testing::Test {
 protected:
  WriterTest() {
    story = &story_;
    start(0);
  }
  ~WriterTest() override {
    host_.reset();
    component_.reset();
    story = nullptr;
  }

  void start(double heartbeat_seconds) {
    host_.reset();
    component_.reset();
    standin::Host::Options options;
    options.heartbeat_seconds = heartbeat_seconds;
    host_.reset(new standin::Host(options));
    component_.reset(new logging::Component("Probe", &ProbeWriter::make));
  }

  WriterFrontend* create(const char* path = "conn") {
    return host_->CreateWriter("Probe", path, columns());
  }

  static void write(WriterFrontend* frontend, uint64_t number, TypeTag first = TYPE_COUNT) {
    Value** vals = new Value*[2];
    vals[0] = new Value(first);
    vals[0]->val.uint_val = number;
    vals[1] = new Value(TYPE_STRING);
    const std::string text = "text " + std::to_string(number);
    vals[1]->val.string_val.data = new char[text.size()];
    memcpy(vals[1]->val.string_val.data, text.data(), text.size());
    vals[1]->val.string_val.length = static_cast<int>(text.size());
    frontend->Write(2, vals);
  }

  static void write_many(WriterFrontend* frontend, int count) {
    for (int i = 0; i < count; ++i)
      write(frontend, static_cast<uint64_t>(i));
  }

  // Lets the host work until `condition` holds.
  bool until(const std::function<bool()>& condition) {
    return test::wait_until([&] {
      host_->Pump();
      return condition();
    });
  }

  // Waits until everything that was posted so far has been handled by the writer.
  bool settle(WriterFrontend* frontend) {
    frontend->Flush(1);
    return until([&] { return story_.has("flush"); });
  }

  standin::ReportRecorder recorder_;
  Story story_;
  std::unique_ptr<logging::Component> component_;
  std::unique_ptr<standin::Host> host_;
};

class WriterDeathTest : public WriterTest {
 protected:
  // Threads and fork do not mix: the death happens in a process of its own.
  WriterDeathTest() { testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

}  // namespace

TEST_F(WriterTest, NameIsPathAndEnumerator) {
  WriterFrontend* frontend = create("conn");
  EXPECT_STREQ(frontend->Name(), "conn/Log::WRITER_PROBE");
  EXPECT_STREQ(frontend->Info().path, "conn");
  EXPECT_EQ(frontend->NumFields(), 2);
}

TEST_F(WriterTest, UnknownWriterIsRefusedWithWhatThereIs) {
  try {
    host_->CreateWriter("Nope", "conn", columns());
    FAIL();
  } catch (const standin::HostError& e) {
    EXPECT_THAT(e.what(), testing::HasSubstr("there is no writer Nope"));
  }
}

TEST_F(WriterTest, WholeLifeInOrderAndDestructionOnTheMainThread) {
  WriterFrontend* frontend = create();
  write(frontend, 1);
  host_->Finish();
  EXPECT_THAT(story_.all(), ElementsAre("construct", "init conn 2", "finish", "destroy"));
  EXPECT_THAT(story_.numbers(), ElementsAre(1u));
  EXPECT_EQ(story_.destroyed_on, std::this_thread::get_id());
  EXPECT_NE(story_.child, std::this_thread::get_id());
}

TEST_F(WriterTest, ThousandRecordsMakeABatchWithoutBeingAsked) {
  WriterFrontend* frontend = create();
  write_many(frontend, 999);
  // The init message goes first, so an empty queue after it means that nothing else was posted.
  ASSERT_TRUE(until([&] { return host_->PendingInput() == 0 && story_.has("init conn 2"); }));
  EXPECT_TRUE(story_.numbers().empty());
  write(frontend, 999);
  ASSERT_TRUE(until([&] { return story_.numbers().size() == 1000; }));
}

TEST_F(WriterTest, ThousandAndFirstRecordWaitsForTheNextBatch) {
  WriterFrontend* frontend = create();
  write_many(frontend, 1001);
  ASSERT_TRUE(until([&] { return story_.numbers().size() == 1000; }));
  EXPECT_EQ(host_->PendingInput(), 0u);
  frontend->FlushWriteBuffer();
  ASSERT_TRUE(until([&] { return story_.numbers().size() == 1001; }));
  EXPECT_EQ(story_.numbers().back(), 1000u);
}

TEST_F(WriterTest, RecordsArriveInTheOrderWritten) {
  WriterFrontend* frontend = create();
  write_many(frontend, 3500);
  host_->Finish();
  const auto numbers = story_.numbers();
  ASSERT_EQ(numbers.size(), 3500u);
  for (size_t i = 0; i < numbers.size(); ++i)
    ASSERT_EQ(numbers[i], i);
}

TEST_F(WriterTest, WithoutBufferingEveryRecordGoesAtOnce) {
  WriterFrontend* frontend = create();
  frontend->SetBuf(false);
  write(frontend, 1);
  ASSERT_TRUE(until([&] { return story_.numbers().size() == 1; }));
  EXPECT_TRUE(story_.has("setbuf off"));
  frontend->SetBuf(false);
  ASSERT_TRUE(settle(frontend));
  const auto events = story_.all();
  EXPECT_EQ(std::count(events.begin(), events.end(), "setbuf off"), 1) << "only changes count";
}

TEST_F(WriterTest, RecordsGoAtOnceWhileTheHostIsEnding) {
  WriterFrontend* frontend = create();
  terminating = true;
  write(frontend, 1);
  EXPECT_TRUE(until([&] { return story_.numbers().size() == 1; }));
}

TEST_F(WriterTest, TypeMismatchFreesTheBatchAndDisablesTheFrontend) {
  WriterFrontend* frontend = create();
  write(frontend, 1);
  write(frontend, 2, TYPE_INT);
  write(frontend, 3);
  frontend->FlushWriteBuffer();
  ASSERT_TRUE(until([&] { return frontend->Disabled() && story_.has("destroy"); }));
  EXPECT_TRUE(story_.numbers().empty()) << "no DoWrite before all values were checked";
  EXPECT_FALSE(story_.has("finish"));
  EXPECT_THAT(recorder_.Texts(ReportKind::kError),
              ElementsAre("conn/Log::WRITER_PROBE: terminating thread"));
  write(frontend, 4);  // silently discarded
  host_->Finish();
  EXPECT_TRUE(story_.numbers().empty());
}

TEST_F(WriterTest, FalseFromDoWriteDropsTheRestAndEndsTheWriter) {
  story_.on_write = [](WriterBackend*, Value** vals) { return vals[0]->val.uint_val != 1; };
  WriterFrontend* frontend = create();
  write_many(frontend, 4);
  frontend->FlushWriteBuffer();
  write_many(frontend, 2);
  frontend->FlushWriteBuffer();
  ASSERT_TRUE(until([&] { return frontend->Disabled() && story_.has("destroy"); }));
  EXPECT_THAT(story_.numbers(), ElementsAre(0u, 1u));
  EXPECT_THAT(recorder_.Texts(ReportKind::kError),
              ElementsAre("conn/Log::WRITER_PROBE: terminating thread"));
  host_->Finish();
  EXPECT_FALSE(story_.has("finish"));
}

TEST_F(WriterTest, FalseFromDoInitEndsTheWriterBeforeAnyRecord) {
  story_.init_result = false;
  WriterFrontend* frontend = create();
  write(frontend, 1);
  frontend->FlushWriteBuffer();
  ASSERT_TRUE(until([&] { return frontend->Disabled() && story_.has("destroy"); }));
  EXPECT_TRUE(story_.numbers().empty());
}

TEST_F(WriterTest, FalseFromDoFlushEndsTheWriter) {
  story_.flush_result = false;
  WriterFrontend* frontend = create();
  frontend->Flush(1);
  EXPECT_TRUE(until([&] { return frontend->Disabled() && story_.has("destroy"); }));
}

TEST_F(WriterTest, FalseFromDoHeartbeatEndsTheWriterButLeavesTheFrontendEnabled) {
  start(0.001);
  story_.events.clear();
  story_.heartbeat_result = false;
  WriterFrontend* frontend = create();
  ASSERT_TRUE(until([&] { return story_.has("destroy"); }));
  EXPECT_FALSE(frontend->Disabled());
  write(frontend, 1);  // nobody is there any more
  frontend->FlushWriteBuffer();
  host_->Finish();
  EXPECT_TRUE(story_.numbers().empty());
}

TEST_F(WriterTest, FailedWriterDuringFinishDoesNotKeepTheHostWaiting) {
  story_.on_write = [](WriterBackend*, Value**) { return false; };
  WriterFrontend* frontend = create();
  write(frontend, 1);
  host_->Finish();
  EXPECT_TRUE(story_.has("destroy"));
  EXPECT_FALSE(story_.has("finish"));
}

TEST_F(WriterTest, HeartbeatAsksForTheBufferAndItsRecordsComeAfterIt) {
  start(0.001);
  story_.events.clear();
  std::vector<std::string> seen;
  story_.on_write = [&](WriterBackend*, Value**) {
    seen = story_.all();
    return true;
  };
  WriterFrontend* frontend = create();
  write(frontend, 1);
  ASSERT_TRUE(until([&] { return story_.numbers().size() == 1; }));
  host_->Finish();
  EXPECT_THAT(seen, testing::Contains("heartbeat"));
}

TEST_F(WriterTest, NoHeartbeatWithoutInterval) {
  WriterFrontend* frontend = create();
  ASSERT_TRUE(settle(frontend));
  for (int i = 0; i < 20; ++i)
    host_->Pump();
  host_->Finish();
  EXPECT_FALSE(story_.has("heartbeat"));
}

TEST_F(WriterTest, NoHeartbeatComesAfterTheFinish) {
  start(0.001);
  story_.events.clear();
  WriterFrontend* frontend = create();
  ASSERT_TRUE(until([&] { return story_.has("heartbeat"); }));
  frontend->Stop();
  thread_mgr->SendHeartbeats();
  host_->Finish();
  const auto events = story_.all();
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(events[events.size() - 2], "finish");
  EXPECT_EQ(events.back(), "destroy");
}

TEST_F(WriterTest, StoppedWriterIsJoinedAndDeletedWhileTheHostGoesOn) {
  WriterFrontend* frontend = create();
  write(frontend, 7);
  frontend->Stop();
  ASSERT_TRUE(until([&] { return story_.has("destroy"); }));
  EXPECT_THAT(story_.numbers(), ElementsAre(7u));
  EXPECT_TRUE(story_.has("finish"));
  write(frontend, 8);
  EXPECT_EQ(thread_mgr->NumThreads(), 0);
}

TEST_F(WriterTest, KeptPointersReadPoison) {
  std::vector<Value*> kept;
  bool poisoned = false;
  story_.on_write = [&](WriterBackend*, Value** vals) {
    if (!kept.empty()) {
      // The first record's Value objects still exist: the batch is not through.
      unsigned char expected[sizeof(Value::_val)];
      memset(expected, standin::kPoisonByte, sizeof(expected));
      poisoned = memcmp(&kept[1]->val, expected, sizeof(expected)) == 0 && !kept[1]->present &&
                 kept[0]->type == TYPE_ERROR;
    }
    kept = {vals[0], vals[1]};
    return true;
  };
  WriterFrontend* frontend = create();
  write_many(frontend, 2);
  host_->Finish();
  EXPECT_TRUE(poisoned);
}

TEST_F(WriterTest, MessagesOfAWriterCarryItsName) {
  story_.on_write = [](WriterBackend* writer, Value**) {
    writer->threading::MsgThread::Info("one");
    writer->Warning("two");
    writer->Error(writer->Fmt("three %d", 3));
    writer->InternalWarning("four");
    return true;
  };
  WriterFrontend* frontend = create();
  write(frontend, 1);
  frontend->FlushWriteBuffer();
  ASSERT_TRUE(until([&] { return recorder_.Reports().size() == 4; }));
  EXPECT_EQ(recorder_.Texts(ReportKind::kInfo)[0], "conn/Log::WRITER_PROBE: one");
  EXPECT_EQ(recorder_.Texts(ReportKind::kWarning)[0], "conn/Log::WRITER_PROBE: two");
  EXPECT_EQ(recorder_.Texts(ReportKind::kError)[0], "conn/Log::WRITER_PROBE: three 3");
  EXPECT_EQ(recorder_.Texts(ReportKind::kInternalWarning)[0], "conn/Log::WRITER_PROBE: four");
  for (const standin::Report& report : recorder_.Reports())
    EXPECT_EQ(report.thread, std::this_thread::get_id());
}

TEST_F(WriterTest, MessagesPostedByTheDestructorAreDropped) {
  story_.on_destroy = [](WriterBackend* writer) { writer->Warning("too late"); };
  create();
  host_->Finish();
  EXPECT_TRUE(story_.has("destroy"));
  EXPECT_TRUE(recorder_.Texts(ReportKind::kWarning).empty());
}

namespace {

class OwnMessage : public threading::OutputMessage<WriterBackend> {
 public:
  OwnMessage(WriterBackend* writer, std::thread::id* ran_on, bool result)
      : threading::OutputMessage<WriterBackend>("Own", writer), ran_on_(ran_on), result_(result) {}
  bool Process() override {
    *ran_on_ = std::this_thread::get_id();
    return result_;
  }

 private:
  std::thread::id* ran_on_;
  bool result_;
};

}  // namespace

TEST_F(WriterTest, MessageOfAPluginIsProcessedOnTheMainThread) {
  std::thread::id ran_on;
  story_.on_write = [&](WriterBackend* writer, Value**) {
    writer->SendOut(new OwnMessage(writer, &ran_on, true));
    return true;
  };
  WriterFrontend* frontend = create();
  write(frontend, 1);
  frontend->FlushWriteBuffer();
  EXPECT_TRUE(until([&] { return ran_on == std::this_thread::get_id(); }));
}

TEST_F(WriterTest, FailedMessageStopsTheWriterThatSentIt) {
  std::thread::id ran_on;
  story_.on_write = [&](WriterBackend* writer, Value**) {
    writer->SendOut(new OwnMessage(writer, &ran_on, false));
    return true;
  };
  WriterFrontend* frontend = create();
  write(frontend, 1);
  frontend->FlushWriteBuffer();
  ASSERT_TRUE(until([&] { return story_.has("destroy"); }));
  EXPECT_TRUE(story_.has("finish"));
  EXPECT_THAT(recorder_.Texts(ReportKind::kError), ElementsAre("Own failed, terminating thread"));
}

TEST_F(WriterTest, RotationIsNoted) {
  WriterFrontend* frontend = create();
  frontend->Rotate("conn-1", 1, 2, false);
  ASSERT_TRUE(until([&] { return log_mgr->Rotations().size() == 1; }));
  EXPECT_EQ(log_mgr->Rotations()[0].new_name, "new");
  EXPECT_EQ(log_mgr->Rotations()[0].old_name, "conn-1");
}

TEST_F(WriterTest, FailedRotationIsNotChecked) {
  story_.on_rotate = [](WriterBackend*) { return false; };
  WriterFrontend* frontend = create();
  frontend->Rotate("conn-1", 1, 2, false);
  EXPECT_TRUE(until([&] { return frontend->Disabled() && story_.has("destroy"); }));
}

TEST_F(WriterTest, NothingRotatedIsAnAnswer) {
  story_.on_rotate = [](WriterBackend* writer) { return writer->FinishedRotation(); };
  WriterFrontend* frontend = create();
  frontend->Rotate("conn-1", 1, 2, false);
  ASSERT_TRUE(settle(frontend));
  EXPECT_FALSE(frontend->Disabled());
  EXPECT_TRUE(log_mgr->Rotations().empty());
}

TEST_F(WriterTest, ManyWritersAtOnceLoseNothing) {
  std::vector<WriterFrontend*> frontends;
  for (int i = 0; i < 3; ++i)
    frontends.push_back(create(("log" + std::to_string(i)).c_str()));
  for (uint64_t n = 0; n < 1500; ++n) {
    for (WriterFrontend* frontend : frontends)
      write(frontend, n);
  }
  host_->Finish();
  EXPECT_EQ(story_.numbers().size(), 4500u);
  const auto events = story_.all();
  EXPECT_EQ(std::count(events.begin(), events.end(), "finish"), 3);
  EXPECT_EQ(std::count(events.begin(), events.end(), "destroy"), 3);
}

TEST_F(WriterTest, FinishTwiceDoesNothingMore) {
  create();
  host_->Finish();
  host_->Finish();
  EXPECT_THROW(create(), standin::HostError);
  EXPECT_FALSE(host_->Pump());
}

TEST_F(WriterTest, SecondHostIsRefused) {
  const standin::Host::Options options;
  EXPECT_THROW(standin::Host{options}, standin::HostError);
}

TEST_F(WriterTest, WriterNeverStartedMayBeUsedOnTheMainThread) {
  logging::WriterBackend::WriterInfo info;
  info.path = copy_string("direct");
  EnumVal* id = new EnumVal(1, log_mgr->GetTagType());
  {
    WriterFrontend frontend(info, id, id, false, false);
    Unref(id);
    std::unique_ptr<WriterBackend> writer(ProbeWriter::make(&frontend));
    EXPECT_STREQ(writer->Info().path, "direct");
    EXPECT_EQ(writer->Fields(), nullptr);
    EXPECT_TRUE(writer->Flush(0));
    EXPECT_TRUE(writer->OnFinish(0));
    EXPECT_THAT(story_.all(), ElementsAre("construct", "flush", "finish"));
  }
}

TEST_F(WriterDeathTest, RotationWithoutAnswerAborts) {
  EXPECT_DEATH(
      {
        story_.on_rotate = [](WriterBackend*) { return true; };
        create()->Rotate("conn-1", 1, 2, false);
        host_->Finish();
      },
      "internal error in thread: writer conn/Log::WRITER_PROBE did not call "
      "FinishedRotation\\(\\) in DoRotation\\(\\)");
}

TEST_F(WriterDeathTest, RotationWithTwoAnswersAborts) {
  EXPECT_DEATH(
      {
        story_.on_rotate = [](WriterBackend* writer) {
          return writer->FinishedRotation() && writer->FinishedRotation();
        };
        create()->Rotate("conn-1", 1, 2, false);
        host_->Finish();
      },
      "called FinishedRotation\\(\\) more than once");
}

TEST_F(WriterDeathTest, ReportsBySomebodyElsesThreadAbort) {
  EXPECT_DEATH(
      {
        story_.on_write = [](WriterBackend* writer, Value**) {
          std::thread([writer] { writer->Warning("not mine"); }).join();
          return true;
        };
        write(create(), 1);
        host_->Finish();
      },
      "wrong thread: SendOut of conn/Log::WRITER_PROBE belongs to its own thread");
}

TEST_F(WriterDeathTest, WritingFromAnotherThreadAborts) {
  EXPECT_DEATH(
      {
        WriterFrontend* frontend = create();
        std::thread([frontend] { write(frontend, 1); }).join();
      },
      "wrong thread: WriterFrontend::Write belongs to the host's main thread");
}

TEST_F(WriterDeathTest, CallingTheBackendDirectlyAborts) {
  EXPECT_DEATH(
      {
        WriterBackend* backend = nullptr;
        story_.on_write = [&](WriterBackend* writer, Value**) {
          backend = writer;
          return true;
        };
        WriterFrontend* frontend = create();
        write(frontend, 1);
        settle(frontend);
        backend->Flush(1);
      },
      "wrong thread: Flush of conn/Log::WRITER_PROBE belongs to its own thread");
}

TEST_F(WriterDeathTest, NamesOfTheHostsOwnWritersAreTaken) {
  EXPECT_EXIT(logging::Component("ascii", &ProbeWriter::make), testing::ExitedWithCode(1),
              "Component 'Log::ASCII' defined more than once");
}

TEST_F(WriterDeathTest, NameThatOccursTwiceIsFatal) {
  EXPECT_EXIT(logging::Component("probe", &ProbeWriter::make), testing::ExitedWithCode(1),
              "Component 'Log::PROBE' defined more than once");
}
