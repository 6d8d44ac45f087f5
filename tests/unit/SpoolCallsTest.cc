// The system calls and allocations of the spool: how much it reads, and what it does where they
// fail. Its source is compiled here with their names replaced, after every header that must not see
// the replacement.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>

#include "Reports.h"
#include "SpoolFixture.h"
#include "SpoolFormat.h"

#include "util.h"

namespace {

std::function<bool(const std::string& from, const std::string& to)> rename_fails;
std::string unopenable;
bool lstat_fails = false;
bool fdopen_fails = false;
std::size_t smallest_that_fails = SIZE_MAX;

std::string name_of(const char* path) {
  const std::string text = path;
  return text.substr(text.rfind('/') + 1);
}

int fail(int error) {
  errno = error;
  return -1;
}

int test_rename(const char* from, const char* to) {
  return rename_fails && rename_fails(name_of(from), name_of(to)) ? fail(EIO) : rename(from, to);
}

int test_open(const char* path, int flags, mode_t mode) {
  EXPECT_TRUE(flags & O_CLOEXEC) << path;
  return name_of(path) == unopenable ? fail(EMFILE) : open(path, flags, mode);
}

int test_lstat(const char* path, struct stat* status) {
  return lstat_fails ? fail(EIO) : lstat(path, status);
}

FILE* test_fdopen(int descriptor, const char* mode) {
  return fdopen_fails ? nullptr : fdopen(descriptor, mode);
}

void* test_malloc(std::size_t size) {
  return size >= smallest_that_fails ? nullptr : malloc(size);
}

constexpr off_t kNowhere = std::numeric_limits<off_t>::max();

std::size_t reads = 0;
std::size_t bytes_read = 0;
off_t unreadable = kNowhere;  // where a byte of the disk cannot be read any more

ssize_t test_pread(int file, void* to, std::size_t size, off_t position) {
  ++reads;
  if (position <= unreadable && unreadable < position + static_cast<off_t>(size))
    return fail(EIO);
  const ssize_t got = pread(file, to, size, position);
  bytes_read += got > 0 ? static_cast<std::size_t>(got) : 0;
  return got;
}

}  // namespace

#define pread test_pread
#define rename test_rename
#define open test_open
#define lstat test_lstat
#define fdopen test_fdopen
#define malloc test_malloc
#include "ChunkFile.cc"
#include "HeadReader.cc"
#include "PersistentQueue.cc"
#undef pread
#undef rename
#undef open
#undef lstat
#undef fdopen
#undef malloc

namespace {

using test::header;
using test::record;
using testing::ElementsAre;
using testing::Optional;

const std::vector<std::string> kFourNames = {"queue.dat", "queue.dat.1", "queue.dat.2",
                                             "queue.dat.3"};

class SpoolErrorsTest : public testing::Test, protected test::SpoolFixture {
 protected:
  ~SpoolErrorsTest() override {
    stop();
    rename_fails = nullptr;
    unopenable.clear();
    lstat_fails = false;
    fdopen_fails = false;
    smallest_that_fails = SIZE_MAX;
  }

  // One record in each of four files: "four" in the head, "one!" in the oldest.
  void start_with_four_files() {
    stop();
    rename_fails = nullptr;
    std::filesystem::remove_all(folder());
    const std::vector<std::string> payloads = {"four", "three", "two", "one!"};
    for (std::size_t k = 0; k < payloads.size(); ++k)
      put(kFourNames[k],
          header(static_cast<std::uint32_t>(16 + payloads[k].size()), 1) + record(0, payloads[k]));
    start();
  }

