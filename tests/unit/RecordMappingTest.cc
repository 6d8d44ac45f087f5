// How the records of the host's logs, and their writers, get their names.
#include "RecordMapping.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "AsciiLog.h"
#include "LogFeed.h"
#include "ShowValue.h"
#include "TempDir.h"

static std::size_t allocations = 0;

void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = std::malloc(size ? size : 1))
    return memory;
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

using testing::ElementsAre;
using zmqwriter::AsciiLog;

/// The first record of a log, mapped: one "name:type=value" per field.
std::vector<std::string> map(const std::string& content) {
  const test::TempDir dir;
  test::write_file("x.log", content);
  AsciiLog log("x.log");
  const zmqwriter::RecordMapping mapping(log.path(), log.columns());
  EXPECT_EQ(log.Next(), AsciiLog::Step::kRecord);
  const std::vector<threading::Field>& fields =
      mapping.LacksUid(log) ? mapping.fields_without_uid() : mapping.fields();
  threading::Value** const record = mapping.Map(&log);
  std::vector<std::string> seen;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const threading::Field& field = fields[i];
    EXPECT_EQ(record[i]->type, field.type) << "the host refuses such a record";
    seen.push_back(std::string(field.name) + ":" + field.TypeName() + "=" + test::show(*record[i]));
    delete record[i];
  }
  delete[] record;
  return seen;
}

std::string header(const std::string& path) {
  return "#separator \\x09\n#path\t" + path + "\n";
}

TEST(RecordMappingTest, ConnectionsAreGeneralAndKeepTheirNames) {
  EXPECT_THAT(map(header("conn") +
                  "#fields\tts\tuid\tid.orig_h\tid.orig_p\tproto\tduration\ttunnel_parents\n"
                  "#types\ttime\tstring\taddr\tport\tenum\tinterval\tset[string]\n"
                  "1.5\tC1\t192.0.2.1\t80\ttcp\t-\t(empty)\n"),
              ElementsAre("ptype:string='general'", "ts:time=1.5", "uid:string='C1'",
                          "id.orig_h:addr=v4:c0000201", "id.orig_p:port=80", "proto:enum='tcp'",
                          "duration:interval=unset", "tunnel_parents:set[string]={}"));
}

TEST(RecordMappingTest, EachProtocolGetsItsTypeAndPrefix) {
  const struct {
    const char* path;
    const char* ptype;
    const char* username;  // what a column of that name becomes
  } cases[] = {{"conn", "general", "username"},        {"http", "http", "http.user"},
               {"ftp", "ftp", "ftp.username"},         {"ldap", "ldap", "ldap.username"},
               {"smb", "smb", "smb.username"},         {"smtp", "smtp", "smtp.username"},
               {"tds", "tds", "tds.username"},         {"dce_rpc", "dce-rpc", "dce.username"},
               {"tn5250", "tn5250", "tn5250.username"}};
  for (const auto& [path, ptype, username] : cases) {
    EXPECT_THAT(map(header(path) + "#fields\tts\tusername\n#types\ttime\tstring\n2\tx\n"),
                ElementsAre("ptype:string='" + std::string(ptype) + "'", "ts:time=2",
                            username + std::string(":string='x'")));
  }
}

TEST(RecordMappingTest, OtherPathsBecomePairsWithoutAType) {
  EXPECT_THAT(
      map(header("dns") + "#fields\tts\tuid\tid.orig_h\tquery\trcode\tanswers\tAA\trejected\n"
                          "#types\ttime\tstring\taddr\tstring\tcount\tvector[string]\tbool\tbool\n"
                          "1.5\tC1\t2001:db8::1\ta\\x2cb.example.com\t-\tx,-,y\\x2cz\tT\t-\n"),
      ElementsAre("ts:time=1.5", "uid:string='C1'",
                  "extra_fields:vector[string]=['_path' 'id.orig_h' 'query' 'answers' 'AA']",
                  "extra_vals:vector[string]=['dns' '2001:db8::1' 'a,b.example.com' 'x,-,y,z' "
                  "'T']"));
}

