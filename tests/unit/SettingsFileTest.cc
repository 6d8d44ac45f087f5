// The host's settings file: what its lines mean and which lines are errors.
#include "SettingsFile.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "TempDir.h"

namespace {

class SettingsFileTest : public testing::Test {
 protected:
  static SettingsFile load(const std::string& content) {
    test::write_file("settings", content);
    return SettingsFile("settings");
  }

  static std::string error(const std::string& content) {
    test::write_file("settings", content);
    return opening_error("settings");
  }

  static std::string opening_error(const std::string& path) {
    try {
      SettingsFile file(path);
    } catch (const std::runtime_error& problem) {
      return problem.what();
    }
    return "accepted";
  }

  test::TempDir dir;
};

TEST_F(SettingsFileTest, NoFileGivesEveryDefault) {
  const SettingsFile none;
  EXPECT_EQ(none.getStringVal("zmq.server", "fallback"), "fallback");
  EXPECT_EQ(none.getIntVal("disk.usage.relative", 10), 10);
  EXPECT_FALSE(none.has("zmq.server"));
}

TEST_F(SettingsFileTest, LinesAreKeysAndValuesWithoutTheWhiteSpaceAroundThem) {
  const SettingsFile file = load(
      "# a = 1\n\n   \n#\nserver = tcp://[2001:db8::1]:5555 \n\tb\t=\tx y\t\nc=1\r\n\r\n"
      "hash = x # y\nequals = b=c==\nempty =\nlast = 2");
  const std::pair<const char*, const char*> values[] = {{"a", "default"},  // a comment
                                                        {"server", "tcp://[2001:db8::1]:5555"},
                                                        {"b", "x y"},
                                                        {"c", "1"},
                                                        {"hash", "x # y"},
                                                        {"equals", "b=c=="},
                                                        {"empty", ""},
                                                        {"last", "2"}};
  for (const auto& [key, value] : values)
    EXPECT_EQ(file.getStringVal(key, "default"), value) << key;
  EXPECT_FALSE(file.has("a"));
  EXPECT_FALSE(file.has("# a"));
  EXPECT_TRUE(file.has("empty"));
  EXPECT_FALSE(load("").has("a"));
}

TEST_F(SettingsFileTest, WholeThirtyTwoBitNumbersAreNumbers) {
  const SettingsFile file = load("a = 2147483647\nb = -2147483648\nc = 0\n");
  EXPECT_EQ(file.getIntVal("a", 1), 2147483647);
  EXPECT_EQ(file.getIntVal("b", 1), -2147483647 - 1);
  EXPECT_EQ(file.getIntVal("c", 1), 0);
}

TEST_F(SettingsFileTest, AnythingElseReadsAsTheDefaultAndIsReported) {
  for (const char* text : {"2147483648", "10 %", "ten", "1.5", "0x10", "", "+5"}) {
    const SettingsFile file = load("# first line\nn = " + std::string(text) + "\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(file.getIntVal("n", 10), 10) << text;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "settings:2: n = '" + std::string(text) +
                  "' is no whole 32-bit number, using 10 instead\n");
  }
}

TEST_F(SettingsFileTest, WhatIsNoSettingsFileIsAnErrorThatNamesFileAndLine) {
  EXPECT_EQ(error("a = 1\nzmq.server\n"), "settings:2: expected 'key = value', found 'zmq.server'");
  EXPECT_EQ(error("a = 1\n\n = 2\n"), "settings:3: there is no key before the '='");
  EXPECT_EQ(error("a = 1\nb = 2\na = 3\n"), "settings:3: 'a' is set twice, first in line 1");
  EXPECT_EQ(opening_error("nowhere"),
            "nowhere: cannot read the settings: No such file or directory");
  EXPECT_EQ(opening_error(dir.path()), dir.path() + ": this is a folder, not a settings file");
}

}  // namespace
