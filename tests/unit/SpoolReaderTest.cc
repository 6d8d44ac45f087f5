#include "SpoolReader.h"

#include "SpoolFixture.h"

namespace {

using namespace zmqwriter;
using test::header;
using test::record;
using test::u16;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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
  store("first");
  store("second");
  store("third");
  stop();
  const ChunkFile file(folder(), 0);
  EXPECT_EQ(file.name(), "queue.dat");
  EXPECT_EQ(file.path(), path());
  EXPECT_EQ(file.problem(), "");
  EXPECT_EQ(file.size(), 40u);
  EXPECT_TRUE(file.has_signature());
  EXPECT_EQ(file.used_size(), 40u);
  EXPECT_EQ(file.record_count(), 3u);

  const Walk counted = file.CountedWalk();
  EXPECT_EQ(counted.end, WalkEnd::kCounted);
  EXPECT_THAT(payloads(counted.records), ElementsAre("first", "second", "third"));
  const Walk linked = file.LinkedWalk();
  EXPECT_EQ(linked.end, WalkEnd::kEndOfFile);
  EXPECT_THAT(payloads(linked.records), ElementsAre("first", "second", "third"));
  EXPECT_EQ(linked.records[2].offset, 31u);
  EXPECT_EQ(linked.records[2].prev_length, 6u);
  EXPECT_EQ(diagnosis().damage, "");
}

TEST_F(SpoolReaderTest, ReopeningDriftIsNoDamage) {
  store("abcd");
  for (int i = 0; i < 3; ++i) {
    reopen();
    inside().openFile();
  }
  stop();
  EXPECT_EQ(content().substr(0, 12), header(20 + 36, 1));
  EXPECT_EQ(diagnosis().damage, "");
}

TEST_F(SpoolReaderTest, StaleRemainsBehindTakenRecordsAreNoDamage) {
  store("first");
  store("second");
  store("third");
  take();
  take();
  stop();
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first"));
  EXPECT_EQ(diagnosis().damage, "");
}

TEST_F(SpoolReaderTest, EmptyRecordInACleanlyClosedFileIsNoDamage) {
  store("first");
  store("");
  store("third");
  stop();
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first", "", "third"));
  EXPECT_EQ(diagnosis().damage, "");
}

TEST_F(SpoolReaderTest, FreshFileIsNoDamage) {
  take();
  EXPECT_EQ(diagnosis().damage, "");
  EXPECT_THAT(diagnosis().found, IsEmpty());
}

TEST_F(SpoolReaderTest, RecordsOfAnUncleanStopAreFoundByTheirLinks) {
  store("first");
  store("second");
  crash();
  EXPECT_THAT(diagnosis().counted, IsEmpty());
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first", "second"));
  EXPECT_EQ(diagnosis().damage, "2 records that the header does not count (unclean stop)");
  EXPECT_TRUE(diagnosis().repairable);
}

TEST_F(SpoolReaderTest, RecordTakenBeforeAnUncleanStopEndsTheLinkedWalk) {
  store("first");
  store("second");
  store("third");
  take();
  crash();
  EXPECT_EQ(ChunkFile(folder(), 0).LinkedWalk().end, WalkEnd::kTakenRecord);
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first", "second"));
}

TEST_F(SpoolReaderTest, RemainsOfALongerRecordEndTheLinkedWalk) {
  store("first");
  store("second, of many bytes that will stay behind");
  take();
  store("2nd");
  crash();
  EXPECT_EQ(ChunkFile(folder(), 0).LinkedWalk().end, WalkEnd::kBrokenLink);
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first", "2nd"));
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
}

TEST_F(SpoolReaderTest, RecordThatIsNoEventHidesNoEventBehindIt) {
  put("queue.dat", header(0, 0) + record(0, "E1") + record(2, "cut") + record(3, "E3"));
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("E1", "cut", "E3"));
}

