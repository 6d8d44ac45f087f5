// The wire format, pinned: the tags of the union, and with the first version of the schema the
// numbers, types and defaults of all fields.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <string>

#include "TempDir.h"
#include "aggregator_generated.h"

namespace {

int conform(const std::string& base, const std::string& schema) {
  const std::string command =
      std::string(ZMQWRITER_FLATC) + " --conform " + base + " " + schema + " >flatc.out 2>&1";
  const int status = system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  EXPECT_NE(std::string::npos, at) << from;
  return text.replace(at, from.size(), to);
}

const std::string kFirstSchema = ZMQWRITER_TEST_DATA "/schema/aggregator-1.fbs";
const std::string kSchema = ZMQWRITER_SOURCE_DIR "/src/aggregator.fbs";

}  // namespace

using namespace Dravenholt;

TEST(Schema, UnionTagsAreTheProtocolNumbers) {
  EXPECT_EQ(0, Data_NONE);
  EXPECT_EQ(1, Data_GeneralData);
  EXPECT_EQ(2, Data_FtpData);
  EXPECT_EQ(3, Data_HttpData);
  EXPECT_EQ(4, Data_LdapData);
  EXPECT_EQ(5, Data_SmbData);
  EXPECT_EQ(6, Data_SmtpData);
  EXPECT_EQ(7, Data_TdsData);
  EXPECT_EQ(8, Data_DceRpcData);
  EXPECT_EQ(9, Data_Tn5250Data);
  EXPECT_EQ(10, Data_GenericProtocolData);
  EXPECT_EQ(11, Data_SystemStatsData);
  EXPECT_EQ(11, Data_MAX);
}

TEST(Schema, ReadersOfTheFirstVersionCanReadThisOne) {
  const test::TempDir dir;
  EXPECT_EQ(0, conform(kFirstSchema, kSchema)) << test::read_file("flatc.out");
}

TEST(Schema, ABrokenSchemaIsNoticed) {
  const test::TempDir dir;
  const std::string schema = test::read_file(kSchema);
  ASSERT_FALSE(schema.empty());
  test::write_file("width.fbs", replaced(schema, "file_size:ulong", "file_size:uint"));
  test::write_file("order.fbs", replaced(schema, "  user:string;\n  command:string;\n",
                                         "  command:string;\n  user:string;\n"));
  test::write_file("enum.fbs", replaced(schema, "udp = 2", "udp = 4"));
  test::write_file("added.fbs", replaced(schema, "  hdd_avail:double;\n",
                                         "  hdd_avail:double;\n  hdd_inodes:ulong;\n"));
  for (const char* broken : {"width.fbs", "order.fbs", "enum.fbs"})
    EXPECT_NE(0, conform(kFirstSchema, broken)) << broken;
  EXPECT_EQ(0, conform(kFirstSchema, "added.fbs")) << test::read_file("flatc.out");
}
