// Troubles of a JetStream engine, told apart and in words.
#include "EventStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace zmqwriter;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(EventStreamTest, TroublesAreToldApart) {
  struct Case {
    natsStatus status;
    int error_code;
    StreamTrouble trouble;
    const char* words;
  };
  const Case cases[] = {
      {NATS_ERR, 10059, StreamTrouble::kNoStream, "text"},
      {NATS_NO_RESPONDERS, 0, StreamTrouble::kNoStream, "no stream takes these subjects"},
      {NATS_ERR, 10077, StreamTrouble::kFull, "the stream is full (text)"},
      {NATS_ERR, 10002, StreamTrouble::kFull, "the servers have no room left (text)"},
      {NATS_ERR, 10047, StreamTrouble::kFull, "the servers have no room left (text)"},
      {NATS_NOT_PERMITTED, 0, StreamTrouble::kNotAuthorised, "text"},
      {NATS_CONNECTION_AUTH_FAILED, 0, StreamTrouble::kNotAuthorised, "text"},
      {NATS_ERR, 10008, StreamTrouble::kNoQuorum, "too few servers"},
      {NATS_ERR, 10118, StreamTrouble::kNoQuorum, "too few servers"},
      {NATS_TIMEOUT, 0, StreamTrouble::kNoQuorum, "no answer in time"},
      {NATS_NO_SERVER, 0, StreamTrouble::kConnectionLost, "text"},
      {NATS_INSUFFICIENT_BUFFER, 0, StreamTrouble::kConnectionLost, "text"},
      {NATS_CONNECTION_CLOSED, 0, StreamTrouble::kConnectionLost, "text"},
      {NATS_ERR, 10039, StreamTrouble::kOther, "start the servers with --jetstream"},
      {NATS_ERR, 0, StreamTrouble::kOther, "text"},
  };
  for (const Case& each : cases) {
    const StreamProblem problem = stream_problem(each.status, each.error_code, "text");
    EXPECT_EQ(problem.trouble, each.trouble) << each.status << ' ' << each.error_code;
    EXPECT_THAT(problem.words, HasSubstr(each.words));
  }
  EXPECT_NE(stream_problem(NATS_NOT_PERMITTED, 0, "").words, "");
}

TEST(EventStreamTest, OnlyWhatIsWorseIsADifference) {
  FoundStream stream;
  stream.name = "s";
  stream.retention = "limits";
  stream.limits = {3, 0, 0, 0};
  EXPECT_THAT(stream_differences(stream, {1, 0, 0, 0}), ElementsAre());
  stream.limits = {1, 60, 1000, 10};
  stream.retention = "workqueue";
  stream.discards_old = stream.in_memory = true;
  EXPECT_THAT(stream_differences(stream, {3, 120, 0, 20}),
              ElementsAre(AllOf(HasSubstr("replicas=1, not 3"), HasSubstr("stays as it is")),
                          HasSubstr("retention workqueue"), HasSubstr("deletes its oldest"),
                          HasSubstr("not on disk"), HasSubstr("max-age (s)=60, not 120"),
                          HasSubstr("max-bytes=1000, not 0"), HasSubstr("max-msgs=10, not 20")));
}

}  // namespace