TEST_F(SpoolReaderTest, ReopenedFileKeepsItsCountedRecordsAndGainsTheLaterOnes) {
  store("first");
  store("");
  reopen();
  store("third");
  crash();
  EXPECT_THAT(payloads(diagnosis().counted), ElementsAre("first", ""));
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first", "", "third"))
      << "an empty record that the header accounts for was not taken";
}

TEST_F(SpoolReaderTest, RecordsTakenAfterTheReopeningAreNotFound) {
  store("first");
  store("second");
  store("third");
  reopen();
  take();
  take();
  crash();
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first"));
  EXPECT_EQ(diagnosis().damage, "2 records counted but no longer there (unclean stop)");
  EXPECT_TRUE(diagnosis().repairable);
}

TEST_F(SpoolReaderTest, RemainsInPlaceOfCountedRecordsAreNotFound) {
  store("first");
  store("second, of many bytes that will stay behind");
  store("third");
  reopen();
  take();
  take();
  store("2nd");
  crash();
  EXPECT_EQ(ChunkFile(folder(), 0).record_count(), 3u);
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first", "2nd"));
  EXPECT_TRUE(diagnosis().repairable);
}

TEST_F(SpoolReaderTest, TakenRecordWhoseBytesPassForReopeningDriftIsNotFound) {
  store("first");
  store("twelve bytes");
  reopen();
  take();
  crash();
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first"));
  EXPECT_TRUE(diagnosis().repairable);
}

TEST_F(SpoolReaderTest, RecordsReplacedAfterTheReopeningAreFoundInTheirNewForm) {
  store("first");
  store("second");
  reopen();
  take();
  store("another second");
  store("third");
  crash();
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first", "another second", "third"));
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

TEST_F(SpoolReaderTest, HugeCountIsWalkedWithinTheFile) {
  put("queue.dat", header(40, 0xffffffff) + record(0, "first") + record(5, "second"));
  EXPECT_EQ(ChunkFile(folder(), 0).CountedWalk().records.size(), 2u);
  EXPECT_THAT(payloads(diagnosis().found), ElementsAre("first", "second"));
}

TEST_F(SpoolReaderTest, BrokenLinkAmongCountedRecordsIsNotForTheHeaderToMend) {
  put("queue.dat", header(40, 3) + record(0, "first") + record(9, "second") + record(6, "third"));
  EXPECT_EQ(diagnosis().damage, "record 2 does not name the length of the one before it");
  EXPECT_FALSE(diagnosis().repairable);
  EXPECT_EQ(diagnosis().counted.size(), 3u);
}

TEST_F(SpoolReaderTest, WrongUsedSizeIsDamage) {
  put("queue.dat", header(21, 1) + record(0, "abcd"));
  EXPECT_EQ(diagnosis().damage, "used_size is 21, the records use 20");
  EXPECT_TRUE(diagnosis().repairable);
}

TEST_F(SpoolReaderTest, FileShorterThanItsHeaderHoldsNothing) {
  put("queue.dat", "ZMQF");
  EXPECT_EQ(diagnosis().damage, "shorter than its header");
  EXPECT_FALSE(diagnosis().repairable);
}

TEST_F(SpoolReaderTest, ForeignFileIsExplainedByRecordsOrNotAtAll) {
  put("queue.dat", "XXXX" + header(40, 2).substr(4) + record(0, "first") + record(5, "second"));
  EXPECT_EQ(diagnosis().damage, "invalid signature, 2 records after it");
  EXPECT_TRUE(diagnosis().repairable);
  put("queue.dat", "A letter to somebody, in some other format altogether.");
  EXPECT_EQ(diagnosis().damage, "invalid signature");
  EXPECT_FALSE(diagnosis().repairable);
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
  EXPECT_EQ(inside().file_count, 1) << "as the plug-in counts";
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

TEST_F(SpoolReaderTest, MissingFolderIsAProblem) {
  EXPECT_THROW(find_chunks("nowhere"), std::runtime_error);
}

}  // namespace
