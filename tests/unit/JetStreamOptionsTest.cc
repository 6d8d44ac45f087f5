// What the command line says about a JetStream engine, the subjects of events, and the file of
// events that an engine did not take.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <flatbuffers/flatbuffers.h>

#include "EventJson.h"
#include "EventSubject.h"
#include "JetStreamOptions.h"
#include "NatsOptions.h"
#include "RawEvents.h"
#include "TempDir.h"
#include "UnsentFile.h"
#include "aggregator_generated.h"

namespace {

using namespace zmqwriter;
using testing::ElementsAre;
using testing::HasSubstr;
namespace schema = Dravenholt;
using Strings = std::vector<std::string>;

std::string event(const std::string& agent, schema::Data type = schema::Data_NONE) {
  flatbuffers::FlatBufferBuilder builder;
  const auto agent_id = builder.CreateString(agent);
  builder.Finish(schema::CreateNetworkEvent(builder, 0, 1.0, 0, agent_id, type));
  return {reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize()};
}

TEST(NatsServersTest, EachServerHasAScheme) {
  const std::pair<const char*, Strings> good[] = {
      {"nats://a", {"nats://a:4222"}},
      {"nats://a:1,tls://b:65535", {"nats://a:1", "tls://b:65535"}},
      {"nats://[::1]", {"nats://[::1]:4222"}},
      {"nats://[::1]:5", {"nats://[::1]:5"}},
  };
  for (const auto& [list, servers] : good)
    EXPECT_EQ(nats_servers(list), servers) << list;
  for (const char* const list :
       {"", "a", "a:4222", "http://a", "nats://", "nats://:4222", "nats://a:0", "nats://a:65536",
        "nats://a:", "nats://a:x", "nats://a/b", "nats://a,", "nats://a, nats://b", "nats://a?b"})
    EXPECT_THROW(nats_servers(list), std::invalid_argument) << list;
}

TEST(NatsServersTest, ASecretIsRefusedAndNotRepeated) {
  for (const char* const list : {"nats://user:pass@a", "nats://pass@a:1", "nats://a,tls://pass@b"})
    try {
      nats_servers(list);
      ADD_FAILURE() << list;
    } catch (const std::invalid_argument& problem) {
      EXPECT_THAT(problem.what(), HasSubstr("--nats-user FILE"));
      EXPECT_THAT(problem.what(), Not(HasSubstr("pass")));
    }
}

TEST(SubjectPrefixTest, WordsHaveDotsBetween) {
  for (const char* const good : {"a", "a.b", "a-b_c.9", "zmqwriter"})
    EXPECT_EQ(subject_prefix_problem(good), "") << good;
  for (const std::string& bad :
       {std::string(), std::string("."), std::string("a."), std::string(".a"), std::string("a..b"),
        std::string("a b"), std::string("a\tb"), std::string("a.*"), std::string(">"),
        std::string("$JS.API"), std::string("a\r\nPUB"), std::string(201, 'a')})
    EXPECT_NE(subject_prefix_problem(bad), "") << bad;
}

TEST(EventSubjectTest, AnAgentIsOneToken) {
  const std::pair<std::string, std::string> tokens[] = {
      {"", "_"},
      {"_", "%5F"},
      {"__", "__"},
      {"probe-1", "probe-1"},
      {"a.b", "a%2Eb"},
      {"a b\n*>%", "a%20b%0A%2A%3E%25"},
      {"\xff\xc3\xb6", "%FF%C3%B6"},
      {std::string(1, '\0'), "%00"},
      {std::string(255, 'x'), std::string(255, 'x')},
      {std::string(256, 'x'), std::string(255, 'x')},
  };
  for (const auto& [agent, token] : tokens)
    EXPECT_EQ(agent_token(agent), token);
  const std::string raw = event("a.b", schema::Data_HttpData);
  EXPECT_EQ(event_subject("p.q", EventMessage(raw.data(), raw.size())), "p.q.HttpData.a%2Eb");
}

TEST(StreamLimitsTest, UnitsAreMultiplied) {
  const StreamLimits none = stream_limits("");
  EXPECT_THAT((std::vector{none.replicas, none.max_age_s, none.max_bytes, none.max_msgs}),
              ElementsAre(1, 0, 0, 0));
  const StreamLimits all = stream_limits("max-msgs=9,max-bytes=3G,max-age=7d,replicas=5");
  EXPECT_THAT((std::vector{all.replicas, all.max_age_s, all.max_bytes, all.max_msgs}),
              ElementsAre(5, 7 * 86400, std::int64_t{3} << 30, 9));
  const std::pair<const char*, std::int64_t> ages[] = {
      {"max-age=5", 5},
      {"max-age=5s", 5},
      {"max-age=5m", 300},
      {"max-age=5h", 18000},
      {"max-age=36500d", std::int64_t{36500} * 86400}};
  for (const auto& [text, seconds] : ages)
    EXPECT_EQ(stream_limits(text).max_age_s, seconds) << text;
  for (const char* const bad :
       {"replicas", "replicas=", "replicas=0", "replicas=6", "replicas=-1", "replicas=1d",
        "replicas=1,replicas=2", "max-age=36501d", "max-age=5w", "max-age=1.5h", "max-bytes=d",
        "max-bytes=9223372036854775807T", "max-msgs=1K", "age=5", ",", "replicas=1,,max-age=1",
        "replicas=1 "})
    EXPECT_THROW(stream_limits(bad), std::invalid_argument) << bad;
}

/// In place of the system's: what was forced to disk, a folder as "folder", a file as its size.
std::vector<std::string> synced;

extern "C" int fsync(int descriptor) {
  struct stat status;
  if (fstat(descriptor, &status) != 0)
    return -1;
  synced.push_back(S_ISDIR(status.st_mode) ? "folder" : std::to_string(status.st_size));
  return 0;
}

class UnsentFileTest : public testing::Test {
 protected:
  static std::string id(char digit) {
    return std::string(16, digit) + '-' + std::string(16, digit);
  }
  /// What reading the file gives as a problem; empty if it gives events.
  static std::string problem() {
    try {
      return read_unsent_file("unsent").empty() ? "no events" : "";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }
  test::TempDir folder_;
};

TEST_F(UnsentFileTest, EventsComeBackWithTheirIds) {
  EXPECT_THAT(read_unsent_file("unsent"), testing::IsEmpty());
  test::write_file("unsent", "something else");
  test::write_file("unsent.new", "left by a run that was killed");
  const std::vector<UnsentEvent> events = {{id('1'), event("a")}, {id('f'), event("bb")}};
  write_unsent_file("unsent", events);
  const std::vector<UnsentEvent> read = read_unsent_file("unsent");
  ASSERT_EQ(read.size(), 2u);
  for (std::size_t i = 0; i < 2; ++i)
    EXPECT_TRUE(read[i].id == events[i].id && read[i].raw == events[i].raw);
  struct stat status;
  ASSERT_EQ(stat("unsent", &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_NE(stat("unsent.new", &status), 0);
}

TEST_F(UnsentFileTest, ItsContentAndItsNameAreOnDiskAtTheEnd) {
  synced.clear();
  write_unsent_file("unsent", {{id('1'), event("a")}});
  EXPECT_THAT(synced, ElementsAre(std::to_string(test::read_file("unsent").size()), "folder"));
}

TEST_F(UnsentFileTest, WhatCannotBeWrittenLeavesTheFormerFile) {
  EXPECT_THROW(write_unsent_file("no/folder", {}), std::runtime_error);
  test::write_file("unsent", "former");
  ASSERT_EQ(mkdir("unsent.new", 0700), 0);
  EXPECT_THROW(write_unsent_file("unsent", {}), std::runtime_error);
  EXPECT_EQ(test::read_file("unsent"), "former");
}

TEST_F(UnsentFileTest, ADamagedOrForeignFileIsRefused) {
  write_unsent_file("unsent", {{id('1'), event("a")}, {id('2'), event("b")}});
  const std::string whole = test::read_file("unsent");
  std::string raw, cut_id, strange_id;
  append_raw_event(&raw, event("a"));
  append_raw_event(&cut_id, event("a") + id('1').substr(1));
  append_raw_event(&strange_id, event("a") + std::string(31, 'a') + "\r\n");
  for (const std::string& content :
       {whole.substr(0, whole.size() - 1), whole.substr(0, whole.size() - 40), whole.substr(1),
        whole + "x", raw, cut_id, strange_id, event("a"), std::string("{\"uid\":\"C1\"}\n")}) {
    test::write_file("unsent", content);
    EXPECT_THAT(problem(), HasSubstr("unsent: "));
  }
  test::write_file("unsent", whole);
  EXPECT_EQ(problem(), "");
}

}  // namespace
