// How much the spool reads, with an fread of the test's own: the spool's source is compiled here
// with the name replaced, after every header that must not see the replacement.

#include <cstddef>
#include <cstdio>

#include "Reports.h"
#include "SpoolFixture.h"
#include "SpoolFormat.h"

#include "util.h"

namespace {

std::size_t reads = 0;

std::size_t counting_fread(void* to, std::size_t size, std::size_t count, FILE* file) {
  ++reads;
  return fread(to, size, count, file);
}

}  // namespace

#define fread counting_fread
#include "PersistentQueue.cc"
#undef fread

namespace {

constexpr std::uint32_t kRecords = 1000;
constexpr std::size_t kReadsOfATake = 3;  // a header, a record's header, a payload

class SpoolWorkTest : public testing::Test, protected test::SpoolFixture {
 protected:
  // Takes all that is there; returns the number of reads, without those of opening the file.
  std::size_t reads_of_draining() {
    start();
    spool().openFile();
    reads = 0;
    for (std::uint32_t takes = 0; !spool().IsEmpty() && takes <= kRecords; ++takes)
      take();
    EXPECT_TRUE(spool().IsEmpty());
    return reads;
  }
};

// Lengths of 0 make every Get a scan, as do records taken before an unclean stop.
TEST_F(SpoolWorkTest, ScanningWalksTheFileOnceAndNotAtEveryGet) {
  std::string records;
  for (std::uint32_t i = 0; i < kRecords; ++i)
    records += test::record(0, "");
  put("queue.dat", test::header(12 + 4 * kRecords, kRecords) + records);
  EXPECT_LE(reads_of_draining(), kRecords + kReadsOfATake * kRecords);
}

TEST_F(SpoolWorkTest, LinksAreFollowedWithoutAWalk) {
  for (std::uint32_t i = 0; i < kRecords; ++i)
    store("record");
  stop();
  EXPECT_LE(reads_of_draining(), kReadsOfATake * kRecords);
}

}  // namespace
