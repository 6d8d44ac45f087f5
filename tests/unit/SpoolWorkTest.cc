// How much the spool reads, with a pread of the test's own: the spool's source is compiled here
// with the name replaced, after every header that must not see the replacement.

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <limits>

#include "Reports.h"
#include "SpoolFixture.h"
#include "SpoolFormat.h"

#include "util.h"

namespace {

constexpr off_t kNowhere = std::numeric_limits<off_t>::max();

std::size_t reads = 0;
std::size_t bytes_read = 0;
off_t unreadable = kNowhere;  // where a byte of the disk cannot be read any more

ssize_t counting_pread(int file, void* to, std::size_t size, off_t position) {
  ++reads;
  if (position <= unreadable && unreadable < position + static_cast<off_t>(size)) {
    errno = EIO;
    return -1;
  }
  const ssize_t got = pread(file, to, size, position);
  bytes_read += got > 0 ? static_cast<std::size_t>(got) : 0;
  return got;
}

}  // namespace

#define pread counting_pread
#include "ChunkFile.cc"
#include "HeadReader.cc"
#include "PersistentQueue.cc"
#undef pread

namespace {

using testing::Optional;

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
