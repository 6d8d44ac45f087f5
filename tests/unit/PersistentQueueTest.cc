#include "PersistentQueue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <limits>
#include <type_traits>

#include "SpoolFixture.h"

namespace {

using test::header;
using test::record;
using test::u16;
using test::u32;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

std::string bytes(std::size_t size, char fill = 'x') {
  return std::string(size, fill);
}

class PersistentQueueTest : public testing::Test, protected test::SpoolFixture {};

// The files: names, bytes, validation.

TEST_F(PersistentQueueTest, EmptyFolderGivesNoFilesAndAnEmptySpool) {
  start();
  EXPECT_TRUE(spool().IsEmpty());
  EXPECT_EQ(inside().file_count, 0);
  EXPECT_EQ(inside().head_records, 0);
  EXPECT_TRUE(std::filesystem::is_directory(folder()));
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(test::reports_of("warning"), IsEmpty());
}

TEST_F(PersistentQueueTest, FirstRecordFollowsAHeaderOfSignatureAndEightZeroBytes) {
  store("abc");
  EXPECT_THAT(names(), ElementsAre("queue.dat"));
  EXPECT_EQ(content(), test::hex("5A4D5146 00000000 00000000 0300 0000 616263"));
}

TEST_F(PersistentQueueTest, FreshHeaderIsOnDiskAsSoonAsTheFileIs) {
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_EQ(content(), "ZMQF" + std::string(8, '\0'));
}

TEST_F(PersistentQueueTest, ThreeLiveRecordsOf10And20And30BytesUse84Bytes) {
  store(bytes(10, 'a'));
  store(bytes(20, 'b'));
  store(bytes(30, 'c'));
  stop();
  EXPECT_EQ(content(), header(84, 3) + record(0, bytes(10, 'a')) + record(10, bytes(20, 'b')) +
                           record(20, bytes(30, 'c')));
  EXPECT_EQ(content().size(), 84u);
}

TEST_F(PersistentQueueTest, TakingTheTopLeavesItsBytesWithLengthZero) {
  store(bytes(10, 'a'));
  store(bytes(20, 'b'));
  store(bytes(30, 'c'));
  EXPECT_THAT(take(), Optional(bytes(30, 'c')));
  const std::string records =
      record(0, bytes(10, 'a')) + record(10, bytes(20, 'b')) + u16(0) + u16(20) + bytes(30, 'c');
  EXPECT_EQ(content(), header(0, 0) + records);
  stop();
  EXPECT_EQ(content(), header(50, 2) + records);
  EXPECT_EQ(content().size(), 84u);
}

TEST_F(PersistentQueueTest, ReopeningBeforeTheTakeAddsTwelveToTheUsedSize) {
  store(bytes(10));
  store(bytes(20));
  store(bytes(30));
  reopen();
  EXPECT_THAT(take(), Optional(bytes(30)));
  stop();
  EXPECT_EQ(content().substr(0, 12), header(62, 2));
}

TEST_F(PersistentQueueTest, EachReopeningMovesTheUsedSizeByTwelveMore) {
  store("abcd");
  for (std::uint32_t reopenings = 0; reopenings < 5; ++reopenings) {
    stop();
    EXPECT_EQ(content().substr(0, 12), header(20 + 12 * reopenings, 1));
    start();
    EXPECT_EQ(inside().head_bytes, static_cast<std::int32_t>(8 + 12 * reopenings))
        << "the scan takes the header's 12 bytes off";
    inside().openFile();
    EXPECT_EQ(inside().head_bytes, static_cast<std::int32_t>(20 + 12 * reopenings));
  }
}

TEST_F(PersistentQueueTest, AStartThatOpensNothingLeavesTheHeaderAlone) {
  put("queue.dat", header(20, 1) + record(0, "abcd"));
  start();
  reopen();
  stop();
  EXPECT_EQ(content(), header(20, 1) + record(0, "abcd"));
}

TEST_F(PersistentQueueTest, HeaderOnDiskIsUntouchedBetweenOpeningAndClosing) {
  put("queue.dat", header(20, 1) + record(0, "abcd"));
  start();
  store("efg");
  EXPECT_EQ(content().substr(0, 12), header(20, 1));
  take();
  EXPECT_EQ(content().substr(0, 12), header(20, 1));
  take();
  EXPECT_EQ(content().substr(0, 12), header(20, 1));
}

TEST_F(PersistentQueueTest, FileBeyondAGapInTheNumbersIsNotPartOfTheSpool) {
  put("queue.dat", header(20, 1) + record(0, "abcd"));
  put("queue.dat.2", header(20, 1) + record(0, "wxyz"));
  start();
  EXPECT_EQ(inside().file_count, 1);
  EXPECT_EQ(inside().total_bytes, 20);
  EXPECT_THAT(take(), Optional(std::string("abcd")));
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_EQ(content("queue.dat.2"), header(20, 1) + record(0, "wxyz"));
}

TEST_F(PersistentQueueTest, RollOverMayRenameOntoAFileBeyondTheGap) {
  put("queue.dat", header(20, 1) + record(0, "abcd"));
  put("queue.dat.2", "not of this spool");
  start();
  limit_chunks(0);
  store("e");
  store("f");
  EXPECT_EQ(content("queue.dat.2").substr(12), record(0, "abcd") + record(4, "e"));
  EXPECT_THAT(names(), ElementsAre("queue.dat.1", "queue.dat.2"));
}

TEST_F(PersistentQueueTest, FolderInTheSequenceEndsIt) {
  put("queue.dat", header(20, 1) + record(0, "abcd"));
  std::filesystem::create_directory(path("queue.dat.1"));
  put("queue.dat.2", header(20, 1) + record(0, "wxyz"));
  start();
  EXPECT_EQ(inside().file_count, 1);
}

TEST_F(PersistentQueueTest, SevenByteFileIsWarnedOfAndCounted) {
  put("queue.dat", "ZMQF123");
  start();
  EXPECT_THAT(test::reports_of("warning"), ElementsAre("Corrupted queue file " + path()));
  EXPECT_EQ(inside().file_count, 1);
  EXPECT_EQ(inside().head_records, 0);
  EXPECT_EQ(inside().total_bytes, 0);
  EXPECT_EQ(content(), "ZMQF123");
}

TEST_F(PersistentQueueTest, ForeignSignatureIsWarnedOfAndCounted) {
  put("queue.dat", "ZMQG" + u32(99) + u32(7));
  put("queue.dat.1", header(84, 3));
  put("queue.dat.2", "GIF89a......and more");
  start();
  EXPECT_THAT(test::reports_of("warning"),
              ElementsAre("Corrupted queue file " + path() + ", invalid signature",
                          "Corrupted queue file " + path("queue.dat.2") + ", invalid signature"));
  EXPECT_EQ(inside().file_count, 3);
  EXPECT_EQ(inside().head_records, 0);
  EXPECT_EQ(inside().head_bytes, 0);
  EXPECT_EQ(inside().total_bytes, 84);
}

TEST_F(PersistentQueueTest, ScanTakesHeadCountsFromTheHeadAndTotalsFromAllFiles) {
  put("queue.dat", header(100, 3));
  put("queue.dat.1", header(1000, 5));
  put("queue.dat.2", header(10000, 7));
  start();
  EXPECT_EQ(inside().head_records, 3);
  EXPECT_EQ(inside().head_bytes, 88);
  EXPECT_EQ(inside().total_bytes, 11100);
  EXPECT_EQ(inside().file_count, 3);
}

TEST_F(PersistentQueueTest, ForeignHeadIsUsedAsItStandsOnceOpened) {
  put("queue.dat", "ABCD" + u32(20) + u32(1) + record(0, "abcd"));
  start();
  EXPECT_THAT(take(), Optional(std::string("abcd")));
}

TEST_F(PersistentQueueTest, ScanReachesFilesWithNumbersOfTwoDigits) {
  put("queue.dat", header(20, 1));
  for (int k = 1; k <= 12; ++k)
    put("queue.dat." + std::to_string(k), header(20, 1));
  start();
  EXPECT_EQ(inside().file_count, 13);
}

TEST_F(PersistentQueueTest, FirstRecordAfterARollBackToAFileWithoutRecordsCarriesTheOldTopLength) {
  put("queue.dat", header(17, 1) + record(7, "a"));
  put("queue.dat.1", header(12, 0));
  start();
  EXPECT_THAT(take(), Optional(std::string("a")));
  EXPECT_EQ(take(), std::nullopt);
  store("next");
  EXPECT_EQ(content(), header(12, 0) + record(7, "next"));
}

// The stack.

TEST_F(PersistentQueueTest, RecordsComeBackNewestFirst) {
  store("R1");
  store("second");
  store("R3.");
  EXPECT_THAT(take(), Optional(std::string("R3.")));
  EXPECT_THAT(take(), Optional(std::string("second")));
  EXPECT_THAT(take(), Optional(std::string("R1")));
  EXPECT_TRUE(spool().IsEmpty());
  EXPECT_EQ(take(), std::nullopt);
}

TEST_F(PersistentQueueTest, RecordsComeBackNewestFirstAfterARestart) {
  store("R1");
  store("second");
  reopen();
  EXPECT_FALSE(spool().IsEmpty());
  store("R3.");
  EXPECT_THAT(take(), Optional(std::string("R3.")));
  EXPECT_THAT(take(), Optional(std::string("second")));
  EXPECT_THAT(take(), Optional(std::string("R1")));
}

TEST_F(PersistentQueueTest, LongestRecordComesBackWhole) {
  std::string longest(65535, '\0');
  for (std::size_t i = 0; i < longest.size(); ++i)
    longest[i] = static_cast<char>(i * 31);
  store("before");
  store(longest);
  EXPECT_EQ(content().substr(22, 4), u16(65535) + u16(6));
  EXPECT_THAT(take(), Optional(longest));
  EXPECT_THAT(take(), Optional(std::string("before")));
}

TEST_F(PersistentQueueTest, NextRecordIsWrittenOverTheTakenOne) {
  store("one");
  store("a longer second one");
  take();
  store("2");
  EXPECT_EQ(content(), header(0, 0) + record(0, "one") + record(3, "2") + " longer second one");
  EXPECT_THAT(take(), Optional(std::string("2")));
  EXPECT_THAT(take(), Optional(std::string("one")));
}

TEST_F(PersistentQueueTest, HeadWithoutRecordsIsDeletedOnClosing) {
  store("abc");
  take();
  EXPECT_THAT(names(), ElementsAre("queue.dat"));
  stop();
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(PersistentQueueTest, TotalBytesFollowStoresAndTakes) {
  put("queue.dat", header(20, 1) + record(0, "abcd"));
  start();
  store("12345678");
  EXPECT_EQ(inside().total_bytes, 32);
  take();
  take();
  EXPECT_EQ(inside().total_bytes, 12);
}

TEST_F(PersistentQueueTest, ProgramsThatTheHostStartsDoNotInheritTheHead) {
  const auto flags = [this] { return fcntl(fileno(inside().head_file), F_GETFD); };
  store("abc");
  EXPECT_TRUE(flags() & FD_CLOEXEC) << "created";
  reopen();
  inside().openFile();
  EXPECT_TRUE(flags() & FD_CLOEXEC) << "opened";
}

TEST_F(PersistentQueueTest, DrainedOrClosedSpoolKeepsNothingInMemory) {
  const auto is_held = [this] { return inside().holds_bytes(); };
  for (const char* payload : {"a", "b", "c", "d"})
    store(payload);
  EXPECT_FALSE(is_held()) << "before the first Get";
  take();
  take();
  EXPECT_TRUE(is_held());
  store("over");
  EXPECT_FALSE(is_held()) << "after a Store";
  take();
  EXPECT_TRUE(is_held());
  inside().closeFile();
  EXPECT_FALSE(is_held()) << "after closing";
  while (!spool().IsEmpty())
    take();
  EXPECT_FALSE(is_held()) << "after the last record";
}

TEST_F(PersistentQueueTest, EveryMarkHasReachedTheSystemWhenGetReturns) {
  for (int i = 0; i < 3; ++i)
    store("abc");
  const pid_t child = fork();
  if (child == 0) {
    take();
    take();
    _exit(0);
  }
  ASSERT_GT(child, 0);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  const std::string taken = u16(0) + u16(3) + "abc";
  EXPECT_EQ(content(), header(0, 0) + record(0, "abc") + taken + taken);
}

// Chunk limit, roll-over, roll-back.

TEST_F(PersistentQueueTest, HeadRollsOverWhenItsBytesExceedTheLimit) {
  limit_chunks(100);
  store(bytes(60));
  EXPECT_NE(inside().head_file, nullptr);
  store(bytes(60));
  EXPECT_EQ(inside().head_bytes, 128);
  EXPECT_EQ(inside().head_file, nullptr) << "closed by the roll-over";
  EXPECT_EQ(inside().file_count, 1);
  EXPECT_EQ(content().substr(0, 12), header(140, 2));
}

TEST_F(PersistentQueueTest, HeadDoesNotRollOverExactlyAtTheLimit) {
  limit_chunks(128);
  store(bytes(60));
  store(bytes(60));
  EXPECT_EQ(inside().head_bytes, 128);
  EXPECT_NE(inside().head_file, nullptr);
  EXPECT_EQ(inside().file_count, 0);
}

TEST_F(PersistentQueueTest, FirstRollOverOfASpoolWithoutFilesRenamesNothing) {
  limit_chunks(100);
  store(bytes(101, 'a'));
  EXPECT_THAT(names(), ElementsAre("queue.dat"));
  EXPECT_EQ(inside().file_count, 1);
  store(bytes(5, 'b'));
  EXPECT_THAT(names(), ElementsAre("queue.dat.1"));
  EXPECT_EQ(inside().file_count, 2);
  // 12 + 105 at the first closing; 9 and the reopening's 12 more at the second.
  EXPECT_EQ(content("queue.dat.1"),
            header(138, 2) + record(0, bytes(101, 'a')) + record(101, bytes(5, 'b')));
}

TEST_F(PersistentQueueTest, ThreeRollOversFromAPresentHeadLeaveFilesOneToThree) {
  put("queue.dat", header(20, 1) + record(0, "old!"));
  start();
  limit_chunks(20);
  const std::string full = bytes(30, 'a'), fuller = bytes(31, 'b'), fullest = bytes(32, 'c');
  store(full);
  store(fuller);
  store(fullest);
  EXPECT_THAT(names(), ElementsAre("queue.dat.1", "queue.dat.2", "queue.dat.3"));
  EXPECT_EQ(inside().file_count, 4);
  EXPECT_EQ(content("queue.dat.1").substr(12), record(0, fullest));
  EXPECT_EQ(content("queue.dat.2").substr(12), record(0, fuller));
  EXPECT_EQ(content("queue.dat.3").substr(12), record(0, "old!") + record(4, full));

  store("head");
  EXPECT_EQ(content(), header(0, 0) + record(0, "head"));
  EXPECT_EQ(inside().file_count, 4);

  EXPECT_THAT(take(), Optional(std::string("head")));
  EXPECT_THAT(take(), Optional(fullest));
  EXPECT_THAT(take(), Optional(fuller));
  EXPECT_THAT(take(), Optional(full));
  EXPECT_FALSE(spool().IsEmpty());
  EXPECT_THAT(take(), Optional(std::string("old!")));
  EXPECT_TRUE(spool().IsEmpty());
  EXPECT_THAT(names(), ElementsAre("queue.dat"));
}

TEST_F(PersistentQueueTest, StoppingRightAfterTheHeadIsDrainedCutsOffTheOlderFiles) {
  put("queue.dat", header(20, 1) + record(0, "new!"));
  put("queue.dat.1", header(20, 1) + record(0, "mid!"));
  put("queue.dat.2", header(20, 1) + record(0, "old!"));
  EXPECT_THAT(take(), Optional(std::string("new!")));
  reopen();
  EXPECT_EQ(inside().file_count, 0) << "closing deleted the exhausted head: the numbers have a gap";
  EXPECT_TRUE(spool().IsEmpty());
  EXPECT_THAT(names(), ElementsAre("queue.dat.1", "queue.dat.2"));
}

TEST_F(PersistentQueueTest, NegativeChunkLimitRollsOverAtEveryStore) {
  put("queue.dat", header(20, 1) + record(0, "old!"));
  start();
  limit_chunks(std::numeric_limits<std::int32_t>::min());
  store("a");
  store("");
  store("c");
  EXPECT_THAT(names(), ElementsAre("queue.dat.1", "queue.dat.2", "queue.dat.3"));
  EXPECT_EQ(content("queue.dat.1"), header(17, 1) + record(0, "c"));
  EXPECT_EQ(content("queue.dat.2"), header(16, 1) + record(0, ""));
}

TEST_F(PersistentQueueTest, LimitsAreKeptAndTheTotalIsWidenedWithItsSign) {
  EXPECT_EQ(inside().chunk_limit, 10485760);
  EXPECT_EQ(inside().total_limit, 524288000);
  spool().SetLimits(-1, -7);
  EXPECT_EQ(inside().chunk_limit, -1);
  EXPECT_EQ(inside().total_limit, std::int64_t{-7});
}

TEST_F(PersistentQueueTest, TotalLimitStopsNothing) {
  spool().SetLimits(10, 10);
  for (int i = 0; i < 20; ++i)
    store(bytes(100));
  std::size_t size = 0;
  for (const auto& file : files())
    size += file.second.size();
  EXPECT_GT(size, 2000u);
}

// The counts.

TEST_F(PersistentQueueTest, IsNotEmptyWhileTwoFilesAreCountedEvenWithoutLiveRecords) {
  put("queue.dat", header(12, 0));
  put("queue.dat.1", header(12, 0));
  start();
  EXPECT_FALSE(spool().IsEmpty());
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_EQ(inside().file_count, 1);
  EXPECT_TRUE(spool().IsEmpty());
}

TEST_F(PersistentQueueTest, IsNotEmptyWhileTheHeadHasRecords) {
  store("a");
  EXPECT_EQ(inside().file_count, 0);
  EXPECT_FALSE(spool().IsEmpty());
}

TEST_F(PersistentQueueTest, ExhaustedHeadGivesWayToTheNextFileInOneGet) {
  put("queue.dat", header(20, 1) + record(0, "new!"));
  put("queue.dat.1", header(20, 1) + record(0, "old!"));
  EXPECT_THAT(take(), Optional(std::string("new!")));
  EXPECT_EQ(inside().file_count, 2);
  EXPECT_THAT(take(), Optional(std::string("old!")));
  EXPECT_EQ(inside().file_count, 1);
}

TEST_F(PersistentQueueTest, EveryGetOfAnEmptySpoolTakesTheFileCountOneDown) {
  for (int expected : {-1, -2, -3}) {
    EXPECT_EQ(take(), std::nullopt);
    EXPECT_EQ(inside().file_count, expected);
    EXPECT_THAT(names(), ElementsAre("queue.dat"));
  }
  EXPECT_TRUE(spool().IsEmpty());
}

TEST_F(PersistentQueueTest, RollOverWithACountBelowOneOnlyRaisesIt) {
  take();
  take();
  limit_chunks(0);
  for (int expected : {-1, 0, 1}) {
    store("a");
    EXPECT_EQ(inside().file_count, expected);
    EXPECT_THAT(names(), ElementsAre("queue.dat"));
  }
  store("a");
  EXPECT_EQ(inside().file_count, 2);
  EXPECT_THAT(names(), ElementsAre("queue.dat.1"));
}

TEST_F(PersistentQueueTest, CursorStateTellsAFreshHeadFromOneWithAKnownTop) {
  start();
  EXPECT_EQ(inside().cursor_state, -1);
  inside().openFile();
  EXPECT_EQ(inside().cursor_state, -1);
  store("a");
  EXPECT_EQ(inside().cursor_state, -2);
  reopen();
  EXPECT_EQ(inside().cursor_state, -1);
  inside().openFile();
  EXPECT_EQ(inside().cursor_state, -2);
}

// Records without payload, and the way through the scan.

TEST_F(PersistentQueueTest, EmptyRecordOnTopOfAFreshFileComesBackAsNull) {
  start();
  spool().Store(0, nullptr);
  EXPECT_EQ(content(), header(0, 0) + record(0, ""));
  EXPECT_EQ(inside().top_length, 0);
  EXPECT_FALSE(spool().IsEmpty());
  EXPECT_EQ(take(), std::nullopt) << "the header on disk counts no record";
  EXPECT_EQ(inside().head_records, 0);
  EXPECT_EQ(inside().head_bytes, 0);
  EXPECT_TRUE(spool().IsEmpty());
}

TEST_F(PersistentQueueTest, EmptyRecordOnTopOfAFreshFileHidesTheRecordsBelow) {
  store("abc");
  store("");
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_EQ(content(), header(0, 0) + u16(0) + u16(0) + "abc" + record(3, ""))
      << "marked as taken right behind the header";
  EXPECT_EQ(inside().head_records, 1);
  EXPECT_EQ(inside().head_bytes, 7);
  store("over");
  EXPECT_EQ(content(), header(0, 0) + record(0, "over") + u16(0).substr(1) + u16(3));
}

TEST_F(PersistentQueueTest, ScanTrustsTheCountOfTheLastClose) {
  store("first");
  store("second");
  reopen();
  store("third");
  store("");
  EXPECT_EQ(inside().head_records, 4);
  EXPECT_THAT(take(), Optional(std::string("second")))
      << "the second record is the last that the header on disk counts";
  EXPECT_EQ(inside().head_records, 3);
  EXPECT_EQ(inside().top_length, 5) << "and the cursor stands where it was";
  EXPECT_THAT(take(), Optional(std::string("first")));
}

TEST_F(PersistentQueueTest, EmptyRecordFoundByTheScanIsABlockOfLengthZero) {
  store("abc");
  store("");
  reopen();
  std::uint16_t length = 4711;
  void* payload = spool().Get(&length);
  EXPECT_NE(payload, nullptr);
  EXPECT_EQ(length, 0);
  free(payload);
  EXPECT_THAT(take(), Optional(std::string("abc")));
}

// What survives a crash.

TEST_F(PersistentQueueTest, RecordsOfAHeadCreatedBeforeACrashAreNotCounted) {
  store("abc");
  store("def");
  crash();
  EXPECT_EQ(content(), header(0, 0) + record(0, "abc") + record(3, "def"));
  start();
  EXPECT_EQ(inside().file_count, 1);
  EXPECT_TRUE(spool().IsEmpty());
  store("ghi");
  EXPECT_EQ(content(), header(0, 0) + record(0, "ghi") + record(3, "def"));
}

TEST_F(PersistentQueueTest, ReopenedHeadKeepsTheCountsOfItsLastCloseAfterACrash) {
  store("abc");
  reopen();
  store("def");
  crash();
  start();
  EXPECT_EQ(inside().head_records, 1);
  EXPECT_THAT(take(), Optional(std::string("abc")));
  EXPECT_TRUE(spool().IsEmpty());
}

TEST_F(PersistentQueueTest, RecordTakenBeforeACrashReadsBackEmptyAndTheWalkStaysAligned) {
  store("first");
  store("second");
  store("third");
  reopen();
  EXPECT_THAT(take(), Optional(std::string("third")));
  crash();
  start();
  EXPECT_EQ(inside().head_records, 3);
  EXPECT_THAT(take(), Optional(std::string()));
  EXPECT_THAT(take(), Optional(std::string("second")));
  EXPECT_THAT(take(), Optional(std::string("first")));
}

TEST_F(PersistentQueueTest, EveryStoreHasReachedTheSystemWhenItReturns) {
  start();
  const pid_t child = fork();
  if (child == 0) {
    store(bytes(5000, 'a'));
    store("b");
    _exit(0);
  }
  ASSERT_GT(child, 0);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(content(), header(0, 0) + record(0, bytes(5000, 'a')) + record(5000, "b"));
}

// The folder.

TEST_F(PersistentQueueTest, MissingParentDisablesTheSpoolWithAnError) {
  std::filesystem::remove_all("orvik-spool");
  start();
  EXPECT_THAT(test::reports_of("error"),
              ElementsAre("Failed to open or create queue folder " + folder()));
  EXPECT_TRUE(inside().disabled);
  store("abc");
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_TRUE(spool().IsEmpty());
  EXPECT_FALSE(std::filesystem::exists("orvik-spool"));
}

TEST_F(PersistentQueueTest, FileInPlaceOfTheFolderDisablesTheSpool) {
  test::write_file(folder(), "in the way");
  start();
  EXPECT_TRUE(inside().disabled);
  EXPECT_EQ(test::reports_of("error").size(), 1u);
  store("abc");
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_EQ(test::read_file(folder()), "in the way");
}

TEST_F(PersistentQueueTest, DisabledSpoolStaysDisabledWhenTheFolderAppears) {
  std::filesystem::remove_all("orvik-spool");
  start();
  std::filesystem::create_directories(folder());
  store("abc");
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(PersistentQueueTest, FolderIsCreatedWithAllPermissionsThatTheUmaskLeaves) {
  const mode_t before = umask(027);
  start();
  umask(before);
  struct stat status;
  ASSERT_EQ(stat(folder().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0750u);
}

bool create_path(const std::string& path, std::string* afterwards = nullptr) {
  std::string text = path;
  const bool created = test::SpoolInside::CreatePath(&text[0]);
  if (afterwards)
    *afterwards = text;
  return created;
}

TEST_F(PersistentQueueTest, CreatePathTakesBackslashesForSeparators) {
  std::string afterwards;
  EXPECT_TRUE(create_path("a\\b\\c", &afterwards));
  EXPECT_EQ(afterwards, "a\\b\\c");
  for (const char* name : {"a", "a\\b", "a\\b\\c"})
    EXPECT_TRUE(std::filesystem::is_directory(name)) << name;
}

TEST_F(PersistentQueueTest, CreatePathCreatesOnlyTheLastComponentOfSlashes) {
  EXPECT_FALSE(create_path("a/b"));
  EXPECT_FALSE(std::filesystem::exists("a"));
  EXPECT_TRUE(create_path("a"));
  EXPECT_TRUE(create_path("a/b"));
  EXPECT_TRUE(create_path("a/b")) << "which is there already";
}

TEST_F(PersistentQueueTest, CreatePathGivesUpAtAPrefixThatCannotBeCreatedAndRestoresThePath) {
  std::string afterwards;
  EXPECT_FALSE(create_path("no/such\\folder", &afterwards));
  EXPECT_EQ(afterwards, "no/such\\folder");
  test::write_file("file", "");
  EXPECT_FALSE(create_path("file\\b", &afterwards));
  EXPECT_EQ(afterwards, "file\\b");
  EXPECT_FALSE(std::filesystem::exists("file\\b"));
  EXPECT_FALSE(create_path("file"));
  EXPECT_FALSE(create_path(""));
  EXPECT_FALSE(create_path("\\a")) << "the prefix before the separator is empty";
}

TEST_F(PersistentQueueTest, CreatePathAcceptsATrailingSeparator) {
  EXPECT_TRUE(create_path("a\\"));
  EXPECT_TRUE(std::filesystem::is_directory("a"));
  EXPECT_TRUE(std::filesystem::is_directory("a\\"));
}

// The toolbox.

TEST_F(PersistentQueueTest, FileExistsHoldsForRegularFilesOnly) {
  test::write_file("file", "abc");
  std::filesystem::create_directory("folder");
  EXPECT_TRUE(spool().FileExists("file"));
  EXPECT_FALSE(spool().FileExists("folder"));
  EXPECT_FALSE(spool().FileExists("nothing"));
}

TEST_F(PersistentQueueTest, FolderExistsHoldsForFoldersOnly) {
  test::write_file("file", "abc");
  std::filesystem::create_directory("folder");
  EXPECT_FALSE(spool().FolderExists("file"));
  EXPECT_TRUE(spool().FolderExists("folder"));
  EXPECT_FALSE(spool().FolderExists("nothing"));
}

TEST_F(PersistentQueueTest, RemoveFileGivesTheResultOfUnlink) {
  test::write_file("file", "abc");
  EXPECT_EQ(spool().RemoveFile("file"), 0);
  EXPECT_FALSE(std::filesystem::exists("file"));
  EXPECT_EQ(spool().RemoveFile("file"), -1);
}

TEST_F(PersistentQueueTest, FileSizeIsTheLengthOrMinusOne) {
  test::write_file("file", bytes(12345));
  test::write_file("empty", "");
  std::filesystem::create_directory("folder");
  EXPECT_EQ(spool().FileSize("file"), 12345);
  EXPECT_EQ(spool().FileSize("empty"), 0);
  EXPECT_EQ(spool().FileSize("nothing"), -1);
  EXPECT_EQ(spool().FileSize("folder"), -1);
}

TEST_F(PersistentQueueTest, CreateDirectoryIgnoresItsSecondArgument) {
  EXPECT_TRUE(CreateDirectory("folder", nullptr));
  EXPECT_TRUE(std::filesystem::is_directory("folder"));
  EXPECT_FALSE(CreateDirectory("folder", "there already"));
  EXPECT_FALSE(CreateDirectory("no/such/parent", ""));
}

// The class.

TEST_F(PersistentQueueTest, CountsHaveTheWidthsThatTheirWrappingDependsOn) {
  EXPECT_FALSE(std::is_polymorphic<PersistentQueue>::value);
  EXPECT_EQ(sizeof(inside().head_bytes), 4u);
  EXPECT_EQ(sizeof(inside().total_bytes), 4u);
  EXPECT_EQ(sizeof(inside().head_records), 4u);
  EXPECT_EQ(sizeof(inside().file_count), 4u);
  EXPECT_EQ(sizeof(inside().top_length), 2u);
  EXPECT_EQ(sizeof(inside().total_limit), 8u);
}

TEST_F(PersistentQueueTest, CountsWrapInsteadOfOverflowing) {
  put("queue.dat", header(0x7fffffff, 1) + record(0, "abcd"));
  start();
  EXPECT_EQ(inside().head_bytes, 0x7fffffff - 12);
  store("e");
  EXPECT_EQ(inside().head_bytes, std::numeric_limits<std::int32_t>::min() + 4);
  EXPECT_EQ(inside().total_bytes, std::numeric_limits<std::int32_t>::min() + 4);
  EXPECT_EQ(inside().head_records, 2);
  EXPECT_NE(inside().head_file, nullptr) << "a negative sum is not above the limit";
}

TEST_F(PersistentQueueTest, UsedSizeBelowTwelveMakesTheScanCountBelowZero) {
  put("queue.dat", header(0, 0));
  start();
  EXPECT_EQ(inside().head_bytes, -12);
}

}  // namespace
