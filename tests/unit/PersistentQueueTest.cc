// The spool's required behaviour as examples. SpoolModelTest tries random operations next to a
// model: every answer, count and byte on disk.
#include "PersistentQueue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <limits>
#include <sstream>

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

// The bytes of the block of docs/spool-format.md that begins with ```hex: eight digits of offset,
// then pairs of digits.
std::string bytes_of_the_example() {
  std::istringstream document(test::read_file(ZMQWRITER_SOURCE_DIR "/docs/spool-format.md"));
  std::string line, bytes;
  while (std::getline(document, line) && line != "```hex") {
  }
  while (std::getline(document, line) && line != "```") {
    EXPECT_EQ(std::stoul(line.substr(0, 8), nullptr, 16), bytes.size()) << line;
    bytes += test::hex(line.substr(8));
  }
  return bytes;
}

class PersistentQueueTest : public testing::Test, protected test::SpoolFixture {
 protected:
  void store_10_20_and_30_bytes() {
    store(bytes(10, 'a'));
    store(bytes(20, 'b'));
    store(bytes(30, 'c'));
  }
};

// The files: names, bytes, validation.

TEST_F(PersistentQueueTest, EmptyFolderGivesAnEmptySpoolAndTheFirstRecordMakesTheHead) {
  start();
  EXPECT_TRUE(spool().IsEmpty());
  EXPECT_EQ(spool().file_count, 0);
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(test::reports_of("warning"), IsEmpty());
  store("abc");
  EXPECT_THAT(names(), ElementsAre("queue.dat"));
  EXPECT_EQ(content(), test::hex("5A4D5146 00000000 00000000 0300 0000 616263"));
  EXPECT_FALSE(spool().IsEmpty());
}

TEST_F(PersistentQueueTest, ThreeLiveRecordsOf10And20And30BytesUse84Bytes) {
  store_10_20_and_30_bytes();
  stop();
  EXPECT_EQ(content(), header(84, 3) + record(0, bytes(10, 'a')) + record(10, bytes(20, 'b')) +
                           record(20, bytes(30, 'c')));
  EXPECT_EQ(content().size(), 84u);
}

TEST_F(PersistentQueueTest, TakingTheTopLeavesItsBytesWithLengthZero) {
  store_10_20_and_30_bytes();
  EXPECT_THAT(take(), Optional(bytes(30, 'c')));
  const std::string records =
      record(0, bytes(10, 'a')) + record(10, bytes(20, 'b')) + u16(0) + u16(20) + bytes(30, 'c');
  EXPECT_EQ(content(), header(0, 0) + records);
  stop();
  EXPECT_EQ(content(), header(50, 2) + records);
  EXPECT_EQ(content().size(), 84u);
}

TEST_F(PersistentQueueTest, WorkedExampleOfTheDocumentIsWhatTheSpoolWrites) {
  for (const char* payload : {"first", "second", "third"})
    store(payload);
  take();
  stop();
  EXPECT_EQ(content().size(), 40u);
  EXPECT_EQ(bytes_of_the_example(), content());
}

TEST_F(PersistentQueueTest, ReopeningBeforeTheTakeAddsTwelveToTheUsedSize) {
  store_10_20_and_30_bytes();
  reopen();
  EXPECT_EQ(spool().head_bytes, 72) << "the scan takes the header's 12 bytes off";
  EXPECT_THAT(take(), Optional(bytes(30, 'c')));
  stop();
  EXPECT_EQ(content().substr(0, 12), header(62, 2));
}

TEST_F(PersistentQueueTest, FileBeyondAGapIsNotPartOfTheSpoolAndMayBeReplaced) {
  put("queue.dat", header(20, 1) + record(0, "abcd"));
  put("queue.dat.2", header(20, 1) + record(0, "wxyz"));
  start();
  EXPECT_EQ(spool().file_count, 1);
  EXPECT_EQ(spool().total_bytes, 20);
  limit_chunks(0);
  store("e");
  EXPECT_EQ(content("queue.dat.2"), header(20, 1) + record(0, "wxyz"));
  store("f");
  EXPECT_EQ(content("queue.dat.2").substr(12), record(0, "abcd") + record(4, "e"));
  EXPECT_THAT(names(), ElementsAre("queue.dat.1", "queue.dat.2"));
}

