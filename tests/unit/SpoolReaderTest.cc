#include "SpoolReader.h"

#include "SpoolFixture.h"

namespace {

using namespace zmqwriter;
using test::header;
using test::record;
using testing::ElementsAre;

// Payloads that count as events in these tests.
bool starts_with_e(const std::string& payload) {
  return !payload.empty() && payload[0] == 'E';
}

class SpoolReaderTest : public testing::Test, protected test::SpoolFixture {
 protected:
  static Diagnosis diagnosis(std::uint32_t number = 0) {
    return diagnose(ChunkFile(folder(), number), starts_with_e);
  }
  static std::vector<std::string> payloads(const std::vector<SpoolRecord>& records,
                                           std::uint32_t number = 0) {
    const ChunkFile file(folder(), number);
    std::vector<std::string> payloads;
    for (const SpoolRecord& record : records)
      payloads.push_back(file.Payload(record));
    return payloads;
  }
};

TEST_F(SpoolReaderTest, HealthyFileIsReadAsItWasWritten) {
  for (const char* payload : {"first", "second", "third"})
    store(payload);
  stop();
  const ChunkFile file(folder(), 0);
  const Walk counted = file.CountedWalk();
  EXPECT_EQ(counted.end, WalkEnd::kCounted);
  EXPECT_THAT(payloads(counted.records), ElementsAre("first", "second", "third"));
  const Walk linked = file.LinkedWalk();
  EXPECT_EQ(linked.end, WalkEnd::kEndOfFile);
  EXPECT_THAT(payloads(linked.records), ElementsAre("first", "second", "third"));
  EXPECT_EQ(diagnosis().damage, "");
}

TEST_F(SpoolReaderTest, ReopeningDriftIsNoDamage) {
  store("abcd");
  for (int i = 0; i < 3; ++i) {
    reopen();
    spool().openFile();
  }
  stop();
  EXPECT_EQ(content().substr(0, 12), header(20 + 36, 1));
  EXPECT_EQ(diagnosis().damage, "");
}

// "+text" stores, "-" takes, "|" is a clean stop and a start, "!" an unclean stop.
TEST_F(SpoolReaderTest, RecordsThatWaitAreFoundAfterAnyStop) {
  const std::string long_text = "+second, of many bytes that will stay behind";
  const std::string more = " that the header does not count (unclean stop)";
  const std::string fewer = " counted but no longer there (unclean stop)";
  struct Case {
    std::vector<std::string> steps;
    std::size_t counted;
    std::vector<std::string> found;
    std::string damage;
  };
  const std::map<std::string, Case> cases = {
      {"stale remains behind taken records are no damage",
       {{"+first", "+second", "+third", "-", "-", "|"}, 1, {"first"}, ""}},
      {"a file never closed is found by its links",
       {{"+first", "+second", "!"}, 0, {"first", "second"}, "2 records" + more}},
      {"a taken record ends the linked walk",
       {{"+first", "+second", "+third", "-", "!"}, 0, {"first", "second"}, "2 records" + more}},
      {"remains of a longer record end the linked walk",
       {{"+first", long_text, "-", "+2nd", "!"}, 0, {"first", "2nd"}, "2 records" + more}},
      {"a reopened file keeps its counted records, an empty one too, and gains the later ones",
       {{"+first", "+", "|", "+third", "!"}, 2, {"first", "", "third"}, "1 record" + more}},
      {"records taken after the reopening are not found",
       {{"+first", "+second", "+third", "|", "-", "-", "!"}, 2, {"first"}, "2 records" + fewer}},
      {"remains in place of counted records are not found",
       {{"+first", long_text, "+third", "|", "-", "-", "+2nd", "!"},
        2,
        {"first", "2nd"},
        "1 record" + fewer}},
      {"a taken record whose bytes pass for the drift of reopening is not found",
       {{"+first", "+twelve bytes", "|", "-", "!"}, 2, {"first"}, "1 record" + fewer}},
      {"records replaced after the reopening are found in their new form",
       {{"+first", "+second", "|", "-", "+another second", "+third", "!"},
        2,
        {"first", "another second", "third"},
        "1 record" + more}},
  };
  for (const auto& [promise, one] : cases) {
    SCOPED_TRACE(promise);
    stop();
    std::filesystem::remove_all(folder());
    for (const std::string& step : one.steps) {
      if (step[0] == '+')
        store(step.substr(1));
      else if (step == "-")
        take();
      else if (step == "|")
        stop();
      else
        crash();
    }
    const Diagnosis diagnosis = this->diagnosis();
    EXPECT_EQ(diagnosis.counted.size(), one.counted);
    EXPECT_EQ(payloads(diagnosis.found), one.found);
    EXPECT_EQ(diagnosis.damage, one.damage);
    EXPECT_EQ(diagnosis.repairable, !one.damage.empty());
  }
}

TEST_F(SpoolReaderTest, RemainsThatLinkByChanceAreNotFoundWhereTheFileHoldsEvents) {
  const std::string events = record(0, "E1") + record(2, "E2");
  put("queue.dat", header(0, 0) + events + record(2, "??"));
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("E1", "E2"));
  put("queue.dat", header(0, 0) + record(0, "a1") + record(2, "a2") + record(2, "??"));
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("a1", "a2", "??"))
      << "without any event nothing tells them apart";
  put("queue.dat", header(12 + 12 + 6, 3) + events + record(2, "??"));
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("E1", "E2", "??"))
      << "a counted record is no remains";
  put("queue.dat", header(0, 0) + record(0, "E1") + record(2, "cut") + record(3, "E3"));
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("E1", "cut", "E3"))
      << "what is no event hides no event behind it";
}

