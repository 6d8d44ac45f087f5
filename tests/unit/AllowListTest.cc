// The file of the clients' keys.
#include "ClientGate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "TempDir.h"

namespace {

using namespace zmqwriter;
using testing::HasSubstr;

class AllowListTest : public testing::Test {
 protected:
  AllowList read(const std::string& content) {
    test::write_file("allowed", content);
    return read_allow_list("allowed");
  }

  std::string error(const std::string& content) {
    try {
      read(content);
    } catch (const std::runtime_error& problem) {
      return problem.what();
    }
    return "no error";
  }

  const std::string key_ = "00112233445566778899aabbccddeeffF0E1D2C3B4A5968778695A4B3C2D1E0F";
  test::TempDir temp_;
};

TEST_F(AllowListTest, KeysOfEitherCaseAreTakenByteForByte) {
  const AllowList keys = read(key_);
  ASSERT_EQ(keys.size(), 1u);
  EXPECT_EQ(to_hex(*keys.begin()),
            "00112233445566778899AABBCCDDEEFFF0E1D2C3B4A5968778695A4B3C2D1E0F");
}

TEST_F(AllowListTest, CommentsBlankLinesAndRepeatsAreSkipped) {
  const std::string other(64, '7');
  EXPECT_EQ(read("# head\n\n \t\n" + key_ + " # who\r\n  " + other + "#x\n" + key_).size(), 2u);
}

TEST_F(AllowListTest, WhatIsNoKeyIsNamedByItsLine) {
  EXPECT_EQ(error(key_ + "\n\n" + key_ + "0"),
            "allowed:3: a key has 64 hexadecimal digits, this line holds 65 characters");
  EXPECT_EQ(error("x"), "allowed:1: a key has 64 hexadecimal digits, this line holds 1 characters");
  EXPECT_EQ(error("-" + key_.substr(1)),
            "allowed:1: character 1 of the key is not a hexadecimal digit");
  EXPECT_EQ(error(key_.substr(0, 63) + "\xff"),
            "allowed:1: character 64 of the key is not a hexadecimal digit");
  EXPECT_THAT(error(key_.substr(0, 31) + '\0' + key_.substr(32)), HasSubstr("character 32"));
}

TEST_F(AllowListTest, FileThatWouldLetNobodyInIsAnError) {
  EXPECT_THAT(error(""), HasSubstr("allowed: holds no key"));
  EXPECT_THAT(error("# " + key_ + "\n"), HasSubstr("holds no key"));
}

TEST_F(AllowListTest, EndlessFileIsRefused) {
  EXPECT_THAT(error(std::string((4 << 20) + 1, '\n')),
              HasSubstr("allowed: longer than 4194304 bytes"));
  EXPECT_EQ(read(key_ + std::string((4 << 20) - 64, '\n')).size(), 1u);
}

}  // namespace