  static void fail_to_rename(const std::string& name) {
    rename_fails = [name](const std::string& from, const std::string&) { return from == name; };
  }
};

TEST_F(SpoolErrorsTest, RollOverThatCannotRenameAFileLeavesAllWhereTheyWere) {
  for (const std::string& name : kFourNames) {
    SCOPED_TRACE(name);
    start_with_four_files();
    limit_chunks(0);
    fail_to_rename(name);
    const std::map<std::string, std::string> before = files();
    store("five");
    store("six");
    EXPECT_THAT(names(), testing::ElementsAreArray(kFourNames));
    EXPECT_EQ(content().substr(12), record(0, "four") + record(4, "five") + record(4, "six"));
    for (const char* older : {"queue.dat.1", "queue.dat.2", "queue.dat.3"})
      EXPECT_EQ(content(older), before.at(older)) << older;
    EXPECT_EQ(spool().file_count, 4);
    rename_fails = nullptr;
    EXPECT_THAT(take_all(), ElementsAre("six", "five", "four", "three", "two", "one!"));
  }
}

TEST_F(SpoolErrorsTest, RollOverIsMadeUpForByTheNextStore) {
  start_with_four_files();
  limit_chunks(0);
  fail_to_rename("queue.dat.2");
  store("five");
  rename_fails = nullptr;
  store("six");
  EXPECT_THAT(names(), ElementsAre("queue.dat.1", "queue.dat.2", "queue.dat.3", "queue.dat.4"));
  EXPECT_EQ(spool().file_count, 5);
  EXPECT_THAT(take_all(), ElementsAre("six", "five", "four", "three", "two", "one!"));
}

// The files above the one that stayed cannot be renamed back either.
TEST_F(SpoolErrorsTest, GapThatARollOverLeavesCostsNoRecord) {
  start_with_four_files();
  limit_chunks(0);
  rename_fails = [](const std::string& from, const std::string& to) {
    return from == "queue.dat.1" || to == "queue.dat.2";
  };
  store("five");
  EXPECT_THAT(names(), ElementsAre("queue.dat", "queue.dat.1", "queue.dat.3", "queue.dat.4"));
  rename_fails = nullptr;
  store("six");
  store("seven");
  EXPECT_THAT(take_all(), ElementsAre("seven", "six", "five", "four", "three", "two", "one!"));
}

// Only the highest of the files above stayed where it was moved to.
TEST_F(SpoolErrorsTest, HighestFileThatCannotGoBackIsNotLost) {
  start_with_four_files();
  limit_chunks(0);
  rename_fails = [](const std::string& from, const std::string& to) {
    return from == "queue.dat.2" || to == "queue.dat.3";
  };
  store("five");
  rename_fails = nullptr;
  EXPECT_THAT(take_all(), ElementsAre("five", "four", "three", "two", "one!"));
}

TEST_F(SpoolErrorsTest, NumberWithoutAFileDoesNotStopARollOver) {
  start_with_four_files();
  limit_chunks(0);
  std::filesystem::remove(path("queue.dat.2"));
  store("five");
  EXPECT_THAT(names(), ElementsAre("queue.dat.1", "queue.dat.2", "queue.dat.4"));
  EXPECT_THAT(take_all(), ElementsAre("five", "four", "three", "one!"));
}

TEST_F(SpoolErrorsTest, RollBackThatCannotRenameAFileReplacesNone) {
  for (const char* name : {"queue.dat.1", "queue.dat.2", "queue.dat.3"}) {
    SCOPED_TRACE(name);
    start_with_four_files();
    fail_to_rename(name);
    EXPECT_THAT(take(), Optional(std::string("four")));
    const std::optional<std::string> second = take();
    rename_fails = nullptr;
    std::vector<std::string> rest = take_all();
    if (second)
      rest.insert(rest.begin(), *second);
    EXPECT_THAT(rest, ElementsAre("three", "two", "one!"));
  }
}

TEST_F(SpoolErrorsTest, RollBackThatNeverSucceedsComesToAnEnd) {
  start_with_four_files();
  const auto older = [this] {
    std::map<std::string, std::string> files = this->files();
    files.erase("queue.dat");
    return files;
  };
  const std::map<std::string, std::string> before = older();
  rename_fails = [](const std::string&, const std::string&) { return true; };
  EXPECT_THAT(take_all(), ElementsAre("four"));
  EXPECT_EQ(older(), before);
}

TEST_F(SpoolErrorsTest, RollOverAfterARollBackThatFailedReplacesNone) {
  start_with_four_files();
  limit_chunks(0);
  rename_fails = [](const std::string&, const std::string&) { return true; };
  EXPECT_THAT(take_all(), ElementsAre("four"));
  rename_fails = nullptr;
  for (const char* payload : {"five", "six", "seven"})
    store(payload);
  EXPECT_EQ(spool().file_count, 7);
  EXPECT_THAT(take_all(), ElementsAre("seven", "six", "five", "three", "two", "one!"));
}

TEST_F(SpoolErrorsTest, HeadWhoseNameIsInDoubtIsNotReplaced) {
  start_with_four_files();
  unopenable = "queue.dat";
  lstat_fails = true;
  const std::map<std::string, std::string> before = files();
  EXPECT_THAT(take_all(), ElementsAre());
  EXPECT_EQ(files(), before);
}

TEST_F(SpoolErrorsTest, DescriptorThatGetsNoStreamIsClosed) {
  const auto lowest_free_descriptor = [] {
    const int descriptor = dup(STDOUT_FILENO);
    close(descriptor);
    return descriptor;
  };
  start();
  fdopen_fails = true;
  const int before = lowest_free_descriptor();
  store("lost");
  EXPECT_EQ(lowest_free_descriptor(), before);
}

TEST_F(SpoolErrorsTest, FailedAllocationEndsTheProcessThroughTheHost) {
  store("abc");
  EXPECT_DEATH(
      {
        smallest_that_fails = 0;
        take();
      },
      "out of memory in malloc\\.");
  EXPECT_THAT(take(), Optional(std::string("abc")));
}

TEST_F(SpoolErrorsTest, RecordsAreTakenOneByOneWhereMoreThanOneFindsNoMemory) {
  for (const char* payload : {"abc", "def", "ghi"})
    store(payload);
  smallest_that_fails = 4;
  EXPECT_THAT(take_all(), ElementsAre("ghi", "def", "abc"));
}

constexpr std::uint32_t kRecords = 1000;
constexpr std::size_t kReadsOfATake = 3;  // a header, a record's header, a payload
constexpr std::size_t kLargestRead = 65539;

class SpoolWorkTest : public testing::Test, protected test::SpoolFixture {
 protected:
  SpoolWorkTest() { start_counting(); }
  ~SpoolWorkTest() override { unreadable = kNowhere; }

