// The host's settings file: what its lines mean and which lines are errors.
#include "SettingsFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "TempDir.h"

namespace {

using testing::StartsWith;

class SettingsFileTest : public testing::Test {
 protected:
  static SettingsFile load(const std::string& content) {
    test::write_file("settings", content);
    return SettingsFile("settings");
  }

  static std::string error(const std::string& content) {
    try {
      load(content);
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

TEST_F(SettingsFileTest, ValuesAreReadWithoutTheWhiteSpaceAroundThem) {
  const SettingsFile file = load("zmq.server = tcp://[2001:db8::1]:5555 \n\tb\t=\tx y\t\nc=1\n");
  EXPECT_EQ(file.getStringVal("zmq.server", ""), "tcp://[2001:db8::1]:5555");
  EXPECT_EQ(file.getStringVal("b", ""), "x y");
  EXPECT_EQ(file.getStringVal("c", ""), "1");
}

TEST_F(SettingsFileTest, CommentsAndBlankLinesAreSkipped) {
  const SettingsFile file = load("# a = 1\n\n   \n#\nb = 2\n");
  EXPECT_FALSE(file.has("a"));
  EXPECT_FALSE(file.has("# a"));
  EXPECT_EQ(file.getStringVal("b", ""), "2");
}

TEST_F(SettingsFileTest, HashInsideALineIsPartOfIt) {
  EXPECT_EQ(load("a = x # y\n").getStringVal("a", ""), "x # y");
}

TEST_F(SettingsFileTest, ValueMayHoldEqualsSigns) {
  EXPECT_EQ(load("a = b=c==\n").getStringVal("a", ""), "b=c==");
}

TEST_F(SettingsFileTest, EmptyValueIsSetToTheEmptyText) {
  const SettingsFile file = load("a =\n");
  EXPECT_TRUE(file.has("a"));
  EXPECT_EQ(file.getStringVal("a", "default"), "");
}

TEST_F(SettingsFileTest, CarriageReturnsAndAMissingLastLineEndDoNotMatter) {
  const SettingsFile file = load("a = 1\r\n\r\nb = 2");
  EXPECT_EQ(file.getStringVal("a", ""), "1");
  EXPECT_EQ(file.getIntVal("b", 0), 2);
}

TEST_F(SettingsFileTest, EmptyFileIsValid) {
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

TEST_F(SettingsFileTest, LineWithoutEqualsSignIsAnErrorWithItsNumber) {
  EXPECT_EQ(error("a = 1\nzmq.server\n"), "settings:2: expected 'key = value', found 'zmq.server'");
}

TEST_F(SettingsFileTest, EmptyKeyIsAnError) {
  EXPECT_EQ(error("a = 1\n\n = 2\n"), "settings:3: there is no key before the '='");
}

TEST_F(SettingsFileTest, KeySetTwiceIsAnErrorThatNamesBothLines) {
  EXPECT_EQ(error("a = 1\nb = 2\na = 3\n"), "settings:3: 'a' is set twice, first in line 1");
}

TEST_F(SettingsFileTest, MissingFileIsAnErrorThatNamesIt) {
  EXPECT_THROW(
      {
        try {
          SettingsFile file("nowhere");
        } catch (const std::runtime_error& problem) {
          EXPECT_STREQ(problem.what(),
                       "nowhere: cannot read the settings: No such file or directory");
          throw;
        }
      },
      std::runtime_error);
}

TEST_F(SettingsFileTest, FolderIsAnErrorThatNamesIt) {
  try {
    SettingsFile file(dir.path());
    FAIL() << "accepted";
  } catch (const std::runtime_error& problem) {
    EXPECT_EQ(problem.what(), dir.path() + ": this is a folder, not a settings file");
  }
}

}  // namespace
