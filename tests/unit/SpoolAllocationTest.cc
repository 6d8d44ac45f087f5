// The spool with a malloc of the test's own: its source is compiled here with the name replaced,
// after every header that must not see the replacement.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "Reports.h"
#include "SpoolFixture.h"
#include "SpoolFormat.h"

#include "util.h"

namespace {

std::size_t smallest_that_fails = SIZE_MAX;

void* test_malloc(std::size_t size) {
  return size >= smallest_that_fails ? nullptr : malloc(size);
}

}  // namespace

#define malloc test_malloc
#include "ChunkFile.cc"
#include "HeadReader.cc"
#include "PersistentQueue.cc"
#undef malloc

namespace {

class SpoolAllocationTest : public testing::Test, protected test::SpoolFixture {
 protected:
  ~SpoolAllocationTest() override { smallest_that_fails = SIZE_MAX; }
};

TEST_F(SpoolAllocationTest, FailedAllocationEndsTheProcessThroughTheHost) {
  store("abc");
  EXPECT_DEATH(
      {
        smallest_that_fails = 0;
        take();
      },
      "out of memory in malloc\\.");
  EXPECT_EQ(take(), std::optional<std::string>("abc"));
}

TEST_F(SpoolAllocationTest, RecordsAreTakenOneByOneWhereMoreThanOneFindsNoMemory) {
  for (const char* payload : {"abc", "def", "ghi"})
    store(payload);
  smallest_that_fails = 4;
  for (const char* payload : {"ghi", "def", "abc"})
    EXPECT_EQ(take(), std::optional<std::string>(payload));
}

}  // namespace
