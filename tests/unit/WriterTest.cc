// The writer backend by itself: identifier, shared worker, housekeeping. The worker is a fake.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

// Alone in front: it must bring libzmq's header along, or a file system without upper and lower
// case loses that.
#include "ZMQ.h"
#ifndef ZMQ_VERSION_MAJOR
#error "ZMQ.h hides libzmq's zmq.h"
#endif

#include "WriterStatus.h"

#include "Conversion.h"
#include "FakeWorker.h"
#include "ScriptConstants.h"
#include "TempDir.h"
#include "WriterUnderTest.h"

using test::FakeWorker;
using test::read_file;
using test::RecordBuilder;
using test::text_of;
using test::write_file;
using test::WriterUnderTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

namespace {

const char* const kAgentIdFile = "orvik/agent.id";
const char* const kNotSet = "Agent id is not set!";
const char* const kBase62 = "[0-9a-zA-Z]+";

class Writer : public test::ReportingTest {
 protected:
  Writer() { FakeWorker::reset(); }
  ~Writer() override {
    EXPECT_THAT(FakeWorker::misuses(), IsEmpty());
    EXPECT_EQ(FakeWorker::starts(), FakeWorker::stops());
    EXPECT_EQ(FakeWorker::starts(), FakeWorker::deletions());
  }

  void use_agent_id(const std::string& value) {
    constants_.set(BifConst::LogZMQ::zmq_agent_id, value);
  }
  /// The agent-id file with that content, and no identifier in the scripts.
  void use_file(const std::string& content) {
    use_agent_id("");
    std::filesystem::create_directory("orvik");
    write_file(kAgentIdFile, content);
  }

  test::TempDir dir_;
  test::ScriptConstants constants_;
};

/// What every event of this writer carries as its agent.
std::string agent_of_events(WriterUnderTest& writer) {
  writer.init();
  EXPECT_TRUE(writer.write());
  const std::string message = FakeWorker::messages().back();
  return text_of(Dravenholt::GetNetworkEvent(message.data())->agent_id());
}

DravenholtZmqWriterStatus status() {
  DravenholtZmqWriterStatus result;
  memset(&result, 0x5a, sizeof result);
  dravenholt_zmqwriter_status(&result);
  return result;
}

}  // namespace

// -- Construction ---------------------------------------------------------------------------------

TEST_F(Writer, StartsWithoutFieldsAndWithTheScriptsMarkers) {
  constants_.set(BifConst::LogZMQ::set_separator, "|");
  constants_.set(BifConst::LogZMQ::unset_field, "UNSET");
  constants_.set(BifConst::LogZMQ::empty_field, "EMPTY");
  WriterUnderTest writer;
  EXPECT_EQ(nullptr, writer->fields);
  EXPECT_EQ(0, writer->num_fields);
  EXPECT_EQ("|", writer->set_separator);
  EXPECT_EQ("UNSET", writer->unset_field);
  EXPECT_EQ("EMPTY", writer->empty_field);
  const auto& separators = writer->formatter->separators;
  EXPECT_EQ("", separators.separator);
  EXPECT_EQ("|", separators.set_separator);
  EXPECT_EQ("UNSET", separators.unset_field);
  EXPECT_EQ("EMPTY", separators.empty_field);
}

TEST_F(Writer, AConstantThatIsNoStringEndsTheHost) {
  StringVal* const text = BifConst::LogZMQ::zmq_agent_id;
  Val* const number = new Val(5, TYPE_COUNT);
  EXPECT_EXIT(
      {
        BifConst::LogZMQ::zmq_agent_id = reinterpret_cast<StringVal*>(number);
        WriterUnderTest writer;
      },
      ::testing::ExitedWithCode(1), "");
  EXPECT_EQ(text, BifConst::LogZMQ::zmq_agent_id);
  Unref(number);
}

// -- Agent identifier -----------------------------------------------------------------------------

