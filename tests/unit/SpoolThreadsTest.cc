// One thread storing, one taking, as the writers and the send thread do.

#include <atomic>
#include <thread>

#include "SpoolFixture.h"

namespace {

const auto kRecords = static_cast<std::uint32_t>(100000 * test::test_factor());
const std::uint32_t kStoredBefore = kRecords / 4;  // the rest while the other thread takes

// A record says its number, in a length that depends on it, so a wrong length shows as well.
std::size_t payload_of(std::uint32_t number, char (&payload)[64]) {
  const std::size_t size = 4 + number % 29;
  for (std::size_t i = 0; i < size; ++i)
    payload[i] = static_cast<char>(i < 4 ? number >> (8 * i) : number + i);
  return size;
}

bool read_number(const unsigned char* payload, std::size_t size, std::uint32_t* number) {
  if (size < 4)
    return false;
  *number = 0;
  for (int i = 3; i >= 0; --i)
    *number = *number << 8 | payload[i];
  char expected[64];
  return *number < kRecords && payload_of(*number, expected) == size &&
         memcmp(payload, expected, size) == 0;
}

class SpoolThreadsTest : public testing::Test, protected test::SpoolFixture {};

TEST_F(SpoolThreadsTest, EveryRecordComesBackExactlyOnceWhileBothThreadsWork) {
  start();
  limit_chunks(262144);  // so that roll-overs and roll-backs happen between
  PersistentQueue& queue = spool();
  std::atomic<bool> all_stored{false};
  const auto store_some = [&queue](std::uint32_t first, std::uint32_t end) {
    char payload[64];
    for (std::uint32_t i = first; i < end; ++i)
      queue.Store(static_cast<std::uint16_t>(payload_of(i, payload)), payload);
  };
  store_some(0, kStoredBefore);
  const std::int32_t files_before = spool().file_count;

  std::thread storing([&store_some, &all_stored] {
    store_some(kStoredBefore, kRecords);
    all_stored = true;
  });

  std::vector<bool> seen(kRecords);
  std::uint32_t taken = 0, wrong = 0, twice = 0;
  while (taken < kRecords) {
    const bool last_look = all_stored;
    if (queue.IsEmpty()) {
      if (last_look)
        break;
      std::this_thread::yield();
      continue;
    }
    std::uint16_t length = 0;
    auto* payload = static_cast<unsigned char*>(queue.Get(&length));
    if (!payload)
      continue;
    std::uint32_t number = 0;
    if (!read_number(payload, length, &number))
      ++wrong;
    else if (seen[number])
      ++twice;
    else
      seen[number] = true;
    ++taken;
    free(payload);
  }
  storing.join();

  EXPECT_EQ(wrong, 0u);
  EXPECT_EQ(twice, 0u);
  EXPECT_EQ(taken, kRecords);
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_GT(files_before, 2) << "nothing rolled over";
  EXPECT_LT(spool().file_count, 2) << "nothing rolled back";
}

}  // namespace
