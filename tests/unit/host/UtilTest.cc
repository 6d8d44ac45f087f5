#include "util.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <memory>
#include <set>
#include <thread>

#include "List.h"
#include "Net.h"
#include "UID.h"
#include "standin/MainThread.h"
#include "standin/PseudoTime.h"

namespace {

std::string base62(uint64 value) {
  char text[32];
  return uitoa_n(value, text, sizeof(text), 62);
}

}  // namespace

TEST(UitoaN, LeastSignificantDigitComesFirst) {
  EXPECT_EQ(base62(0), "0");
  EXPECT_EQ(base62(61), "Z");
  EXPECT_EQ(base62(62), "01");
  EXPECT_EQ(base62(3843), "ZZ");
  EXPECT_EQ(base62(std::numeric_limits<uint64>::max()), "fyha61AhGYl");
}

TEST(UitoaN, PrefixCountsAndTheEndIsCutOff) {
  char text[5];
  EXPECT_STREQ(uitoa_n(1234567, text, sizeof(text), 10, "C"), "C765");
  EXPECT_STREQ(uitoa_n(7, text, sizeof(text), 10, "long prefix"), "long");
  EXPECT_STREQ(uitoa_n(7, text, 1, 10, "C"), "");
}

TEST(UID, ExampleOfNinetySixBits) {
  const uint64 words[] = {0x0123456789abcdefULL, 0xfedcba9876543210ULL};
  Bro::UID uid;
  uid.Set(96, words, 2);
  EXPECT_EQ(uid.Base62(), "XQ5i1gmXIANUMCSl");
  EXPECT_EQ(uid.Base62("C"), "CXQ5i1gmXIANUMCSl");
}

TEST(UID, BothWordsAreAlwaysPrinted) {
  const uint64 words[] = {61, 5};
  EXPECT_EQ(Bro::UID(64, words, 2).Base62(), "Z0");
  EXPECT_EQ(Bro::UID(128, words, 2).Base62(), "Z5");
}

TEST(UID, MissingWordsAreDrawnAndNeverRepeat) {
  std::set<std::string> seen;
  for (int i = 0; i < 10000; ++i)
    seen.insert(Bro::UID(128).Base62());
  EXPECT_EQ(seen.size(), 10000u);
}

TEST(UID, MoreThan128BitsAreCapped) {
  const uint64 words[] = {1, 2};
  EXPECT_EQ(Bro::UID(1000, words, 2).Base62(), "12");
}

TEST(UID, KnowsWhetherItWasSet) {
  Bro::UID uid;
  EXPECT_FALSE(uid);
  uid.Set(96);
  EXPECT_TRUE(uid);
  Bro::UID copy(uid);
  EXPECT_TRUE(copy == uid);
  EXPECT_TRUE(copy);
}

TEST(UIDDeathTest, TextOfAnUnsetOneEndsTheProcess) {
  EXPECT_DEATH(Bro::UID().Base62(), "internal error: use of uninitialized UID");
}

TEST(StrcasecmpN, ZeroMeansEqualWhateverTheCase) {
  EXPECT_EQ(strcasecmp_n(4, "HtTp", "http"), 0);
  EXPECT_EQ(strcasecmp_n(0, "x", ""), 0);
}

TEST(StrcasecmpN, NullComesFirst) {
  EXPECT_EQ(strcasecmp_n(3, nullptr, "abc"), -1);
}

TEST(StrcasecmpN, FirstDifferenceDecides) {
  EXPECT_EQ(strcasecmp_n(3, "abc", "abd"), -1);
  EXPECT_EQ(strcasecmp_n(3, "ABD", "abc"), 1);
  EXPECT_EQ(strcasecmp_n(1, "\xff", "a"), static_cast<char>(0xff) < 'a' ? -1 : 1);
}

TEST(StrcasecmpN, BothHaveToEnd) {
  EXPECT_EQ(strcasecmp_n(4, "http", "http-in"), 1);
  EXPECT_EQ(strcasecmp_n(7, "http-in", "http"), 1);
  EXPECT_NE(strcasecmp_n(2, "a\0", "a"), 0);
}

TEST(Escaping, WhiteSpaceAndUnprintableBytes) {
  EXPECT_EQ(get_escaped_string("\t", false), "\\x09");
  EXPECT_EQ(get_escaped_string("a b\xe9\\", false), "a\\x20b\\xe9\\");
  EXPECT_EQ(get_escaped_string("ab", true), "\\x61\\x62");
}