  static void start_counting() { reads = bytes_read = 0; }

  // Takes all that is there, and counts without what opening the file has read.
  void drain() {
    start();
    spool().openFile();
    start_counting();
    for (std::uint32_t takes = 0; !spool().IsEmpty() && takes <= kRecords; ++takes)
      take();
    EXPECT_TRUE(spool().IsEmpty());
  }
};

// Lengths of 0 make every Get a scan, as do records taken before an unclean stop.
TEST_F(SpoolWorkTest, ScanningWalksTheFileOnceAndNotAtEveryGet) {
  std::string records;
  for (std::uint32_t i = 0; i < kRecords; ++i)
    records += test::record(0, "");
  put("queue.dat", test::header(12 + 4 * kRecords, kRecords) + records);
  drain();
  EXPECT_LE(reads, kRecords + kReadsOfATake * kRecords);
}

TEST_F(SpoolWorkTest, OpeningReadsAFileOfSmallRecordsInBlocks) {
  for (std::uint32_t i = 0; i < kRecords; ++i)
    store("record");
  stop();
  start();
  start_counting();
  spool().openFile();
  EXPECT_LE(reads, 1 + 1 + kRecords * 10 / 4096 + 1) << "a header, and the blocks of the walk";
}

TEST_F(SpoolWorkTest, DrainingReadsAFileAboutOnceAndInLargeBlocks) {
  const std::string payload(400, 'x');
  for (std::uint32_t i = 0; i < kRecords; ++i)
    store(payload);
  stop();
  drain();
  const std::size_t file_size = kRecords * (payload.size() + 4);
  EXPECT_LE(bytes_read, file_size + file_size / 50) << "but for a record that a block has cut";
  EXPECT_LE(reads, 8 + file_size / kLargestRead + 1) << "after the small ones at the beginning";
}

// What comes and goes above a backlog must not have the backlog read again and again.
TEST_F(SpoolWorkTest, RecordStoredAndTakenInTurnIsAllThatIsRead) {
  const std::string payload(400, 'x');
  for (int i = 0; i < 100; ++i)
    store(payload);
  for (int i = 0; i < 20; ++i)
    take();
  start_counting();
  for (std::uint32_t i = 0; i < kRecords; ++i) {
    store(payload);
    take();
  }
  EXPECT_EQ(reads, kRecords);
  EXPECT_EQ(bytes_read, kRecords * (payload.size() + 4));
}

TEST_F(SpoolWorkTest, BytesThatCannotBeReadCostOnlyTheRecordThatTheyAreOf) {
  for (char c = 'a'; c <= 'z'; ++c)
    store(std::string(100, c));
  const off_t third = 12 + 2 * 104;
  unreadable = third + 50;
  for (char c = 'z'; c > 'c'; --c)
    EXPECT_THAT(take(), Optional(std::string(100, c)));
  take();
  EXPECT_EQ(spool().top, third);
}

}  // namespace
