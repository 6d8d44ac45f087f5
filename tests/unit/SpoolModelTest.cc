// Random operations on the spool and on its model, compared after each one.
//
//   ZMQWRITER_TEST_SEED         seed of the run (default: a new one each time; it is printed)
//   ZMQWRITER_TEST_OPERATIONS   number of operations (default 20000)

#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <random>

#include "SpoolBesideModel.h"
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
    // Half of them look like lengths and links themselves, which misleads a walk gone astray.
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
  const unsigned long seed = test::from_environment("ZMQWRITER_TEST_SEED", std::random_device()());
  const unsigned long operations = test::from_environment("ZMQWRITER_TEST_OPERATIONS", 20000);
  std::cout << "ZMQWRITER_TEST_SEED=" << seed << std::endl;

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

// An exact limit, one below and one above it, for a run of equal records.
TEST(SpoolModelTest, LimitsAroundTheExactSizeOfRecordsBehaveAsTheModel) {
  for (std::int32_t limit : {103, 104, 105, 207, 208, 209}) {
    test::TempDir folder;
    std::filesystem::create_directory("orvik-spool");
    test::SpoolBesideModel both;
    both.SetLimits(limit, limit);
    for (int i = 0; i < 20; ++i) {
      both.Store(std::string(100, static_cast<char>('a' + i)));
      ASSERT_EQ(both.Difference(), "") << "limit " << limit << ", store " << i;
    }
    for (int i = 0; i < 25; ++i) {
      both.Take();
      ASSERT_EQ(both.Difference(), "") << "limit " << limit << ", take " << i;
    }
  }
}

}  // namespace
