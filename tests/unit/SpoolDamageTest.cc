// Files that something else has damaged, and disks that refuse. What the spool does with damaged
// bytes is compared with the model, in which a file reads as if endless zero bytes followed it.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "FileSizeLimit.h"
#include "OrdinaryUser.h"
#include "SpoolFixture.h"

namespace {

using test::as_an_ordinary_user;
using test::FileSizeLimit;
using test::header;
using test::kNobody;
using test::record;
using test::u16;
using test::u32;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

const std::string kThreeRecords = record(0, "first") + record(5, "second") + record(6, "third");
const std::string kHealthy = header(12 + 9 + 10 + 9, 3) + kThreeRecords;

class SpoolDamageTest : public testing::Test, protected test::SpoolFixture {
 protected:
  // Uses a spool on these files in most ways next to the model. A file of n bytes holds at most n/4
  // records, so that many takes and one more for each file must empty any spool.
  void expect_as_the_model(const std::map<std::string, std::string>& damaged) {
    for (const bool store_first : {false, true}) {
      std::filesystem::remove_all(folder());
      std::size_t most_takes = 8;
      for (const auto& file : damaged) {
        put(file.first, file.second);
        most_takes += file.second.size() / 4 + 1;
      }
      test::SpoolBesideModel both;
      ASSERT_EQ(both.Difference(), "") << "start";
      if (store_first) {
        both.Store("new");
        ASSERT_EQ(both.Difference(), "") << "store";
        both.Take();
        ASSERT_EQ(both.Difference(), "") << "take after store";
        both.Store("new");
        both.CrashAndStart();
        ASSERT_EQ(both.Difference(), "") << "crash";
        both.Store("newer");
        both.Restart();
        ASSERT_EQ(both.Difference(), "") << "restart";
      }
      std::size_t takes = 0;
      for (; !both.IsEmpty() && takes < most_takes; ++takes) {
        both.Take();
        ASSERT_EQ(both.Difference(), "") << "take " << takes;
      }
      EXPECT_TRUE(both.IsEmpty()) << "after " << takes << " takes";
    }
  }
};

TEST_F(SpoolDamageTest, FileCutAtAnyLengthReadsAsZeros) {
  for (std::size_t length = 0; length < kHealthy.size(); ++length) {
    SCOPED_TRACE("length " + std::to_string(length));
    expect_as_the_model({{"queue.dat", kHealthy.substr(0, length)}});
  }
}

TEST_F(SpoolDamageTest, AnyFlippedByteOfAHeaderIsSurvived) {
  for (std::size_t start : {0u, 4u, 8u, 12u, 21u, 31u}) {  // of the file's words, and its records
    for (std::size_t at = start; at < start + 4; ++at) {
      for (unsigned mask : {0x01u, 0x04u, 0x10u, 0x80u, 0xffu}) {
        SCOPED_TRACE("byte " + std::to_string(at) + " xor " + std::to_string(mask));
        std::string damaged = kHealthy;
        damaged[at] = static_cast<char>(static_cast<unsigned char>(damaged[at]) ^ mask);
        expect_as_the_model({{"queue.dat", damaged}});
        if (start < 12)
          expect_as_the_model({{"queue.dat", kHealthy}, {"queue.dat.1", damaged}});
      }
    }
  }
}

TEST_F(SpoolDamageTest, CountThatTheFileHasNoRoomForGivesTheRecordsThatAreThere) {
  for (std::uint32_t count : {1u, 100u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
    SCOPED_TRACE("count " + std::to_string(count));
    put("queue.dat", header(100, count));
    start();
    EXPECT_FALSE(spool().IsEmpty());
    EXPECT_EQ(take(), std::nullopt);
    EXPECT_TRUE(spool().IsEmpty());
    stop();
    expect_as_the_model({{"queue.dat", header(100, count)}});
    if (count == 1)
      continue;
    put("queue.dat", header(40, count) + kThreeRecords);
    for (const char* payload : {"third", "second", "first"})
      EXPECT_THAT(take(), Optional(std::string(payload)));
    EXPECT_TRUE(spool().IsEmpty());
    stop();
    expect_as_the_model({{"queue.dat", header(40, count) + kThreeRecords}});
  }
}

// The mark shortens the last record, so that the bytes behind it begin another inside the file.
TEST_F(SpoolDamageTest, ScanGoesOnBehindTheRecordMarkedLastWhereTheCountHasNoRoom) {
  const std::string inner = record(0, "innermost"), outer = record(0, inner);
  const std::string damaged =
      header(100, 0xffff) + record(0, "") + record(0, "") + record(0, "") + record(0, outer);
  put("queue.dat", damaged);
  for (const std::string& payload : {outer, inner, std::string("innermost")})
    EXPECT_THAT(take(), Optional(payload));
  stop();
  expect_as_the_model({{"queue.dat", damaged}});
}

// With the records that are stored the file has room for the ten that its header counts.
TEST_F(SpoolDamageTest, ScanAfterAStoreBelievesACountThatTheFileHasRoomForByThen) {
  std::string damaged = header(100, 10);
  for (int i = 0; i < 9; ++i)
    damaged += record(0, "");
  put("queue.dat", damaged);
  EXPECT_THAT(take(), Optional(std::string()));
  store("ninth");
  store("tenth");
  store("");
  EXPECT_THAT(take(), Optional(std::string("tenth")));
}

// The third record links to nothing. By then it is marked as taken, so that the scan finds others
// inside it, the last of which links back to one that ends with the marked bytes themselves.
TEST_F(SpoolDamageTest, MarkOfATakenRecordIsReadByWhatFollowsAScan) {
  const std::string zeros(8, '\0');
  const std::string second = "second" + u16(8) + u16(0);
  const std::string third = zeros.substr(4) + u16(0) + u16(8) + "third";
  const std::string fourth(100, 'x');
  const std::string records = record(0, "first") + record(5, second) + record(0, third) +
                              record(static_cast<unsigned>(third.size()), fourth) +
                              record(100, "fifth");
  const std::string damaged = header(12 + static_cast<std::uint32_t>(records.size()), 5) + records;
  put("queue.dat", damaged);
  for (const std::string& payload : {std::string("fifth"), fourth, third})
    EXPECT_THAT(take(), Optional(payload));
  EXPECT_THAT(take(), Optional(std::string())) << "by the scan";
  EXPECT_THAT(take(), Optional(zeros));
  stop();
  expect_as_the_model({{"queue.dat", damaged}});
}

TEST_F(SpoolDamageTest, LargeFileOfGarbageIsDrainedWithinItsSize) {
  constexpr std::uint32_t kCount = 250000;  // as many as there is room for
  std::string garbage = header(0xffffffff, kCount) + std::string(4 * kCount, '\xff');
  put("queue.dat", garbage);
  for (std::uint32_t takes = 1; takes <= kCount; ++takes) {
    ASSERT_FALSE(spool().IsEmpty()) << takes;
    take();
    if (takes == 1) {
      EXPECT_LE(content().size(), garbage.size() + 65535 + 4 * kCount + 6);
    }
  }
  EXPECT_TRUE(spool().IsEmpty());
  stop();
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(SpoolDamageTest, FolderOrPipeInPlaceOfTheHeadMakesStoreHarmless) {
  for (const bool is_pipe : {false, true}) {
    std::filesystem::remove_all(folder());
    std::filesystem::create_directory(folder());
    if (is_pipe)
      ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    else
      std::filesystem::create_directory(path());
    start();
    EXPECT_EQ(spool().file_count, 0);
    store("abc");
    EXPECT_EQ(spool().head_records, 1);
    EXPECT_EQ(spool().head_bytes, 7);
    EXPECT_EQ(take(), std::nullopt);
    EXPECT_TRUE(spool().IsEmpty());
    stop();
    EXPECT_TRUE(std::filesystem::exists(path()));
    EXPECT_THAT(names(), IsEmpty());
  }
}

TEST_F(SpoolDamageTest, FolderInTheWayOfARollOverLosesNothing) {
  for (const char* in_the_way : {"queue.dat.1", "queue.dat.4"}) {
    SCOPED_TRACE(in_the_way);
    std::filesystem::remove_all(folder());
    std::filesystem::create_directories(path(in_the_way) + "/not empty");
    start();
    limit_chunks(0);
    std::vector<std::string> stored;
    for (char c = 'a'; c <= 'o'; ++c) {
      stored.push_back(std::string(10, c));
      store(stored.back());
    }
    EXPECT_TRUE(std::filesystem::is_directory(path(in_the_way) + "/not empty"));
    EXPECT_NE(spool().head_file, nullptr) << "opening it again would read all of it";
    for (; !stored.empty(); stored.pop_back())
      ASSERT_THAT(take(), Optional(stored.back()));
    EXPECT_EQ(take(), std::nullopt);
    store("the head's name is still free");
    EXPECT_THAT(take(), Optional(std::string("the head's name is still free")));
    stop();
  }
}

// By their names in the spool's folder, which is "".
void set_modes(const std::map<std::string, mode_t>& modes) {
  ASSERT_EQ(chmod(".", 0755), 0);
  for (const auto& [name, mode] : modes)
    ASSERT_EQ(chmod(test::SpoolFixture::path(name).c_str(), mode), 0) << name;
}

TEST_F(SpoolDamageTest, UnreadableHeadIsWarnedOfAndNeverDeleted) {
  put("queue.dat", kHealthy);
  set_modes({{"", 0777}, {"queue.dat", 0}});
  as_an_ordinary_user([this] {
    start();
    EXPECT_THAT(test::reports_of("warning"), ElementsAre("Corrupted queue file " + path()));
    EXPECT_EQ(spool().file_count, 1);
    EXPECT_TRUE(spool().IsEmpty());
    store("abc");
    EXPECT_EQ(spool().head_records, 1);
    EXPECT_FALSE(spool().IsEmpty());
    EXPECT_EQ(take(), std::nullopt);
    EXPECT_TRUE(spool().IsEmpty());
    stop();
  });
  set_modes({{"queue.dat", 0600}});
  EXPECT_EQ(content(), kHealthy);
}

TEST_F(SpoolDamageTest, UnreadableFilesAreCountedAndDoNotBarTheWayToOlderOnes) {
  put("queue.dat", header(20, 1) + record(0, "new!"));
  put("queue.dat.1", kHealthy);
  put("queue.dat.2", kHealthy);
  set_modes({{"", 0777}, {"queue.dat", 0}, {"queue.dat.1", 0666}, {"queue.dat.2", 0}});
  as_an_ordinary_user([this] {
    EXPECT_FALSE(spool().IsEmpty());
    EXPECT_THAT(test::reports_of("warning"),
                ElementsAre("Corrupted queue file " + path(),
                            "Corrupted queue file " + path("queue.dat.2")));
    EXPECT_EQ(spool().file_count, 3);
    EXPECT_EQ(spool().total_bytes, 40);
    EXPECT_THAT(take(), Optional(std::string("third")));
    stop();
  });
  set_modes({{"queue.dat.unopened", 0600}});
  EXPECT_EQ(content("queue.dat.unopened"), header(20, 1) + record(0, "new!"));
}

TEST_F(SpoolDamageTest, ReadableButNotWritableHeadIsDelivered) {
  put("queue.dat", kHealthy);
  put("queue.dat.1", header(20, 1) + record(0, "old!"));
  set_modes({{"", 0777}, {"queue.dat", 0444}, {"queue.dat.1", 0444}});
  as_an_ordinary_user([this] {
    EXPECT_THAT(take(), Optional(std::string("third")));
    EXPECT_TRUE(fcntl(fileno(spool().head_file), F_GETFD) & FD_CLOEXEC);
    store("has no place to go");
    EXPECT_THAT(take(), Optional(std::string("second")));
    EXPECT_THAT(take(), Optional(std::string("first")));
    EXPECT_EQ(take(), std::nullopt) << "in place of the one that was not written";
    EXPECT_THAT(take(), Optional(std::string("old!")));
    EXPECT_EQ(take(), std::nullopt);
    EXPECT_TRUE(spool().IsEmpty());
    stop();
  });
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(SpoolDamageTest, HeadThatCannotBeSetAsideKeepsTheOlderFilesInTheirPlaces) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only the superuser may give files away";
  const std::map<std::string, std::string> before = {
      {"queue.dat", kHealthy},
      {"queue.dat.1", header(20, 1) + record(0, "mid!")},
      {"queue.dat.2", header(20, 1) + record(0, "old!")}};
  for (const auto& file : before) {
    put(file.first, file.second);
    ASSERT_EQ(chown(path(file.first).c_str(), kNobody, kNobody), 0);
  }
  ASSERT_EQ(chown(path().c_str(), 0, 0), 0);
  // whoever does not own a file in it cannot rename it
  set_modes({{"", 01777}, {"queue.dat", 0}});
  as_an_ordinary_user([this] {
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(take(), std::nullopt);
    EXPECT_TRUE(spool().IsEmpty());
    stop();
  });
  EXPECT_EQ(files(), before);
}

// Leaves this process no descriptor for another file.
class NoDescriptorLeft {
 public:
  NoDescriptorLeft() {
    getrlimit(RLIMIT_NOFILE, &before_);
    rlimit limit = before_;
    limit.rlim_cur = std::min<rlim_t>(before_.rlim_cur, 256);
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;)
      taken_.push_back(fd);
  }
  ~NoDescriptorLeft() {
    for (int fd : taken_)
      close(fd);
    setrlimit(RLIMIT_NOFILE, &before_);
  }

 private:
  rlimit before_;
  std::vector<int> taken_;
};

std::string all_bytes(const std::map<std::string, std::string>& files) {
  std::string bytes;
  for (const auto& file : files)
    bytes += file.second;
  return bytes;
}

TEST_F(SpoolDamageTest, TransientlyUnopenableHeadIsNotDeleted) {
  put("queue.dat", header(20, 1) + record(0, "new!"));
  put("queue.dat.1", header(20, 1) + record(0, "mid!"));
  put("queue.dat.2", header(20, 1) + record(0, "old!"));
  put("queue.dat.unopened", "of an earlier run");
  start();
  {
    NoDescriptorLeft full;
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(take(), std::nullopt);
    EXPECT_TRUE(spool().IsEmpty());
  }
  stop();
  for (const char* payload : {"new!", "mid!", "old!", "of an earlier run"})
    EXPECT_THAT(all_bytes(files()), testing::HasSubstr(payload));
  EXPECT_THAT(names(), ElementsAre("queue.dat", "queue.dat.unopened", "queue.dat.unopened.2",
                                   "queue.dat.unopened.3"));
  EXPECT_THAT(take(), Optional(std::string("old!"))) << "the last one waits for the next start";
}

TEST_F(SpoolDamageTest, ReadOnlyFolderTakesNothingAndGivesNothing) {
  std::filesystem::create_directory(folder());
  set_modes({{"", 0555}});
  as_an_ordinary_user([this] {
    start();
    EXPECT_FALSE(spool().disabled);
    for (int i = 0; i < 1000; ++i)
      store("abc");
    EXPECT_EQ(take(), std::nullopt);
    EXPECT_TRUE(spool().IsEmpty());
    stop();
  });
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(SpoolDamageTest, HeadInAReadOnlyFolderStillGivesItsRecords) {
  put("queue.dat", kHealthy);
  set_modes({{"", 0555}, {"queue.dat", 0666}});
  as_an_ordinary_user([this] {
    EXPECT_THAT(take(), Optional(std::string("third")));
    EXPECT_THAT(take(), Optional(std::string("second")));
    EXPECT_THAT(take(), Optional(std::string("first")));
    for (int i = 0; i < 10; ++i)
      take();
    EXPECT_TRUE(spool().IsEmpty());
    stop();
  });
}

TEST_F(SpoolDamageTest, FullDiskGoesUnnoticedAndTheCountsGoOn) {
  start();
  {
    FileSizeLimit full(1000);
    for (int i = 0; i < 20; ++i)
      store(std::string(300, static_cast<char>('a' + i)));
    EXPECT_EQ(spool().head_records, 20);
    EXPECT_EQ(spool().head_bytes, 20 * 304);
    EXPECT_EQ(content().size(), 1000u);
    for (char c : {'c', 'b', 'a'})
      EXPECT_THAT(take(), Optional(std::string(300, c)));
    for (int i = 0; i < 7; ++i)
      EXPECT_EQ(take(), std::nullopt);
  }
  EXPECT_EQ(spool().head_records, 10);
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(take(), std::nullopt);
  EXPECT_TRUE(spool().IsEmpty());

  store("room again");
  EXPECT_THAT(take(), Optional(std::string("room again")));
}

TEST_F(SpoolDamageTest, RecordsOfAReopenedFileSurviveAFullDisk) {
  put("queue.dat", kHealthy);
  start();
  {
    FileSizeLimit full(kHealthy.size() + 20);
    store(std::string(5000, 'x'));
    store("small");
    store(std::string(60000, 'y'));
  }
  store("room again");
  EXPECT_EQ(spool().head_records, 7);
  EXPECT_THAT(take(), Optional(std::string("room again")));
  EXPECT_THAT(take(), Optional(std::string("small")));
  EXPECT_THAT(take(), Optional(std::string("third")));
  EXPECT_THAT(take(), Optional(std::string("second")));
  EXPECT_THAT(take(), Optional(std::string("first")));
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_FALSE(spool().IsEmpty());
  EXPECT_EQ(take(), std::nullopt);
  EXPECT_TRUE(spool().IsEmpty());
}

TEST_F(SpoolDamageTest, CountsThatAFullDiskMadeTooHighAreSetRightByTheNextStart) {
  start();
  {
    FileSizeLimit full(12 + 2 * 304);
    for (int i = 0; i < 500; ++i)
      store(std::string(300, static_cast<char>('a' + i % 26)));
    stop();
  }
  EXPECT_EQ(content().substr(8, 4), u32(500));
  EXPECT_THAT(take(), Optional(std::string(300, 'b')));
  EXPECT_THAT(take(), Optional(std::string(300, 'a')));
  EXPECT_EQ(take(), std::nullopt);
}

TEST_F(SpoolDamageTest, DiskFullBeforeTheFirstHeaderIsSurvived) {
  start();
  {
    FileSizeLimit full(0);
    store("abc");
    EXPECT_EQ(spool().head_records, 1);
    take();
  }
  store("abc");
  take();
  EXPECT_TRUE(spool().IsEmpty());
}

}  // namespace
