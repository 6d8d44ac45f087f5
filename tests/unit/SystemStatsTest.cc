// The figures of the host, over a fake Darwin.

#include "SystemStats.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <utility>

#include "FakeDarwin.h"
#include "FakeDisk.h"

// The host's headers.
#include "Type.h"
#include "Val.h"
#include "standin/Scripts.h"

namespace {

constexpr std::uint64_t kGiB = 1024ull * 1024 * 1024;

/// Declares the record that the plug-in fills by position.
const char kScript[] = ZMQWRITER_SCRIPTS "/__preload__.bro";

class Scripts : public testing::Environment {
 public:
  void SetUp() override { standin::load_script(kScript); }
};
const testing::Environment* const scripts = testing::AddGlobalTestEnvironment(new Scripts);

class SystemStatsTest : public testing::Test {
 protected:
  SystemStatsTest() {
    darwin_.load_average = 1500;
    darwin_.load_scale = 1000;
    darwin_.memory_bytes = 8 * kGiB;
    darwin_.page_bytes = 4096;
    darwin_.active_pages = 1000000;
    darwin_.inactive_pages = 500000;
    darwin_.wired_pages = 250000;
    disk_.block_bytes = 4096;
    disk_.fragment_bytes = 512;
    disk_.blocks = 1000000;
    disk_.free_blocks = 250000;
    disk_.available_blocks = 100000;
  }

  ~SystemStatsTest() override { Unref(stats_); }

  void sample() {
    Unref(stats_);
    stats_ = SystemStats::getStats();
  }

  double real(const char* field) const { return stats_->Lookup(field)->AsDouble(); }
  std::uint64_t count(const char* field) const { return stats_->Lookup(field)->AsCount(); }
  std::int64_t priority() const { return stats_->Lookup("priority")->AsInt(); }

