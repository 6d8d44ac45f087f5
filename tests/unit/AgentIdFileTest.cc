// The agent's identifier: found in its file, or generated and stored there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "AgentIdFile.h"

#include "Conversion.h"
#include "FileSizeLimit.h"
#include "TempDir.h"

using logging::writer::AgentIdDetection;
using test::FileSizeLimit;
using test::read_file;
using test::write_file;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

namespace {

const char kFile[] = "orvik/agent.id";
const char kNotWritten[] = "Failed to write to orvik/agent.id";

class AgentIdFile : public test::ReportingTest {
 protected:
  void use_file(const std::string& content) {
    std::filesystem::create_directory("orvik");
    write_file(kFile, content);
  }

  /// As at the next start of the process.
  static std::string detect_anew() {
    AgentIdDetection next;
    return next.detect();
  }

  test::TempDir dir_;
  AgentIdDetection detection_;
};

void expect_generated(const std::string& agent_id) {
  EXPECT_THAT(agent_id, MatchesRegex("[0-9a-zA-Z]+"));
  EXPECT_GE(agent_id.size(), 2u);
  EXPECT_LE(agent_id.size(), 22u);
}

}  // namespace

TEST_F(AgentIdFile, IsTakenWithItsLineEnd) {
  use_file("abc\n");
  EXPECT_EQ("abc\n", detection_.detect());
  EXPECT_EQ("abc\n", read_file(kFile));
}

TEST_F(AgentIdFile, FirstThousandAndTwentyFourBytesOfALongFileAreTaken) {
  const std::string content = std::string(1023, 'x') + "y" + std::string(1976, 'z');
  ASSERT_EQ(3000u, content.size());
  use_file(content);
  EXPECT_EQ(std::string(1023, 'x') + "y", detection_.detect());
  EXPECT_EQ(content, read_file(kFile));
}

TEST_F(AgentIdFile, EmptyFileIsFilledWithANewIdentifierWithoutALineEnd) {
  use_file("");
  const std::string agent_id = detection_.detect();
  expect_generated(agent_id);
  EXPECT_EQ(agent_id, read_file(kFile));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(AgentIdFile, MissingFolderIsCreatedForItsOwnerAndGroup) {
  const mode_t umask_before = umask(0);
  const std::string agent_id = detection_.detect();
  umask(umask_before);
  struct stat info;
  ASSERT_EQ(0, stat("orvik", &info));
  EXPECT_EQ(0770u, info.st_mode & 07777u);
  expect_generated(agent_id);
  EXPECT_EQ(agent_id, read_file(kFile));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(AgentIdFile, EachStartWithoutAFileGeneratesAnother) {
  const std::string agent_id = detection_.detect();
  std::filesystem::remove(kFile);
  EXPECT_NE(agent_id, detect_anew());
}

TEST_F(AgentIdFile, GeneratedIdentifierHoldsBothWordsOfItsHundredAndTwentyEightBits) {
  // One word has 11 characters at most, and a word of zero is the one character "0". Two random
  // words are practically never that short, least of all twenty times.
  constexpr std::size_t kMostOfOneWord = 11 + 1;
  std::size_t longest = 0;
  for (int i = 0; i < 20; i++) {
    std::filesystem::remove_all("orvik");
    longest = std::max(longest, detect_anew().size());
  }
  EXPECT_GT(longest, kMostOfOneWord);
}

TEST_F(AgentIdFile, FileThatCannotBeMadeOpenedOrFilledIsReported) {
  const FileSizeLimit none(0);
  expect_generated(detect_anew());
  EXPECT_THAT(errors(), ElementsAre(kNotWritten)) << "no room";
  std::filesystem::remove(kFile);
  std::filesystem::create_directory(kFile);
  expect_generated(detect_anew());
  EXPECT_THAT(errors(), ElementsAre(kNotWritten, kNotWritten)) << "a folder in its place";
}

TEST_F(AgentIdFile, IdentifierThatCouldNotBeStoredStaysAndIsStoredLater) {
  write_file("orvik", "a file where the folder should be");
  const std::string agent_id = detection_.detect();
  expect_generated(agent_id);
  EXPECT_THAT(errors(), ElementsAre(kNotWritten));
  EXPECT_EQ(agent_id, detection_.detect());
  std::filesystem::remove("orvik");
  EXPECT_EQ(agent_id, detection_.detect());
  EXPECT_EQ(agent_id, read_file(kFile));
}

// A file that can be written but not read looks like a missing one each time.
TEST_F(AgentIdFile, IdentifierThatCannotBeReadBackStays) {
  const std::string agent_id = detection_.detect();
  std::filesystem::remove(kFile);
  EXPECT_EQ(agent_id, detection_.detect());
  EXPECT_EQ(agent_id, read_file(kFile));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(AgentIdFile, GeneratedIdentifierStaysWhenAnotherIsPutIntoTheFile) {
  const std::string agent_id = detection_.detect();
  write_file(kFile, "another");
  EXPECT_EQ(agent_id, detection_.detect());
  EXPECT_EQ("another", read_file(kFile));
  EXPECT_EQ("another", detect_anew());
}

TEST_F(AgentIdFile, AFolderExistsWhenItCanBeOpened) {
  using logging::writer::directoryExists;
  write_file("file", "");
  EXPECT_TRUE(directoryExists("."));
  EXPECT_FALSE(directoryExists("file"));
  EXPECT_FALSE(directoryExists("missing"));
  EXPECT_FALSE(directoryExists(""));
}