TEST(RecordMappingTest, PairsOfALogWithoutTimeAndUidStandAlone) {
  EXPECT_THAT(map(header("known_hosts") + "#fields\thost\tn\n#types\taddr\tcount\n192.0.2.7\t3\n"),
              ElementsAre("extra_fields:vector[string]=['_path' 'host' 'n']",
                          "extra_vals:vector[string]=['known_hosts' '192.0.2.7' '3']"));
}

TEST(RecordMappingTest, UidWithoutAValueIsLeftOutOfARecordOfAnyKind) {
  const std::string columns = "#fields\tts\tuid\tname\n#types\ttime\tstring\tstring\n";
  EXPECT_THAT(map(header("weird") + columns + "1\t-\t(empty)\n"),
              ElementsAre("ts:time=1", "extra_fields:vector[string]=['_path' 'name']",
                          "extra_vals:vector[string]=['weird' '']"));
  EXPECT_THAT(map(header("conn") + columns + "1\t-\tx\n"),
              ElementsAre("ptype:string='general'", "ts:time=1", "name:string='x'"));
  EXPECT_THAT(map(header("own") + "#fields\tuid\tptype\n#types\tstring\tstring\n-\tftp\n"),
              ElementsAre("ptype:string='ftp'"));
}

TEST(RecordMappingTest, EmptyUidIsAValue) {
  EXPECT_THAT(map(header("weird") + "#fields\tuid\n#types\tstring\n(empty)\n"),
              ElementsAre("uid:string=''", "extra_fields:vector[string]=['_path']",
                          "extra_vals:vector[string]=['weird']"));
}

TEST(RecordMappingTest, TimeWithoutAValueStaysInTheRecord) {
  EXPECT_THAT(map(header("weird") + "#fields\tts\n#types\ttime\n-\n"),
              ElementsAre("ts:time=unset", "extra_fields:vector[string]=['_path']",
                          "extra_vals:vector[string]=['weird']"));
}

TEST(RecordMappingTest, ColumnTsThatIsNoTimeIsAPair) {
  for (const char* const type : {"string", "double", "interval", "count"}) {
    EXPECT_THAT(map(header("site") + "#fields\tts\tuid\n#types\t" + type + "\tstring\n7\tC1\n"),
                ElementsAre("uid:string='C1'", "extra_fields:vector[string]=['_path' 'ts']",
                            "extra_vals:vector[string]=['site' '7']"));
  }
}

TEST(RecordMappingTest, LogsOfThePluginsOwnShapePassUnchanged) {
  EXPECT_THAT(map(header("http") + "#fields\tts\tptype\textra\n#types\ttime\tstring\tset[count]\n"
                                   "1\thttp-in\t-\n"),
              ElementsAre("ts:time=1", "ptype:string='http-in'", "extra:set[count]=unset"));
  EXPECT_THAT(map(header("other") + "#fields\textra_fields\n#types\tvector[string]\na,b\n"),
              ElementsAre("extra_fields:vector[string]=['a' 'b']"));
  EXPECT_THAT(map(header("system_stats") + "#fields\tcpu_usage\tpriority\n#types\tdouble\tint\n"
                                           "0.5\t-3\n"),
              ElementsAre("cpu_usage:double=0.5", "priority:int=-3"));
}

TEST(WriterPathsTest, EachOfManyEqualPathsIsNamedAtTheFirstAttempts) {
  const std::string path = "a path too long for a string without an allocation";
  zmqwriter::WriterPaths paths;
  EXPECT_EQ(paths.Unique(path + "-3"), path + "-3");
  EXPECT_EQ(paths.Unique(path), path);
  EXPECT_EQ(paths.Unique(path), path + "-2");
  EXPECT_EQ(paths.Unique(path), path + "-4");
  EXPECT_EQ(paths.Unique(path + "-3"), path + "-3-2");
  allocations = 0;
  for (int number = 5; number < 1000; ++number)
    ASSERT_EQ(paths.Unique(path), path + "-" + std::to_string(number));
  EXPECT_LT(allocations, 20 * 1000u);
}

}  // namespace