  test::FakeDarwin darwin_;
  test::FakeDisk disk_;
  RecordVal* stats_ = nullptr;
};

TEST_F(SystemStatsTest, LoadIsTheOneMinuteAverageDividedByItsScale) {
  sample();
  EXPECT_EQ(real("cpu_usage"), 1.5);
  EXPECT_EQ(getCpuUsage(), 1.5);
  darwin_.load_average = 0xffffffff;
  darwin_.load_scale = 2048;
  EXPECT_EQ(getCpuUsage(), 4294967295.0 / 2048.0);
}

TEST_F(SystemStatsTest, UnreadableLoadIsMinusOneUnreadableMemoryZeroAndTheRestStays) {
  for (bool* works : {&darwin_.load_works, &darwin_.memory_size_works, &darwin_.page_counts_work,
                      &darwin_.page_size_works}) {
    *works = false;
    sample();
    EXPECT_EQ(real("cpu_usage"), darwin_.load_works ? 1.5 : -1.0);
    EXPECT_EQ(getCpuUsage(), darwin_.load_works ? 1.5 : -1.0);
    for (const char* total : {"ph_mem_total", "virt_mem_total"})
      EXPECT_EQ(count(total), darwin_.memory_size_works ? 8192u : 0u) << total;
    for (const char* used : {"ph_mem_used", "virt_mem_used"})
      EXPECT_EQ(count(used), darwin_.page_counts_work && darwin_.page_size_works ? 6835u : 0u);
    EXPECT_EQ(real("hdd_volume"), 3.814697265625);
    *works = true;
  }
}

TEST_F(SystemStatsTest, MemoryTotalIsInWholeMiBCutTo32BitsWithSign) {
  const std::pair<std::uint64_t, std::uint64_t> cases[] = {
      {8 * kGiB, 8192},
      {8 * kGiB - 1, 8191},
      {(std::uint64_t{1} << 52) + (5 << 20), 5},
      {std::uint64_t{0x80000000} << 20, 0xffffffff80000000u},
      {0xffffffffffffffffu, 0},  // -1 byte: towards zero, not downwards
  };
  for (const auto& [bytes, total] : cases) {
    darwin_.memory_bytes = bytes;
    sample();
    EXPECT_EQ(count("ph_mem_total"), total) << bytes;
    EXPECT_EQ(count("virt_mem_total"), total) << bytes;
  }
}

TEST_F(SystemStatsTest, MemoryUsedIsThePagesSummedIn32BitsAndMultipliedIn64) {
  struct Pages {
    std::uint32_t active, inactive, wired;
    std::uint64_t page_bytes, used;
  };
  for (const Pages& pages :
       {Pages{1000000, 500000, 250000, 4096, 6835}, Pages{0xffffffff, 1, 256, 4096, 1},
        Pages{0x40000000, 0, 0, 16384, 16777216},
        Pages{0x80000000, 0, 0, 1 << 20, 0xffffffff80000000u}}) {
    darwin_.active_pages = pages.active;
    darwin_.inactive_pages = pages.inactive;
    darwin_.wired_pages = pages.wired;
    darwin_.page_bytes = pages.page_bytes;
    sample();
    EXPECT_EQ(count("ph_mem_used"), pages.used) << pages.active;
    EXPECT_EQ(count("virt_mem_used"), pages.used) << pages.active;
  }
}

TEST_F(SystemStatsTest, PriorityIsTheHostProcessesOwn) {
  for (const int nice : {0, 19, -20, -1}) {
    darwin_.priority = nice;
    sample();
    EXPECT_EQ(priority(), nice);
  }
}

TEST_F(SystemStatsTest, DiskFiguresAreInGiBExactToTheLargest) {
  sample();
  EXPECT_EQ(real("hdd_volume"), 3.814697265625);
  EXPECT_EQ(real("hdd_avail"), 0.95367431640625);
  EXPECT_EQ(real("hdd_used"), 2.86102294921875);
  EXPECT_EQ(disk_.asked, "/the/working/folder");
  disk_.blocks = 0xffffffff;
  disk_.free_blocks = 0xffffffff;
  disk_.block_bytes = std::uint64_t{1} << 40;
  sample();
  EXPECT_EQ(real("hdd_volume"), 4294967295.0 * 1024);
  EXPECT_EQ(real("hdd_used"), 0.0);
}

TEST_F(SystemStatsTest, DiskThatCannotBeMeasuredGivesZeros) {
  disk_.working_folder = std::string(1023, 'd');
  sample();
  EXPECT_EQ(real("hdd_volume"), 3.814697265625) << "the longest path";
  const auto expect_zeros = [this] {
    sample();
    EXPECT_EQ(real("hdd_volume"), 0.0);
    EXPECT_EQ(real("hdd_used"), 0.0);
    EXPECT_EQ(real("hdd_avail"), 0.0);
    EXPECT_EQ(count("ph_mem_total"), 8192u);
  };
  disk_.statvfs_works = false;
  expect_zeros();
  disk_.statvfs_works = true;
  for (const std::size_t length : {0u, 1024u}) {  // getcwd fails
    disk_.working_folder = std::string(length, 'd');
    expect_zeros();
  }
}

TEST_F(SystemStatsTest, EveryCallSamplesAfresh) {
  sample();
  darwin_.load_average = 3000;
  darwin_.memory_bytes = 16 * kGiB;
  disk_.free_blocks = 0;
  RecordVal* first = stats_;
  Ref(first);
  sample();
  EXPECT_NE(first, stats_);
  EXPECT_EQ(real("cpu_usage"), 3.0);
  EXPECT_EQ(count("ph_mem_total"), 16384u);
  EXPECT_EQ(real("hdd_avail"), 0.0);
  EXPECT_EQ(first->Lookup("cpu_usage")->AsDouble(), 1.5);
  Unref(first);
}

TEST_F(SystemStatsTest, RecordTypeIsLookedUpOnTheFirstCallOnly) {
  sample();
  const BroType* first = stats_->Type();
  standin::load_script(kScript);
  sample();
  EXPECT_EQ(stats_->Type(), first);
}

TEST(SystemStatsTypeTest, TypeThatIsNoRecordIsReportedByTheHost) {
  // In a process of its own: this one may have looked the type up already.
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        standin::define_type("system_stats", base_type(TYPE_COUNT));
        SystemStats::getStats();
      },
      testing::ExitedWithCode(1), "BroType::AsRecordType");
}

}  // namespace
