// The spool with a malloc of the test's own: its source is compiled here with the name replaced,
// after every header that must not see the replacement.

#include <cstddef>
#include <cstdlib>

#include "Reports.h"
#include "SpoolFixture.h"
#include "SpoolFormat.h"

#include "util.h"

namespace {

bool allocation_fails = false;

void* test_malloc(std::size_t size) {
  return allocation_fails ? nullptr : malloc(size);
}

}  // namespace

#define malloc test_malloc
#include "PersistentQueue.cc"
#undef malloc

namespace {

class SpoolAllocationTest : public testing::Test, protected test::SpoolFixture {};

TEST_F(SpoolAllocationTest, FailedAllocationEndsTheProcessThroughTheHost) {
  store("abc");
  EXPECT_DEATH(
      {
        allocation_fails = true;
        take();
      },
      "out of memory in malloc\\.");
  EXPECT_EQ(take(), std::optional<std::string>("abc"));
}

}  // namespace
