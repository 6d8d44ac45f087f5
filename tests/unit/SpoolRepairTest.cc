#include "SpoolRepair.h"

#include <fstream>
#include <random>
#include <stdexcept>

#include "aggregator_generated.h"

#include "EventJson.h"
#include "SpoolFixture.h"
#include "SpoolSurvey.h"

namespace {

using namespace zmqwriter;
using test::header;
using test::record;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

/// An event as the plug-in builds it: the agent first, with a uid of that length.
std::string event(std::size_t uid_length) {
  flatbuffers::FlatBufferBuilder builder(1024);
  const auto agent = builder.CreateString("agent-7");
  const auto uid = builder.CreateString(std::string(uid_length, 'u'));
  const auto data = Dravenholt::CreateFtpData(builder, builder.CreateString("alice")).Union();
  builder.Finish(
      Dravenholt::CreateNetworkEvent(builder, uid, 1.5, 0, agent, Dravenholt::Data_FtpData, data));
  return std::string(reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize());
}

class SpoolRepairTest : public testing::Test, protected test::SpoolFixture {
 protected:
  static RepairPlan plan() { return plan_repair(folder(), find_chunks(folder()), is_event); }
  static void repair() {
    repair([](const HeaderRepair& one) { repair_header(one, ""); });
  }
  static void repair(const std::function<void(const HeaderRepair&)>& set_header) {
    const RepairPlan todo = plan();
    for (const auto& one : todo.headers)
      set_header(one);
    for (const auto& one : todo.renamings)
      rename_chunk(one);
  }
};

TEST_F(SpoolRepairTest, OlderFilesAreRepairedToo) {
  put("queue.dat", header(20, 1) + record(0, "new!"));
  put("queue.dat.1", header(0, 0) + record(0, "mid1") + record(4, "mid2"));
  put("queue.dat.2", header(0xffffff, 0xffffff) + record(0, "old1") + record(4, "old2"));
  repair();
  EXPECT_EQ(content(), header(20, 1) + record(0, "new!"));
  EXPECT_THAT(take_all(), ElementsAre("new!", "mid2", "mid1", "old2", "old1"));
}

TEST_F(SpoolRepairTest, WhatCannotBeExplainedIsLeftAsItIs) {
  put("queue.dat", "ZMQF123");
  put("queue.dat.1", "A letter to somebody, in some other format altogether.");
  put("queue.dat.2", header(40, 3) + record(0, "first") + record(9, "second") + record(6, "third"));
  put("queue.dat.3", header(100, 1) + "\xff\xff");
  const auto before = files();
  EXPECT_THAT(plan().headers, IsEmpty());
  EXPECT_EQ(plan().refused.size(), 4u);
  repair();
  EXPECT_EQ(files(), before);
}

TEST_F(SpoolRepairTest, ForeignSignatureBeforeRecordsIsRestored) {
  put("queue.dat", "XMQF" + header(31, 2).substr(4) + record(0, "first") + record(5, "second"));
  repair();
  start();
  EXPECT_THAT(test::reports_of("warning"), IsEmpty());
  EXPECT_THAT(take_all(), ElementsAre("second", "first"));
}

TEST_F(SpoolRepairTest, FilesBehindAGapMoveDownInTheirOrder) {
  put("queue.dat.1", header(20, 1) + record(0, "new!"));
  put("queue.dat.4", header(20, 1) + record(0, "mid!"));
  put("queue.dat.5", header(20, 1) + record(0, "old!"));
  repair();
  EXPECT_THAT(names(), ElementsAre("queue.dat", "queue.dat.1", "queue.dat.2"));
  EXPECT_THAT(take_all(), ElementsAre("new!", "mid!", "old!"));
}

TEST_F(SpoolRepairTest, ForeignFileBehindAGapStaysThereWithAllBehindIt) {
  put("queue.dat", header(20, 1) + record(0, "new!"));
  put("queue.dat.2", header(20, 1) + record(0, "mid!"));
  put("queue.dat.4", "GIF89a and no spool");
  put("queue.dat.6", header(20, 1) + record(0, "old!"));
  repair();
  EXPECT_THAT(names(), ElementsAre("queue.dat", "queue.dat.1", "queue.dat.4", "queue.dat.6"));
}

TEST_F(SpoolRepairTest, OddityThatNoHeaderMendsIsNoReasonToStayBehindAGap) {
  const std::string odd =
      header(40, 3) + record(0, "first") + record(9, "second") + record(6, "third");
  put("queue.dat", header(20, 1) + record(0, "new!"));
  put("queue.dat.2", odd);
  put("queue.dat.4", header(20, 1) + record(0, "old!"));
  EXPECT_EQ(plan().refused.size(), 1u) << "its damage is still told";
  repair();
  EXPECT_THAT(names(), ElementsAre("queue.dat", "queue.dat.1", "queue.dat.2"));
  EXPECT_EQ(content("queue.dat.1"), odd);
}

TEST_F(SpoolRepairTest, FileSetAsideGoesBehindAllOthersWithItsHeaderMended) {
  put("queue.dat", header(20, 1) + record(0, "new!"));
  put("queue.dat.2", header(20, 1) + record(0, "mid!"));
  put("queue.dat.unopened", header(0, 0) + record(0, "old2"));
  put("queue.dat.unopened.2", header(20, 1) + record(0, "old1"));
  repair();
  EXPECT_THAT(take_all(), ElementsAre("new!", "mid!", "old2", "old1"));
}

TEST_F(SpoolRepairTest, FileSetAsideStaysWhereAnotherIsInTheWayOrItIsNoChunk) {
  put("queue.dat.1", "GIF89a and no spool");
  put("queue.dat.unopened", header(20, 1) + record(0, "old!"));
  EXPECT_EQ(plan().refused.size(), 3u);
  const auto before = files();
  repair();
  EXPECT_EQ(files(), before);

  std::filesystem::remove(path("queue.dat.1"));
  put("queue.dat.unopened", "GIF89a and no spool");
  repair();
  EXPECT_THAT(names(), ElementsAre("queue.dat.unopened"));
}

TEST_F(SpoolRepairTest, RenamingNeverReplacesAFile) {
  put("queue.dat.2", "from");
  put("queue.dat.1", "in the way");
  EXPECT_THROW(rename_chunk({path("queue.dat.2"), path("queue.dat.1")}), std::runtime_error);
  EXPECT_EQ(content("queue.dat.1"), "in the way");
  EXPECT_EQ(content("queue.dat.2"), "from");
}

TEST_F(SpoolRepairTest, SpoolThatIsClosedInTheAgentsPlaceNeedsNoRepairAndKeepsNoCopy) {
  close_spool(folder());  // there is none
  for (const char* payload : {"first", "second", "third"})
    store(payload);
  take();
  close_spool(folder());
  crash();
  EXPECT_FALSE(survey_spool(folder()).damaged);
  EXPECT_THAT(names(), ElementsAre("queue.dat"));
  EXPECT_THAT(take_all(), ElementsAre("second", "first"));
}

// The walk by the header meets a taken record, whose length is 0, and its payload begins like the
// header of the record behind it. Of an event of 64 KiB or more only the beginning is stored.
TEST_F(SpoolRepairTest, TakenEventIsNotReadAsRecords) {
  EXPECT_EQ(event(18).substr(0, 4), std::string("\x14\0\0\0", 4));
  for (const std::size_t kept :
       {event(18).size(), std::size_t{60}, std::size_t{64}, std::size_t{68}}) {
    for (std::size_t i = 0; i < 299; ++i)
      store(event(18));
    store(event(18).substr(0, kept));
    store(event(18));
    reopen();
    take();
    take();
    crash();
    repair();
    start();
    EXPECT_EQ(299u, take_all().size()) << kept;
  }
}

// Remains of an event behind the top may look like one, and the header's size fit by chance.
TEST_F(SpoolRepairTest, TopThatNamesAWrongLengthIsLeftOut) {
  const std::string first = event(1), second = event(2), remains = event(3);
  const std::size_t used = 12 + 12 + first.size() + second.size() + remains.size();
  put("queue.dat", header(static_cast<std::uint32_t>(used + 300), 3) + record(0, first) +
                       record(first.size(), second) + record(0, remains));
  repair();
  start();
  EXPECT_THAT(take_all(), ElementsAre(second, first));
}

// After any run of stores and takes that ends in a crash, the repaired spool gives what was stored
// and not taken.
TEST_F(SpoolRepairTest, RepairedSpoolGivesExactlyWhatWasNotTakenYet) {
  const unsigned long seed = test::random_seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto set_header = [](const HeaderRepair& one) {  // does not wait for the disk
    std::fstream(one.path, std::ios::in | std::ios::out | std::ios::binary)
        << header(one.used_size, one.record_count);
  };
  unsigned long crashes = 0;
  for (unsigned long round = 0; crashes < 5000 * test::test_factor(); ++round) {
    std::filesystem::remove_all(folder());
    start();
    limit_chunks(round % 2 ? 1000 : 10485760);
    std::vector<std::string> stack;
    for (unsigned lives = 1 + random() % 3; lives > 0; --lives) {
      for (unsigned operations = random() % 24; operations > 0; --operations) {
        if (random() % 5 < 3 || stack.empty()) {
          stack.push_back(event(random() % 200));
          store(stack.back());
        } else {
          ASSERT_THAT(take(), Optional(stack.back()));
          stack.pop_back();
        }
      }
      crash();
      ++crashes;
      repair(set_header);
      start();
    }
    std::reverse(stack.begin(), stack.end());
    const std::vector<std::string> drained = take_all();
    ASSERT_EQ(drained.size(), stack.size()) << "round " << round;
    ASSERT_TRUE(drained == stack) << "round " << round;
    stop();
  }
}

}  // namespace