TEST_F(SpoolReaderTest, CutFileKeepsItsWholeRecords) {
  const std::string whole =
      header(40, 3) + record(0, "first") + record(5, "second") + record(6, "third");
  for (std::size_t size = 12; size < whole.size(); ++size) {
    SCOPED_TRACE(size);
    put("queue.dat", whole.substr(0, size));
    const std::size_t expected = size >= 31 ? 2 : size >= 21 ? 1 : 0;
    EXPECT_EQ(diagnosis().found.size(), expected);
    EXPECT_EQ(diagnosis().damage, "ends after " + std::to_string(expected) +
                                      " of the 3 records that the header counts");
    EXPECT_EQ(diagnosis().repairable, expected > 0);
  }
}

TEST_F(SpoolReaderTest, DamageIsNamedAndRepairableWhereAHeaderExplainsTheRecords) {
  const std::string two = record(0, "first") + record(5, "second");
  const struct {
    std::string content, damage;
    bool repairable;
    std::size_t counted, found;
  } kCases[] = {
      {header(40, 0xffffffff) + two,
       "ends after 2 of the 4294967295 records that the header counts", true, 2, 2},
      {header(40, 3) + record(0, "first") + record(9, "second") + record(6, "third"),
       "record 2 does not name the length of the one before it", false, 3, 1},
      {header(21, 1) + record(0, "abcd"), "used_size is 21, the records use 20", true, 1, 1},
      {header(0, 0), "", false, 0, 0},  // as created
      {"", "empty", true, 0, 0},
      {"ZMQF", "shorter than its header", false, 0, 0},
      {"XXXX" + header(40, 2).substr(4) + two, "invalid signature, 2 records after it", true, 2, 2},
      {"XXXX" + header(40, 1).substr(4) + "somebody, in another format", "invalid signature", false,
       0, 0},
  };
  for (const auto& one : kCases) {
    put("queue.dat", one.content);
    EXPECT_EQ(diagnosis().damage, one.damage);
    EXPECT_EQ(diagnosis().repairable, one.repairable) << one.damage;
    EXPECT_EQ(diagnosis().counted.size(), one.counted) << one.damage;
    EXPECT_EQ(diagnosis().found.size(), one.found) << one.damage;
  }
}

TEST_F(SpoolReaderTest, WhatCannotBeReadSaysWhy) {
  std::filesystem::create_directories(path("queue.dat.1"));
  EXPECT_EQ(diagnosis(0).damage, "cannot be read: No such file or directory");
  EXPECT_EQ(diagnosis(1).damage, "cannot be read: not a regular file");
}

TEST_F(SpoolReaderTest, ChunksAreFoundByTheirExactNamesOnly) {
  for (const char* name : {"queue.dat", "queue.dat.1", "queue.dat.3", "queue.dat.10",
                           "queue.dat.4294967295", "queue.dat.4294967296", "queue.dat.01",
                           "queue.dat.0", "queue.dat.", "queue.dat.1.before-repair", "queue.data",
                           "queue.dat.-1", "Xqueue.dat", "queue.dat.1x", "queue_dat"})
    put(name, "");
  const std::vector<std::uint32_t> numbers = find_chunks(folder());
  EXPECT_THAT(numbers, ElementsAre(0u, 1u, 3u, 10u, 4294967295u));
  EXPECT_EQ(count_in_sequence(folder(), numbers), 2u);
}

TEST_F(SpoolReaderTest, SequenceEndsAtWhatIsNoRegularFile) {
  put("queue.dat", "");
  std::filesystem::create_directory(path("queue.dat.1"));
  put("queue.dat.2", "");
  const std::vector<std::uint32_t> numbers = find_chunks(folder());
  EXPECT_EQ(count_in_sequence(folder(), numbers), 1u);
  start();
  EXPECT_EQ(spool().file_count, 1) << "as the plug-in counts";
}

TEST_F(SpoolReaderTest, FilesSetAsideAreFoundByTheirExactNamesOnly) {
  for (const char* name :
       {"queue.dat.unopened", "queue.dat.unopened.10", "queue.dat.unopened.2",
        "queue.dat.unopened.1", "queue.dat.unopened.02", "queue.dat.unopened.", "queue.dat.2",
        "queue.dat.unopened.before-repair", "queue.dat.unopened.2x", "unopened"})
    put(name, "");
  EXPECT_THAT(find_set_aside(folder()),
              ElementsAre(path("queue.dat.unopened"), path("queue.dat.unopened.2"),
                          path("queue.dat.unopened.10")));
  EXPECT_TRUE(find_set_aside("nowhere").empty());
}

}  // namespace
