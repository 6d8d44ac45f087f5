// The scripts inside the host and `zmqwriter replay` outside of it make the same records out of the
// same logs: the columns that the plug-in reads have the same names and types either way.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <set>
#include <string>

#include "AsciiLog.h"
#include "RecordMapping.h"
#include "TempDir.h"

namespace {

/// Column -> type, e.g. "http.uri" -> "string".
using Columns = std::map<std::string, std::string>;

/// What replay makes of a stock log.
Columns replayed(const std::string& file, bool with_uid = true) {
  const zmqwriter::AsciiLog log(file);
  const zmqwriter::RecordMapping mapping(log.path(), log.columns());
  Columns result;
  for (const threading::Field& field : with_uid ? mapping.fields() : mapping.fields_without_uid())
    result[field.name] = field.TypeName();
  return result;
}

/// The columns that the plug-in reads of a record of this path.
std::set<std::string> read_by_the_plugin(const std::string& path) {
  const std::map<std::string, std::set<std::string>> payload = {
      {"conn",
       {"id.orig_h", "id.resp_h", "id.orig_p", "id.resp_p", "proto", "duration", "orig_bytes",
        "resp_bytes", "conn_state", "local_orig", "local_resp", "orig_pkts", "orig_ip_bytes",
        "resp_pkts", "missed_bytes", "resp_ip_bytes", "service"}},
      {"ftp", {"ftp.user", "ftp.command", "ftp.arg", "ftp.reply_code", "ftp.file_size"}},
      {"http",
       {"http.user", "http.method", "http.host", "http.uri", "http.status_code",
        "http.request_body_len", "http.response_body_len"}},
      {"smtp", {"smtp.from", "smtp.to", "smtp.subject"}}};
  std::set<std::string> result = payload.at(path);
  result.insert({"ptype", "ts", "uid"});
  return result;
}

/// In a folder with empty logs: of the scripts' streams (ours-*.log) and the host's (host-*.log).
class ScriptsShapeTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string scripts = ZMQWRITER_SOURCE_DIR "/scripts' '" ZMQWRITER_STUB "' '";
    const std::string command = "'" ZMQWRITER_PYTHON "' -B '" ZMQWRITER_SOURCE_DIR
                                "/tests/system/bro_run.py' '" +
                                scripts + ZMQWRITER_TEST_DATA "/host-declarations.bro' .";
    ASSERT_EQ(system(command.c_str()), 0) << command;
  }

  static Columns ours(const std::string& path) {
    const zmqwriter::AsciiLog log("ours-" + path + ".log");
    Columns result;
    for (const auto& column : log.columns()) {
      const threading::Field field(column.name.c_str(), nullptr, column.type, column.subtype, true);
      result[column.name] = field.TypeName();
    }
    return result;
  }

  const test::TempDir dir_;
};

TEST_F(ScriptsShapeTest, EveryColumnThatThePluginReadsIsTheSameInScriptsAndReplay) {
  for (const char* path : {"conn", "ftp", "http", "smtp"}) {
    const Columns replay = replayed(std::string("host-") + path + ".log");
    Columns scripts = ours(path);
    for (const std::string& name : read_by_the_plugin(path)) {
      ASSERT_EQ(scripts.count(name), 1u) << name << " is missing in the scripts' record";
      ASSERT_EQ(replay.count(name), 1u) << name << " is missing in replay's record";
      EXPECT_EQ(scripts.at(name), replay.at(name)) << name;
    }
    // What only the scripts have: the owner of the socket, and what the host's own record under the
    // log's name repeats. None of it means anything to the plug-in.
    for (const auto& column : replay)
      scripts.erase(column.first);
    EXPECT_EQ(scripts.erase("username") + scripts.erase("process"),
              path == std::string("conn") ? 2u : 0u);
    for (const auto& column : scripts) {
      const std::string name = column.first.substr(std::string(path).size());
      EXPECT_TRUE(name == ".ts" || name == ".uid" || name.find(".id.") == 0) << column.first;
    }
  }
}

TEST_F(ScriptsShapeTest, PairsHaveTheColumnsOfReplayWithAndWithoutUid) {
  const std::string head = "#separator \\x09\n#path\tdns\n#fields\tts\tuid\tquery\n";
  test::write_file("dns.log", head + "#types\ttime\tstring\tstring\n");
  EXPECT_EQ(ours("pairs"), replayed("dns.log"));
  EXPECT_EQ(ours("pairs_without_uid"), replayed("dns.log", false));
}

TEST_F(ScriptsShapeTest, StatisticsAreTheFieldsOfSystemStatsAsTheyAre) {
  EXPECT_EQ(ours("system_stats").size(), 9u);
  EXPECT_EQ(replayed("ours-system_stats.log"), ours("system_stats"));
}

}  // namespace
