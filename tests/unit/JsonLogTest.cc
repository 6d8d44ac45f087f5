// The reader of logs in JSON: paths, columns, types, times.
#include "JsonLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ShowValue.h"
#include "TempDir.h"

namespace {

using testing::ElementsAre;
using zmqwriter::BadValue;
using zmqwriter::LogReader;
using Step = LogReader::Step;

/// "PATH name:value ... +name:text ..." of each record, set columns only; "header", "broken".
std::vector<std::string> read(const std::string& file, const std::string& content) {
  const test::TempDir dir;
  test::write_file(file, content);
  const auto log = zmqwriter::open_log(file);
  std::vector<std::string> seen;
  for (Step step; (step = log->Next()) != Step::kEnd;) {
    if (step != Step::kRecord) {
      seen.push_back(step == Step::kHeader ? "header" : "broken");
      continue;
    }
    std::string record = log->path();
    const auto values = log->TakeValues();
    for (std::size_t i = 0; i < values.size(); ++i) {
      EXPECT_EQ(values[i]->type, log->columns()[i].type);
      if (values[i]->present)
        record += " " + log->columns()[i].name + ":" + test::show(*values[i]);
    }
    for (std::size_t i = 0; i < log->extra_names().size(); ++i)
      record += " +" + log->extra_names()[i] + ":" + log->Text(values.size() + i);
    seen.push_back(record);
  }
  return seen;
}

TEST(JsonLogTest, KnownColumnsHaveTheirTypesAndWhatNoEventHoldsIsLeftOut) {
  EXPECT_THAT(
      read("conn.2024-01-01.log",
           R"({"ts":1.5,"uid":"C0","id.orig_h":"192.0.2.1","id":{"resp_p":80},"proto":"tcp",)"
           R"("duration":3,"local_orig":true,"service":null,"history":"S","orig_bytes":7})"
           "\n"),
      ElementsAre("header",
                  "conn ts:1.5 uid:'C0' id.orig_h:v4:c0000201 id.resp_p:80 proto:'tcp' "
                  "duration:3 orig_bytes:7 local_orig:1"));
  EXPECT_THAT(read("smtp.log", R"({"to":["a","b,c"],"reqSize":9})"
                               "\n"),
              ElementsAre("header", "smtp to:{'a' 'b,c'} reqSize:9"));
}

TEST(JsonLogTest, TimesInMillisecondsAndBytesThatTheHostEscapesAreRead) {
  EXPECT_THAT(
      read("http.log", R"({"ts":1433412000500,"host":"a\u00c3\u00a9\u00ff\u00e9 \\u00c3\u00a9"})"
                       "\n"
                       R"({"ts":100000000000,"host":"\u0041\u00"})"
                       "\n"
                       R"({"ts":100000000000,"host":"\u0041\u00e9"})"
                       "\n"),
      ElementsAre("header", "http ts:1433412000.5 host:'a\u00e9\u00ff\u00e9 \\u00c3\u00a9'",
                  "broken", "http ts:100000000000 host:'A\u00e9'"));
}

TEST(JsonLogTest, LogsThatNoStockHostHasAreKnownToo) {
  const struct {
    const char* path;
    const char* columns;  // JSON
    const char* values;
  } cases[] = {
      {"ldap", R"("user":"a","message":"b","resultCode":3,"base":"c")",
       "user:'a' message:'b' resultCode:3 base:'c'"},
      {"smb", R"("user":"a","share":"b","filename":"c","action":"d","filesize":5)",
       "user:'a' share:'b' filename:'c' action:'d' filesize:5"},
      {"tds", R"("user":"a","database":"b","app":"c","sql":"d")",
       "user:'a' database:'b' app:'c' sql:'d'"},
      {"dce_rpc",
       R"("request_type":"a","interface_uuid":"b","interface_name":"c","opnum":4,"method":"e",)"
       R"("arguments":"f","raw_args":"g")",
       "request_type:'a' interface_uuid:'b' interface_name:'c' opnum:4 method:'e' arguments:'f' "
       "raw_args:'g'"},
      {"tn5250", R"("protocol":"a","details":"b")", "protocol:'a' details:'b'"},
  };
  for (const auto& one : cases)
    EXPECT_THAT(read(std::string(one.path) + ".log", "{" + std::string(one.columns) + "}\n"),
                ElementsAre("header", std::string(one.path) + " " + one.values));
}

TEST(JsonLogTest, ColumnThatScriptsAddChangesTheHeaderOnce) {
  const std::string lines =
      "{\"conn_state\":\"SF\"}\n{\"process\":\"ssh\"}\n{\"conn_state\":\"S0\"}\n";
  EXPECT_THAT(read("conn.log", lines), ElementsAre("header", "conn conn_state:'SF'", "header",
                                                   "conn process:'ssh'", "conn conn_state:'S0'"));
}

TEST(JsonLogTest, OtherPathsHaveTheTextsThatTheirValuesShow) {
  EXPECT_THAT(read("x.log", R"({"b":[true,2,"z"],"_path":"dns","uid":"C1","a":{"n":-1.5,"e":[]}})"
                            "\n"
                            R"({"_path":"dns","c":"new","ts":2})"
                            "\n"),
              ElementsAre("header", "dns uid:'C1' +b:T,2,z +a.n:-1.5 +a.e:", "dns ts:2 +c:new"));
}

TEST(JsonLogTest, PluginsOwnColumnsHaveTheTypesOfTheirFirstValues) {
  EXPECT_THAT(read("x.log", R"({"ptype":"http","http.status_code":200,"extra_vals":["a"],"f":0.5})"
                            "\n"
                            R"({"ptype":"ftp","http.status_code":"none"})"
                            "\n"),
              ElementsAre("header", "x ptype:'http' http.status_code:200 extra_vals:['a'] f:0.5",
                          "broken"));
}

TEST(JsonLogTest, TimesInTheFormOfIso8601AreSecondsSince1970) {
  const struct {
    const char* text;
    const char* seconds;
  } times[] = {{"1970-01-01T00:00:00Z", "0"},
               {"2015-06-04T12:00:00.482913Z", "1433419200.482913"},
               {"2000-02-29T23:59:59", "951868799"},
               {"2100-03-01 00:00:00+0130", "4107537000"},
               {"1969-12-31T23:59:59.5-00:30", "1799.5"}};
  for (const auto& time : times)
    EXPECT_THAT(read("x.log", R"({"ts":")" + std::string(time.text) + "\"}\n"),
                ElementsAre("header", "x ts:" + std::string(time.seconds)));
  for (const char* const bad :
       {"", "2015-06-04", "2015-13-04T12:00:00Z", "2015-06-04T12:00:00X", "2015-06-04T12:00:Z",
        "2015-06-04T12:00:00+1", "2015-06-04T12:00:00Z ", "2015-06-04T12:00:1.2.3Z"})
    EXPECT_THAT(read("x.log", R"({"ts":")" + std::string(bad) + "\"}\n"),
                ElementsAre("header", "broken"))
        << bad;
}

}  // namespace