TEST_F(PersistentQueueTest, CorruptedFilesAreWarnedOfAndCounted) {
  put("queue.dat", "ZMQG" + u32(99) + u32(7));
  put("queue.dat.1", header(84, 3));
  put("queue.dat.2", "ZMQF123");
  put("queue.dat.3", "GIF89a......and more");
  start();
  const std::string corrupted = "Corrupted queue file ";
  EXPECT_THAT(
      test::reports_of("warning"),
      ElementsAre(corrupted + path() + ", invalid signature", corrupted + path("queue.dat.2"),
                  corrupted + path("queue.dat.3") + ", invalid signature"));
  EXPECT_EQ(spool().file_count, 4);
  EXPECT_EQ(spool().head_records, 0);
  EXPECT_EQ(spool().head_bytes, 0);
  EXPECT_EQ(spool().total_bytes, 84);
  EXPECT_EQ(content("queue.dat.2"), "ZMQF123");
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

TEST_F(PersistentQueueTest, RecordsComeBackNewestFirstAlsoAfterARestart) {
  store("R1");
  store("second");
  reopen();
  EXPECT_FALSE(spool().IsEmpty());
  store("R3.");
  EXPECT_THAT(take(), Optional(std::string("R3.")));
  EXPECT_THAT(take(), Optional(std::string("second")));
  EXPECT_THAT(take(), Optional(std::string("R1")));
  EXPECT_TRUE(spool().IsEmpty());
  EXPECT_EQ(take(), std::nullopt);
}

TEST_F(PersistentQueueTest, DrainedOrClosedSpoolKeepsNothingInMemory) {
  const auto is_held = [this] { return spool().reader.window != nullptr; };
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
  spool().closeFile();
  EXPECT_FALSE(is_held()) << "after closing";
  while (!spool().IsEmpty())
    take();
  EXPECT_FALSE(is_held()) << "after the last record";
}

TEST_F(PersistentQueueTest, EveryStoreAndMarkHasReachedTheSystemWhenItReturns) {
  start();
  const pid_t child = fork();
  if (child == 0) {
    for (const std::string& payload : {bytes(5000), bytes(3, 'a'), bytes(3, 'b')})
      store(payload);
    take();
    take();
    _exit(0);
  }
  ASSERT_GT(child, 0);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(content(), header(0, 0) + record(0, bytes(5000)) + u16(0) + u16(5000) + "aaa" + u16(0) +
                           u16(3) + "bbb");
}

// Chunk limit, roll-over, roll-back.

TEST_F(PersistentQueueTest, HeadRollsOverWhenItsBytesExceedTheLimit) {
  limit_chunks(128);
  store(bytes(60));
  store(bytes(60));
  EXPECT_EQ(spool().head_bytes, 128);
  EXPECT_NE(spool().head_file, nullptr) << "exactly at the limit";
  EXPECT_EQ(spool().file_count, 0);
  take();
  limit_chunks(100);
  store(bytes(60));
  EXPECT_EQ(spool().head_bytes, 128);
  EXPECT_EQ(spool().head_file, nullptr) << "closed by the roll-over";
  EXPECT_EQ(spool().file_count, 1);
  EXPECT_EQ(content().substr(0, 12), header(140, 2));
}

TEST_F(PersistentQueueTest, FirstRollOverOfASpoolWithoutFilesRenamesNothing) {
  limit_chunks(100);
  store(bytes(101, 'a'));
  EXPECT_THAT(names(), ElementsAre("queue.dat"));
  EXPECT_EQ(spool().file_count, 1);
  store(bytes(5, 'b'));
  EXPECT_THAT(names(), ElementsAre("queue.dat.1"));
  EXPECT_EQ(spool().file_count, 2);
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
  EXPECT_EQ(spool().file_count, 4);
  EXPECT_EQ(content("queue.dat.1").substr(12), record(0, fullest));
  EXPECT_EQ(content("queue.dat.2").substr(12), record(0, fuller));
  EXPECT_EQ(content("queue.dat.3").substr(12), record(0, "old!") + record(4, full));

  store("head");
  EXPECT_EQ(content(), header(0, 0) + record(0, "head"));
  EXPECT_EQ(spool().file_count, 4);

  for (const std::string& payload : {std::string("head"), fullest, fuller, full})
    EXPECT_THAT(take(), Optional(payload));
  EXPECT_FALSE(spool().IsEmpty());
  EXPECT_THAT(take(), Optional(std::string("old!")));
  EXPECT_TRUE(spool().IsEmpty());
  EXPECT_THAT(names(), ElementsAre("queue.dat"));
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

TEST_F(PersistentQueueTest, TotalLimitIsKeptWithItsSignAndStopsNothing) {
  EXPECT_EQ(spool().chunk_limit, 10485760);
  EXPECT_EQ(spool().total_limit, 524288000);
  spool().SetLimits(10, -7);
  EXPECT_EQ(spool().chunk_limit, 10);
  EXPECT_EQ(spool().total_limit, std::int64_t{-7});
  for (int i = 0; i < 20; ++i)
    store(bytes(100));
  EXPECT_EQ(spool().total_bytes, 2080);
  EXPECT_EQ(names().size(), 19u);
}

// The counts.

TEST_F(PersistentQueueTest, IsNotEmptyWhileTwoFilesAreCountedEvenWithoutLiveRecords) {
  put("queue.dat", header(12, 0));
  put("queue.dat.1", header(12, 0));
  start();
  EXPECT_FALSE(spool().IsEmpty());
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_EQ(spool().file_count, 1);
  EXPECT_TRUE(spool().IsEmpty());
}

TEST_F(PersistentQueueTest, CursorStateTellsAFreshHeadFromOneWithAKnownTop) {
  start();
  spool().openFile();
  EXPECT_EQ(spool().cursor_state, -1);
  store("a");
  EXPECT_EQ(spool().cursor_state, -2);
  reopen();
  EXPECT_EQ(spool().cursor_state, -1);
  spool().openFile();
  EXPECT_EQ(spool().cursor_state, -2);
}

// Records without payload, and the way through the scan.

TEST_F(PersistentQueueTest, EmptyRecordOnTopOfAFreshFileHidesTheRecordsBelow) {
  store("abc");
  spool().Store(0, nullptr);
  EXPECT_EQ(spool().top_length, 0);
  EXPECT_EQ(take(), std::nullopt) << "the header on disk counts no record";
  EXPECT_EQ(content(), header(0, 0) + u16(0) + u16(0) + "abc" + record(3, ""))
      << "marked as taken right behind the header";
  EXPECT_EQ(spool().head_records, 1);
  EXPECT_EQ(spool().head_bytes, 7);
  store("over");
  EXPECT_EQ(content(), header(0, 0) + record(0, "over") + u16(0).substr(1) + u16(3));
}

TEST_F(PersistentQueueTest, ScanTrustsTheCountOfTheLastClose) {
  store("first");
  store("second");
  reopen();
  store("third");
  store("");
  EXPECT_EQ(spool().head_records, 4);
  EXPECT_THAT(take(), Optional(std::string("second")))
      << "the second record is the last that the header on disk counts";
  EXPECT_EQ(spool().head_records, 3);
  EXPECT_EQ(spool().top_length, 5) << "and the cursor stands where it was";
  EXPECT_THAT(take(), Optional(std::string("first")));
}

// The folder.

TEST_F(PersistentQueueTest, MissingParentDisablesTheSpoolForGoodWithAnError) {
  std::filesystem::remove_all("orvik-spool");
  start();
  EXPECT_THAT(test::reports_of("error"),
              ElementsAre("Failed to open or create queue folder " + folder()));
  EXPECT_FALSE(std::filesystem::exists("orvik-spool"));
  std::filesystem::create_directories(folder());
  EXPECT_TRUE(spool().disabled);
  store("abc");
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_TRUE(spool().IsEmpty());
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(PersistentQueueTest, FolderIsCreatedAsTheUmaskLeavesItAndFilesForTheirOwnerOnly) {
  const mode_t before = umask(002);
  store("a");
  umask(before);
  struct stat status;
  ASSERT_EQ(stat(folder().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0775u);
  ASSERT_EQ(stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

struct PathToCreate {
  const char* path;
  bool created;
  std::vector<std::string> folders;  // that there are afterwards
};

class CreatePathTest : public testing::TestWithParam<PathToCreate> {
 protected:
  test::TempDir folder_;
};

TEST_P(CreatePathTest, TakesBackslashesForSeparatorsAndRestoresThePath) {
  std::filesystem::create_directory("there");
  test::write_file("file", "");
  std::string path = GetParam().path;
  EXPECT_EQ(PersistentQueue::CreatePath(&path[0]), GetParam().created);
  EXPECT_EQ(path, GetParam().path);
  std::vector<std::string> folders;
  for (const auto& entry : std::filesystem::recursive_directory_iterator("."))
    if (entry.is_directory() && entry.path() != "./there")
      folders.push_back(entry.path().filename().string());
  EXPECT_THAT(folders, testing::UnorderedElementsAreArray(GetParam().folders));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, CreatePathTest,
    testing::Values(PathToCreate{"a\\b\\c", true, {"a", "a\\b", "a\\b\\c"}},
                    PathToCreate{"a\\", true, {"a", "a\\"}}, PathToCreate{"there", true, {}},
                    // Slashes are part of a name: only the last component is created.
                    PathToCreate{"there/b", true, {"b"}}, PathToCreate{"a/b", false, {}},
                    PathToCreate{"no/such\\folder", false, {}}, PathToCreate{"file\\b", false, {}},
                    PathToCreate{"file", false, {}}, PathToCreate{"", false, {}},
                    PathToCreate{"\\a", false, {}}));

// The toolbox.

TEST_F(PersistentQueueTest, ToolboxTellsFilesFromFoldersAndMakesAndRemovesThem) {
  EXPECT_TRUE(CreateDirectory("folder", nullptr));
  EXPECT_FALSE(CreateDirectory("folder", "there already"));
  EXPECT_FALSE(CreateDirectory("no/such/parent", ""));
  test::write_file("file", bytes(12345));
  EXPECT_TRUE(spool().FileExists("file"));
  EXPECT_FALSE(spool().FileExists("folder"));
  EXPECT_FALSE(spool().FileExists("nothing"));
  EXPECT_FALSE(spool().FolderExists("file"));
  EXPECT_TRUE(spool().FolderExists("folder"));
  EXPECT_FALSE(spool().FolderExists("nothing"));
  EXPECT_EQ(spool().FileSize("file"), 12345);
  EXPECT_EQ(spool().FileSize("folder"), -1);
  EXPECT_EQ(spool().FileSize("nothing"), -1);
  EXPECT_EQ(spool().RemoveFile("file"), 0);
  EXPECT_FALSE(std::filesystem::exists("file"));
  EXPECT_EQ(spool().RemoveFile("file"), -1);
}

}  // namespace
