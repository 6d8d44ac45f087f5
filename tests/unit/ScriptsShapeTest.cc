// The scripts inside the host and `zmqwriter replay` outside of it make the same records out of the
// same logs: the columns that the plug-in reads have the same names and types either way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "RecordMapping.h"
#include "TempDir.h"

namespace {

/// Column -> type, e.g. "http.uri" -> "string".
using Columns = std::map<std::string, std::string>;

struct Shapes {
  std::map<std::string, Columns> ours;        // path -> columns of the scripts' stream
  std::map<std::string, std::string> ptypes;  // path -> ptype that the scripts give
  std::map<std::string, std::vector<std::pair<std::string, std::string>>> host;  // stock columns
};

/// What the scripts' reader says about the streams of ours and of the host.
Shapes read_shapes() {
  const std::string command =
      std::string("'") + ZMQWRITER_PYTHON +
      "' -B '" ZMQWRITER_SOURCE_DIR "/tests/system/bro_scripts.py' --columns '" ZMQWRITER_SOURCE_DIR
      "/scripts' '" ZMQWRITER_STUB "' '" ZMQWRITER_TEST_DATA "/host-declarations.bro'";
  Shapes shapes;
  FILE* const pipe = popen(command.c_str(), "r");
  char line[1024];
  while (pipe && fgets(line, sizeof line, pipe)) {
    std::string whose, path, name, type, value;
    std::istringstream words(line);
    std::getline(words, whose, '\t');
    std::getline(words, path, '\t');
    std::getline(words, name, '\t');
    std::getline(words, type, '\t');
    std::getline(words, value);
    if (whose == "host") {
      shapes.host[path].emplace_back(name, type);
      continue;
    }
    shapes.ours[path][name] = type;
    if (name == "ptype")
      shapes.ptypes[path] = value;
  }
  EXPECT_TRUE(pipe && pclose(pipe) == 0) << command;
  return shapes;
}

/// What replay makes of a stock log with these columns.
Columns replay_columns(const std::string& path,
                       const std::vector<std::pair<std::string, std::string>>& stock,
                       bool with_uid = true) {
  std::string names = "#fields", types = "#types";
  for (const auto& column : stock) {
    names += "\t" + column.first;
    types += "\t" + column.second;
  }
  const test::TempDir dir;
  test::write_file("stock.log",
                   "#separator \\x09\n#path\t" + path + "\n" + names + "\n" + types + "\n");
  const zmqwriter::AsciiLog log("stock.log");
  Columns result;
  const zmqwriter::RecordMapping mapping(log.path(), log.columns());
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

class ScriptsShapeTest : public testing::TestWithParam<const char*> {
 protected:
  const Shapes shapes_ = read_shapes();
};

TEST_P(ScriptsShapeTest, EveryColumnThatThePluginReadsIsTheSameInScriptsAndReplay) {
  const std::string path = GetParam();
  ASSERT_EQ(shapes_.ours.count(path), 1u);
  ASSERT_EQ(shapes_.host.count(path), 1u);
  const Columns& ours = shapes_.ours.at(path);
  const Columns replay = replay_columns(path, shapes_.host.at(path));
  for (const std::string& name : read_by_the_plugin(path)) {
    ASSERT_EQ(ours.count(name), 1u) << name << " is missing in the scripts' record";
    ASSERT_EQ(replay.count(name), 1u) << name << " is missing in replay's record";
    EXPECT_EQ(ours.at(name), replay.at(name)) << name;
  }
}

TEST_P(ScriptsShapeTest, ColumnsThatOnlyTheScriptsHaveMeanNothingToThePluginOrNameTheOwner) {
  const std::string path = GetParam();
  Columns extra = shapes_.ours.at(path);
  for (const auto& column : replay_columns(path, shapes_.host.at(path)))
    extra.erase(column.first);
  extra.erase("username");
  extra.erase("process");
  for (const auto& column : extra) {
    // The host's own record under the log's name repeats these three.
    const std::string name = column.first;
    EXPECT_TRUE(name == path + ".ts" || name == path + ".uid" || name.find(path + ".id.") == 0)
        << name;
  }
}

INSTANTIATE_TEST_SUITE_P(StockLogs, ScriptsShapeTest,
                         testing::Values("conn", "ftp", "http", "smtp"),
                         [](const testing::TestParamInfo<const char*>& info) {
                           return info.param;
                         });

TEST(ScriptsRecordTest, EachLogGetsThePtypeOfItsTable) {
  const std::map<std::string, std::string> expected = {
      {"conn", "general"}, {"ftp", "ftp"}, {"http", "http"}, {"smtp", "smtp"}};
  EXPECT_EQ(read_shapes().ptypes, expected);
}

TEST(ScriptsRecordTest, ConnectionsNameTheOwnerOfTheSocket) {
  const Columns conn = read_shapes().ours.at("conn");
  EXPECT_EQ(conn.at("username"), "string");
  EXPECT_EQ(conn.at("process"), "string");
}

TEST(ScriptsRecordTest, PairsHaveTheColumnsOfReplayWithAndWithoutUid) {
  const Shapes shapes = read_shapes();
  EXPECT_EQ(shapes.ours.at("pairs"),
            replay_columns("dns", {{"ts", "time"}, {"uid", "string"}, {"query", "string"}}));
  EXPECT_EQ(shapes.ours.at("pairs_without_uid"),
            replay_columns("capture_loss", {{"ts", "time"}, {"peer", "string"}}));
  EXPECT_EQ(shapes.ours.at("pairs_without_uid"),
            replay_columns("weird", {{"ts", "time"}, {"uid", "string"}}, false));
}

TEST(ScriptsRecordTest, StatisticsAreTheFieldsOfSystemStatsAsTheyAre) {
  const Columns statistics = read_shapes().ours.at("system_stats");
  EXPECT_EQ(statistics.size(), 9u);
  std::vector<std::pair<std::string, std::string>> stock(statistics.begin(), statistics.end());
  EXPECT_EQ(replay_columns("system_stats", stock), statistics);
}

}  // namespace