TEST(Escaping, IsUndone) {
  EXPECT_EQ(get_unescaped_string("\\x09"), "\t");
  EXPECT_EQ(get_unescaped_string("a\\x4Ab"), "aJb");
  EXPECT_EQ(get_unescaped_string("\\x4"), "\\x4");
  EXPECT_EQ(get_unescaped_string("\\"), "\\");
}

TEST(CanonifyName, OnlyLettersAndDigitsInUpperCase) {
  EXPECT_EQ(canonify_name("ZMQ"), "ZMQ");
  EXPECT_EQ(canonify_name("my-writer"), "MY_WRITER");
}

TEST(Strings, CopyIsIndependentAndNullStaysNull) {
  EXPECT_EQ(copy_string(nullptr), nullptr);
  std::unique_ptr<char[]> copy(copy_string("text"));
  EXPECT_STREQ(copy.get(), "text");
  EXPECT_TRUE(streq(copy.get(), "text"));
  EXPECT_FALSE(streq("a", "b"));
}

TEST(Strings, CaseStripAndSplit) {
  EXPECT_EQ(strtolower("AbC1"), "abc1");
  EXPECT_EQ(to_upper("aBc1"), "ABC1");
  EXPECT_EQ(strstrip(" \t a b \n"), "a b");
  EXPECT_EQ(strstrip("  "), "");
  std::unique_ptr<std::vector<std::string>> parts(tokenize_string("a,,b,", ","));
  EXPECT_EQ(*parts, (std::vector<std::string>{"a", "", "b", ""}));
}

TEST(Fmt, GrowsItsBuffer) {
  const std::string longer(1000, 'x');
  EXPECT_EQ(std::string(fmt("%s-%d", longer.c_str(), 5)), longer + "-5");
}

TEST(FmtDeathTest, BelongsToTheMainThread) {
  EXPECT_DEATH(
      {
        standin::set_main_thread();
        std::thread([] { fmt("%d", 1); }).join();
      },
      "wrong thread: fmt belongs to the host's main thread");
}

TEST(CurrentTime, IsTheWallClock) {
  const double before = static_cast<double>(time(nullptr));
  const double now = current_time();
  EXPECT_GE(now, before);
  EXPECT_LE(now, before + 60);
}

TEST(CurrentTime, CanBePretendedButNotTheRealOne) {
  standin::set_pseudo_time(1234.5);
  EXPECT_EQ(1234.5, current_time());
  EXPECT_GT(current_time(true), 1e9);
  standin::set_pseudo_time(0);
  EXPECT_GT(current_time(), 1e9);
}

TEST(OutOfMemoryDeathTest, NamesThePlaceAndNeverReturns) {
  EXPECT_DEATH(out_of_memory("malloc"), "out of memory in malloc\\.");
}

TEST(SafeWrite, WritesEverything) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_TRUE(safe_write(ends[1], "hello", 5));
  char read_back[5];
  EXPECT_EQ(read(ends[0], read_back, 5), 5);
  EXPECT_EQ(std::string(read_back, 5), "hello");
  safe_close(ends[0]);
  safe_close(ends[1]);
}

TEST(SafeWriteDeathTest, BadDescriptorAborts) {
  EXPECT_DEATH(safe_write(-1, "x", 1), "safe_write error");
}

namespace {
struct Thing {};
declare(PList, Thing);
typedef PList(Thing) thing_list;
}  // namespace

TEST(PList, BehavesLikeTheHosts) {
  Thing a, b, c;
  thing_list list(&a, &b, static_cast<Thing*>(nullptr));
  EXPECT_EQ(list.length(), 2);
  list.insert(&c);
  EXPECT_EQ(list[0], &c);
  EXPECT_EQ(list[1], &a);
  EXPECT_EQ(list[3], nullptr);
  EXPECT_TRUE(list.is_member(&b));
  EXPECT_EQ(list.member_pos(&b), 2);
  EXPECT_EQ(list.remove(&a), &a);
  EXPECT_EQ(list.remove(&a), nullptr);
  EXPECT_EQ(list.get(), &b);
  EXPECT_EQ(list.replace(0, &a), &c);
  thing_list copy(list);
  list.clear();
  EXPECT_EQ(list.length(), 0);
  EXPECT_EQ(copy.length(), 1);
  EXPECT_EQ(copy.remove_nth(0), &a);
}