TEST_F(Writer, IdentifierOfTheScriptsIsTakenAndTheFileLeftAlone) {
  WriterUnderTest().destroy();
  EXPECT_FALSE(std::filesystem::exists("orvik"));
  use_file("file-id");
  for (const std::string& agent_id : {std::string("agent-7"), std::string("a\0b\n", 4)}) {
    use_agent_id(agent_id);
    WriterUnderTest writer;
    EXPECT_EQ(agent_id, agent_of_events(writer));
    EXPECT_EQ("file-id", read_file(kAgentIdFile));
    EXPECT_THAT(weirds(), IsEmpty());
  }
}

TEST_F(Writer, DashLeavesTheAgentUnnamedAndTheFileAlone) {
  use_file("file-id");
  use_agent_id("-");
  WriterUnderTest writer;
  EXPECT_EQ("-", agent_of_events(writer));
  EXPECT_EQ("file-id", read_file(kAgentIdFile));
  EXPECT_THAT(weirds(), ElementsAre(kNotSet));
}

TEST_F(Writer, WithoutAFileAnIdentifierIsGenerated) {
  use_agent_id("");
  WriterUnderTest writer;
  EXPECT_THAT(agent_of_events(writer), MatchesRegex(kBase62));
  EXPECT_EQ(writer->agent_id, read_file(kAgentIdFile));
}

// -- The shared worker ----------------------------------------------------------------------------

TEST_F(Writer, InitialisationStoresTheFields) {
  WriterUnderTest writer;
  RecordBuilder record;
  record.text("a", "").text("b", "");
  const test::Frontend frontend;
  EXPECT_TRUE(writer->DoInit(frontend.get()->Info(), 2, record.fields()));
  EXPECT_EQ(record.fields(), writer->fields);
  EXPECT_EQ(2, writer->num_fields);
}

TEST_F(Writer, FirstOfThreeWritersCreatesTheWorkerWithTheConnectionConstants) {
  WriterUnderTest first, second, third;
  EXPECT_THAT(FakeWorker::inits(), IsEmpty());
  EXPECT_TRUE(second.init());
  constants_.set(BifConst::LogZMQ::zmq_primary_server, "not read again");
  EXPECT_TRUE(first.init());
  EXPECT_TRUE(third.init());
  ASSERT_THAT(FakeWorker::inits(), SizeIs(1));
  EXPECT_EQ("primary", FakeWorker::inits()[0].server);
  EXPECT_EQ("key", FakeWorker::inits()[0].public_key);
  EXPECT_EQ("secondary", FakeWorker::inits()[0].secondary_servers);
  EXPECT_EQ(1, FakeWorker::starts());
}

TEST_F(Writer, DestroyingOneOfThreeWritersEndsTheWorkerForAll) {
  WriterUnderTest first, second, third;
  for (WriterUnderTest* writer : {&first, &second, &third})
    writer->init();
  EXPECT_TRUE(second.write());
  third.destroy();
  EXPECT_EQ(1, FakeWorker::stops());
  EXPECT_FALSE(first.write());
  EXPECT_FALSE(second.write());
  EXPECT_EQ(1u, FakeWorker::message_count());
}

TEST_F(Writer, LaterInitialisationCreatesANewWorkerForAll) {
  WriterUnderTest first, second, third;
  first.init();
  second.init();
  first.destroy();
  EXPECT_TRUE(third.init());
  EXPECT_EQ(2, FakeWorker::starts());
  EXPECT_TRUE(second.write());
}

TEST_F(Writer, WithoutAWorkerEveryRecordIsRefusedButStillConverted) {
  WriterUnderTest writer;
  RecordBuilder record;
  record.unset("uid", TYPE_STRING);
  EXPECT_FALSE(writer.write(record));
  EXPECT_FALSE(writer.write(record));
  EXPECT_EQ(0u, FakeWorker::message_count());
  EXPECT_THAT(weirds(), ElementsAre("Empty uid!", "Empty uid!"));
}

TEST_F(Writer, EachRecordIsOneMessageOfTheConversion) {
  WriterUnderTest writer;
  writer.init();
  RecordBuilder record;
  record.text("ptype", "ftp").text("ftp.user", "alice").text("uid", "CAbc").time("ts", 5.0);
  EXPECT_TRUE(writer.write(record));
  EXPECT_TRUE(writer->DoWrite(0, nullptr, nullptr));
  RecordBuilder none;
  const test::Bytes full = test::convert(record);
  const test::Bytes bare = test::convert(none);
  EXPECT_THAT(FakeWorker::messages(), ElementsAre(std::string(full.begin(), full.end()),
                                                  std::string(bare.begin(), bare.end())));
}

