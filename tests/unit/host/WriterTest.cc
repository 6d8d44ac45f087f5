// Writers of the stand-in host: what crosses the threads, in which order, and who owns it. How they
// end while others still write, WriterThreadsTest shows.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "TempDir.h"
#include "logging/Manager.h"
#include "logging/WriterFrontend.h"
#include "standin/Host.h"
#include "standin/ReportRecorder.h"

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
  bool init_result = true;
  bool heartbeat_result = true;

  void reset() {
    events.clear();
    written.clear();
    on_write = nullptr;
    init_result = heartbeat_result = true;
  }
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
    story->destroyed_on = std::this_thread::get_id();
    story->add("destroy");
  }
  static WriterBackend* make(WriterFrontend* frontend) { return new ProbeWriter(frontend); }

 protected:
  bool DoInit(const WriterInfo& info, int num_fields, const Field* const*) override {
    story->child = std::this_thread::get_id();
    story->add("init " + std::string(info.path) + " " + std::to_string(num_fields));
    return story->init_result;
  }
  bool DoWrite(int, const Field* const*, Value** vals) override {
    {
      std::lock_guard<std::mutex> lock(story->mutex);
      story->written.push_back(vals[0]->val.uint_val);
    }
    return story->on_write ? story->on_write(this, vals) : true;
  }
  bool DoSetBuf(bool) override { return true; }
  bool DoFlush(double) override { return true; }
  bool DoRotate(const char*, double, double, bool) override { return true; }
  bool DoFinish(double) override {
    story->add("finish");
    return true;
  }
  bool DoHeartbeat(double, double) override {
    story->add("heartbeat");
    return story->heartbeat_result;
  }
};

const std::vector<Field>& columns() {
  static const std::vector<Field> fields = {Field("n", nullptr, TYPE_COUNT, TYPE_VOID, false),
                                            Field("s", nullptr, TYPE_STRING, TYPE_VOID, true)};
  return fields;
}

class WriterTest : public testing::Test {
 protected:
  WriterTest() {
    story = &story_;
    start(0);
  }
  ~WriterTest() override { host_.reset(); }

  void start(double heartbeat_seconds) {
    component_.reset();
    host_.reset();
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
    vals[1]->val.string_val.data = new char[4];
    memcpy(vals[1]->val.string_val.data, "text", 4);
    vals[1]->val.string_val.length = 4;
    frontend->Write(2, vals);
  }

  static void write_many(WriterFrontend* frontend, uint64_t count) {
    for (uint64_t i = 0; i < count; ++i)
      write(frontend, i);
  }

  // Lets the host work until `condition` holds.
  bool until(const std::function<bool()>& condition) {
    return test::wait_until([&] {
      host_->Pump();
      return condition();
    });
  }

  bool until_destroyed() {
    return until([&] { return story_.has("destroy"); });
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

class OwnMessage : public threading::OutputMessage<WriterBackend> {
 public:
  explicit OwnMessage(WriterBackend* writer)
      : threading::OutputMessage<WriterBackend>("Own", writer) {}
  bool Process() override { return true; }
};

}  // namespace

TEST_F(WriterTest, WholeLifeInOrderAndDestructionOnTheMainThread) {
  WriterFrontend* frontend = create();
  EXPECT_STREQ(frontend->Name(), "conn/Log::WRITER_PROBE");
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

TEST_F(WriterTest, FailureOfACallbackEndsTheWriterAndDropsTheRest) {
  const struct {
    const char* what;
    void (*fail)(Story*);
    TypeTag last;  // of the last of three records
    std::vector<uint64_t> written;
  } cases[] = {
      {"DoInit", [](Story* s) { s->init_result = false; }, TYPE_COUNT, {}},
      {"DoHeartbeat", [](Story* s) { s->heartbeat_result = false; }, TYPE_COUNT, {}},
      {"DoWrite",
       [](Story* s) {
         s->on_write = [](WriterBackend*, Value** vals) { return vals[0]->val.uint_val != 1; };
       },
       TYPE_COUNT,
       {0, 1}},
      {"a record of another type", [](Story*) {}, TYPE_INT, {}},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    const bool heartbeat = std::string(one.what) == "DoHeartbeat";
    start(heartbeat ? 0.001 : 0);
    story_.reset();
    recorder_.Clear();
    one.fail(&story_);
    WriterFrontend* frontend = create();
    ASSERT_TRUE(!heartbeat || until_destroyed());
    write_many(frontend, 2);
    write(frontend, 2, one.last);
    frontend->FlushWriteBuffer();
    ASSERT_TRUE(until_destroyed());
    EXPECT_TRUE(frontend->Disabled());
    write(frontend, 3);  // silently discarded
    host_->Finish();
    EXPECT_EQ(story_.numbers(), one.written);
    EXPECT_FALSE(story_.has("finish"));
    EXPECT_THAT(recorder_.Texts(ReportKind::kError),
                ElementsAre("conn/Log::WRITER_PROBE: terminating thread"));
  }
}

TEST_F(WriterTest, KeptPointersReadPoison) {
  std::vector<Value*> kept;
  bool poisoned = false;
  story_.on_write = [&](WriterBackend*, Value** vals) {
    // The first record's Value objects still exist: the batch is not through.
    if (!kept.empty())
      poisoned = kept[0]->type == TYPE_ERROR && !kept[1]->present &&
                 kept[1]->val.uint_val == 0xdbdbdbdbdbdbdbdb;
    kept = {vals[0], vals[1]};
    return true;
  };
  write_many(create(), 2);
  host_->Finish();
  EXPECT_TRUE(poisoned);
}

TEST_F(WriterTest, HostIsOnlyOneAndFinishesOnce) {
  EXPECT_THROW(standin::Host{standin::Host::Options()}, standin::HostError);
  EXPECT_THROW(host_->CreateWriter("Nope", "conn", columns()), standin::HostError);
  host_->Finish();
  host_->Finish();
  EXPECT_THROW(create(), standin::HostError);
  EXPECT_FALSE(host_->Pump());
}

TEST_F(WriterDeathTest, RotationEndsTheProcess) {
  EXPECT_DEATH(
      {
        create()->Rotate("conn-1", 1, 2, false);
        host_->Finish();
      },
      "internal error in thread: writer conn/Log::WRITER_PROBE did not call FinishedRotation");
}

TEST_F(WriterDeathTest, CallsFromAnotherThreadAbort) {
  EXPECT_DEATH(
      {
        WriterFrontend* frontend = create();
        std::thread([frontend] { write(frontend, 1); }).join();
      },
      "wrong thread: WriterFrontend::Write belongs to the host's main thread");
  EXPECT_DEATH(
      {
        story_.on_write = [](WriterBackend* writer, Value**) {
          std::thread([&] { writer->SendOut(new OwnMessage(writer)); }).join();
          return true;
        };
        write(create(), 1);
        host_->Finish();
      },
      "wrong thread: SendOut of conn/Log::WRITER_PROBE belongs to its own thread");
}
