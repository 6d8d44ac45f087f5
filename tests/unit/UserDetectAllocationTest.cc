// The socket probe with a malloc of the test's own: its source is compiled here with the name
// replaced, after every header that must not see the replacement.

#include <gtest/gtest.h>
#include <libproc.h>
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FakeDarwin.h"
#include "UserDetect.h"

// The host's headers.
#include "Conn.h"
#include "util.h"

namespace {

int allocations_left = -1;
std::vector<char> behind;  // what the memory behind a block holds

/// Memory that is full of entries for descriptor 3, a socket: what a descriptor list looks like.
void* test_malloc(std::size_t size) {
  if (allocations_left == 0)
    return nullptr;
  --allocations_left;
  char* block = static_cast<char*>(malloc(size + behind.size()));
  std::copy(behind.begin(), behind.end(), block + size);
  const proc_fdinfo entry = {3, PROX_FDTYPE_SOCKET};
  for (std::size_t i = 0; i + sizeof entry <= size; i += sizeof entry)
    std::memcpy(block + i, &entry, sizeof entry);
  return block;
}

}  // namespace

#define malloc test_malloc
#include "UserDetect.cc"
#undef malloc

namespace {

class UserDetectAllocationTest : public testing::Test {
 protected:
  UserDetectAllocationTest() {
    test::PcbList::Pcb pcb;
    pcb.local_port = 1;
    pcb.handle = 9;
    darwin_.pcb_list = test::PcbList().add(pcb).end().bytes();
    darwin_.processes.emplace_back(7, "owner", 0).socket(3, 9);
  }
  ~UserDetectAllocationTest() override { behind.clear(); }

  test::FakeDarwin darwin_;
};

TEST_F(UserDetectAllocationTest, NoMemoryForTheSnapshotIsFatal) {
  EXPECT_DEATH(
      {
        allocations_left = 0;
        get_socket_pid(0, 1, 0, 0);
      },
      "out of memory in malloc\\.");
}

TEST_F(UserDetectAllocationTest, NoMemoryForADescriptorListIsFatal) {
  EXPECT_DEATH(
      {
        allocations_left = 1;
        get_socket_pid(0, 1, 0, 0);
      },
      "out of memory in malloc\\.");
}

TEST_F(UserDetectAllocationTest, WhatMemoryHeldBeforeIsNeverTakenForADescriptor) {
  darwin_.processes[0].list_fetch_works = false;
  EXPECT_EQ(get_socket_pid(0, 1, 0, 0), 0u);
}

// The list is cut behind its header, and goes on where the block ends.
TEST_F(UserDetectAllocationTest, SnapshotToldLongerThanItsBlockIsReadToTheEndOfTheBlock) {
  std::vector<char>& list = darwin_.pcb_list;
  darwin_.pcb_fetched = list.size();
  behind.assign(list.begin() + test::PcbList::kGenerationBytes, list.end());
  list.resize(test::PcbList::kGenerationBytes);
  EXPECT_EQ(get_socket_pid(0, 1, 0, 0), 0u);
}

TEST_F(UserDetectAllocationTest, AnOwnerTakesTwoAllocations) {
  allocations_left = 2;
  EXPECT_EQ(get_socket_pid(0, 1, 0, 0), 7u);
}

}  // namespace
