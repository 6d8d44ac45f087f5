// Random operations on the spool and on its model, compared after each one.

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "Paths.h"
#include "SpoolBesideModel.h"
#include "SpoolFixture.h"
#include "TempDir.h"

namespace {

constexpr int kOperationsPerFolder = 250;
constexpr std::size_t kLargestFolder = 400000;  // bytes; keeps the comparing of bytes cheap

class RandomOperations {
 public:
  explicit RandomOperations(unsigned long seed) : random_(seed) {}

  std::size_t Below(std::size_t bound) { return random_() % bound; }

  /// Does one operation; returns what it was.
  std::string Do(test::SpoolBesideModel* both) {
    const std::size_t choice = Below(1000);
    if (choice < 480 && both->BytesOnDisk() < kLargestFolder) {
      const std::string payload = Payload();
      both->Store(payload);
      return "Store of " + std::to_string(payload.size()) + " bytes";
    }
    if (choice < 930) {
      both->Take();
      return "Get";
    }
    if (choice < 960) {
      const std::int32_t limit = Limit();
      both->SetLimits(limit, Limit());
      return "SetLimits to " + std::to_string(limit);
    }
    if (choice < 968)
      return StoreUpToTheLimit(both);
    if (choice < 985) {
      both->Restart();
      return "restart";
    }
    both->CrashAndStart();
    return "crash";
  }

 private:
  // A limit that the next record just reaches, or exceeds by one.
  std::string StoreUpToTheLimit(test::SpoolBesideModel* both) {
    const std::string payload(Below(200), 'x');
    const std::int64_t bytes =
        std::int64_t{both->HeadBytes()} + 4 + static_cast<std::int64_t>(payload.size());
    const std::int64_t limit = bytes - static_cast<std::int64_t>(Below(2));
    both->SetLimits(static_cast<std::int32_t>(limit), 0);
    both->Store(payload);
    return "Store up to byte " + std::to_string(bytes) + " of " + std::to_string(limit);
  }

  std::string Payload() {
    static const std::size_t edges[] = {0, 1, 255, 256, 4084, 4096, 65534, 65535};
    std::size_t size = Below(200);
    const std::size_t kind = Below(100);
    if (kind < 3)
      size = edges[Below(sizeof edges / sizeof *edges)];
    else if (kind < 5)
      size = Below(65536);
    std::string payload(size, '\0');
    // Half of them look like lengths and links, for a walk that reads at a wrong place.
    const std::size_t values = Below(2) ? 256 : 12;
    for (char& c : payload)
      c = static_cast<char>(Below(values));
    return payload;
  }

  std::int32_t Limit() {
    static const std::int32_t limits[] = {0,    1,    4,     64,         104,  // tiny
                                          128,  500,  500,   2000,             // usual
                                          8000, 8000, 70000, 2147483647, -1,  -2147483647 - 1};
    return limits[Below(sizeof limits / sizeof *limits)];
  }

  std::mt19937 random_;
};

TEST(SpoolModelTest, EveryAnswerAndEveryByteOnDiskIsTheModels) {
  const unsigned long operations = 5000 * test::test_factor();
  const unsigned long seed = test::random_seed();
  RandomOperations random(seed);
  for (unsigned long done = 0; done < operations;) {
    test::TempDir folder;
    std::filesystem::create_directory("orvik-spool");
    test::SpoolBesideModel both;
    for (int i = 0; i < kOperationsPerFolder && done < operations; ++i, ++done) {
      const std::string operation = random.Do(&both);
      const std::string difference = both.Difference();
      ASSERT_EQ(difference, "") << "seed " << seed << ", operation " << done << ": " << operation;
    }
  }
}

// Every depth of a Get before a Store, and every number of Gets after it, around a read of 64 KiB.
TEST(SpoolModelTest, StoreAtAnyDepthOfARunOfGetsIsTheModels) {
  for (const std::size_t size : {1, 100, 4000, 16380, 60000, 65535}) {
    for (const int gets : {1, 2, 3, 5, 16, 17, 40}) {
      test::TempDir folder;
      std::filesystem::create_directory("orvik-spool");
      test::SpoolBesideModel both;
      const std::string trace =
          "size " + std::to_string(size) + ", after " + std::to_string(gets) + " gets";
      const int stored = size < 16380 ? 70 : 8;
      for (int i = 0; i < stored; ++i)
        both.Store(std::string(size, static_cast<char>('0' + i)));
      for (int i = 0; i < gets; ++i)
        both.Take();
      ASSERT_EQ(both.Difference(), "") << trace;
      both.Store(std::string(size, '!'));  // lies where others lay
      both.Store(std::string(size / 2 + 1, '?'));
      ASSERT_EQ(both.Difference(), "") << trace;
      for (int i = 0; !both.IsEmpty(); ++i) {
        both.Take();
        ASSERT_EQ(both.Difference(), "") << trace << ", take " << i;
      }
    }
  }
}

// Files whose lengths and links lead anywhere, larger than what is read at a time.
TEST(SpoolModelTest, DamagedLengthsAndLinksOfLargeFilesAreTheModels) {
  const unsigned long seed = test::random_seed();
  std::mt19937 random(seed);
  const auto below = [&random](std::size_t bound) { return random() % bound; };

  for (int round = 0; round < 60; ++round) {
    test::TempDir folder;
    std::filesystem::create_directories(paths::kSpoolFolder);
    const std::string trace = "seed " + std::to_string(seed) + ", round " + std::to_string(round);

    static const std::size_t sizes[] = {1, 100, 100, 400, 4000, 60000, 65535};
    std::string records;
    std::vector<std::size_t> starts;
    std::size_t previous = 0;
    while (records.size() < 150000) {
      starts.push_back(records.size());
      const std::size_t size = sizes[below(sizeof sizes / sizeof *sizes)];
      records += test::record(static_cast<unsigned>(previous), std::string(size, '\x01'));
      previous = size;
    }
    const auto count = static_cast<std::uint32_t>(starts.size());
    for (std::size_t damages = 1 + below(4); damages > 0; --damages) {
      static const unsigned values[] = {0, 1, 99, 101, 400, 4000, 59999, 65535};
      const std::string value = test::u16(values[below(sizeof values / sizeof *values)]);
      records.replace(starts[below(count)] + 2 * below(2), 2, value);
    }
    if (below(3) == 0)
      records.resize(records.size() - below(100000));
    test::write_file(
        std::string(paths::kSpoolFolder) + "/queue.dat",
        test::header(12 + static_cast<std::uint32_t>(records.size()), count) + records);

    test::SpoolBesideModel both;
    for (int i = 0; i < 120 && !both.IsEmpty(); ++i) {
      if (below(12) == 0)
        both.Store(std::string(1 + below(500), 's'));
      else
        both.Take();
      ASSERT_EQ(both.Difference(), "") << trace << ", operation " << i;
    }
  }
}

}  // namespace