TEST_F(Writer, DestructionDeliversTheReportsThatStillWait) {
  WriterUnderTest living, destroyed;
  std::thread([] { reports::warning("from a thread of its own"); }).join();
  EXPECT_THAT(warnings(), IsEmpty());
  destroyed.destroy();
  EXPECT_THAT(warnings(), ElementsAre("from a thread of its own"));
}

// -- Status ---------------------------------------------------------------------------------------

TEST_F(Writer, StatusTellsTheTotalsOfAllWorkersAlsoWhenTheyAreGone) {
  const DravenholtZmqWriterStatus before = status();
  EXPECT_EQ(0, before.worker);
  EXPECT_EQ(0, before.running);
  EXPECT_EQ(0u, before.queued);
  EXPECT_STREQ("orvik", before.install_prefix);
  EXPECT_STREQ("orvik-spool/work", before.spool_folder);
  RecordBuilder cut;
  cut.text("uid", std::string(65536, 'C'));
  for (std::uint64_t workers = 1; workers <= 3; workers++) {
    WriterUnderTest writer;
    writer.init();
    EXPECT_EQ(1, status().worker);
    EXPECT_EQ(1, status().running);
    writer.write();
    writer.write(cut);
    for (const bool gone : {false, true}) {
      if (gone)
        writer.destroy();
      EXPECT_EQ(gone ? 0 : 1, status().worker);
      EXPECT_EQ(before.sent + 2 * workers, status().sent);
      EXPECT_EQ(before.cut + workers, status().cut);
      EXPECT_EQ(before.failed, status().failed);
    }
  }
}

TEST_F(Writer, StatusCanBeAskedForWhileTheWorkerStops) {
  std::vector<DravenholtZmqWriterStatus> seen;
  FakeWorker::listen([&seen](const std::string& call) {
    if (call == "Stop")
      seen.push_back(status());
  });
  WriterUnderTest writer;
  writer.init();
  writer.write();
  const std::uint64_t sent = status().sent;
  writer.destroy();
  ASSERT_THAT(seen, SizeIs(1));
  EXPECT_EQ(1, seen[0].worker);
  EXPECT_EQ(0, seen[0].running);
  EXPECT_EQ(sent, seen[0].sent);
}

// -- Housekeeping ---------------------------------------------------------------------------------

TEST_F(Writer, HousekeepingDoesNothingAndSucceeds) {
  WriterUnderTest writer;
  writer.init();
  EXPECT_TRUE(writer->DoSetBuf(true));
  EXPECT_TRUE(writer->DoSetBuf(false));
  EXPECT_TRUE(writer->DoFlush(1.0));
  EXPECT_TRUE(writer->DoFinish(1.0));
  EXPECT_TRUE(writer->DoHeartbeat(1.0, 2.0));
  EXPECT_EQ(0u, FakeWorker::message_count());
  EXPECT_TRUE(writer.write());
}

TEST_F(Writer, RotationLeavesEveryFileAlone) {
  write_file("test.log", "content");
  WriterUnderTest writer;
  EXPECT_TRUE(writer->DoRotate("test-13-01-01", 1.0, 2.0, false));
  EXPECT_TRUE(writer->DoRotate("test-13-01-01", 1.0, 2.0, true));
  EXPECT_TRUE(writer->DoRotate(nullptr, 0.0, 0.0, false));
  EXPECT_EQ("content", read_file("test.log"));
  EXPECT_FALSE(std::filesystem::exists("test-13-01-01"));
}

TEST_F(Writer, FormattingGivesANewText) {
  char* text = logging::writer::ZMQ::FS("%s has %d of %5.2f%%", "alice", 3, 1.5);
  EXPECT_STREQ("alice has 3 of  1.50%", text);
  free(text);
  const std::string large(100000, 'x');
  text = logging::writer::ZMQ::FS("<%s>", large.c_str());
  EXPECT_EQ("<" + large + ">", text);
  free(text);
}
