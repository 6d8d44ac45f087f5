// The wire format, pinned: field numbers, widths, defaults and union tags of the schema, and that
// it stays readable for those who have its first version.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <string>
#include <type_traits>
#include <vector>

#include "TempDir.h"
#include "aggregator_generated.h"

using ::testing::ElementsAre;

namespace {

/// A field's number is (slot - 4) / 2; the list gives the slots in declaration order.
void expect_numbered_from_zero(const std::vector<int>& slots) {
  for (std::size_t i = 0; i < slots.size(); i++)
    EXPECT_EQ(static_cast<int>(4 + 2 * i), slots[i]) << "field " << i;
}

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

template <typename Result, typename Table>
void expect_type(Result (Table::*)() const) {}

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

TEST(Schema, TransportIsASignedByteWithFourValues) {
  EXPECT_TRUE((std::is_same<std::int8_t, std::underlying_type<Transport>::type>::value));
  EXPECT_EQ(0, Transport_unknown);
  EXPECT_EQ(1, Transport_tcp);
  EXPECT_EQ(2, Transport_udp);
  EXPECT_EQ(3, Transport_icmp);
  EXPECT_EQ(3, Transport_MAX);
}

TEST(Schema, FieldNumbersAreTheOnesOfTheFormat) {
  expect_numbered_from_zero({NetworkEvent::VT_UID, NetworkEvent::VT_TS,
                             NetworkEvent::VT_TZ_MINUTES_WEST, NetworkEvent::VT_AGENT_ID,
                             NetworkEvent::VT_DATA_TYPE, NetworkEvent::VT_DATA});
  expect_numbered_from_zero(
      {GeneralData::VT_ORIG_H,        GeneralData::VT_ORIG_NAME,     GeneralData::VT_ORIG_P,
       GeneralData::VT_RESP_H,        GeneralData::VT_RESP_NAME,     GeneralData::VT_RESP_P,
       GeneralData::VT_PROTO,         GeneralData::VT_DURATION,      GeneralData::VT_ORIG_BYTES,
       GeneralData::VT_RESP_BYTES,    GeneralData::VT_CONN_STATE,    GeneralData::VT_LOCAL_ORIG,
       GeneralData::VT_LOCAL_RESP,    GeneralData::VT_MISSED_BYTES,  GeneralData::VT_HISTORY,
       GeneralData::VT_ORIG_PKTS,     GeneralData::VT_ORIG_IP_BYTES, GeneralData::VT_RESP_PKTS,
       GeneralData::VT_RESP_IP_BYTES, GeneralData::VT_USERNAME,      GeneralData::VT_PROCESS,
       GeneralData::VT_SERVICE});
  expect_numbered_from_zero({FtpData::VT_USER, FtpData::VT_COMMAND, FtpData::VT_REPLY_CODE,
                             FtpData::VT_ARG, FtpData::VT_FILE_SIZE});
  expect_numbered_from_zero({HttpData::VT_USER, HttpData::VT_METHOD, HttpData::VT_HOST,
                             HttpData::VT_URI, HttpData::VT_STATUS_CODE,
                             HttpData::VT_REQUEST_BODY_LEN, HttpData::VT_RESPONSE_BODY_LEN});
  expect_numbered_from_zero(
      {LdapData::VT_USER, LdapData::VT_MESSAGE, LdapData::VT_RESULT_CODE, LdapData::VT_BASE});
  expect_numbered_from_zero({SmbData::VT_USER, SmbData::VT_SHARE, SmbData::VT_FILENAME,
                             SmbData::VT_ACTION, SmbData::VT_FILESIZE});
  expect_numbered_from_zero(
      {SmtpData::VT_FROM, SmtpData::VT_TO, SmtpData::VT_SUBJECT, SmtpData::VT_REQ_SIZE});
  expect_numbered_from_zero(
      {TdsData::VT_USER, TdsData::VT_DATABASE, TdsData::VT_APP, TdsData::VT_SQL});
  expect_numbered_from_zero({DceRpcData::VT_REQUEST_TYPE, DceRpcData::VT_INTERFACE_UUID,
                             DceRpcData::VT_INTERFACE_NAME, DceRpcData::VT_OPNUM,
                             DceRpcData::VT_METHOD, DceRpcData::VT_ARGUMENTS,
                             DceRpcData::VT_RAW_ARGS});
  expect_numbered_from_zero({Tn5250Data::VT_PROTOCOL, Tn5250Data::VT_DETAILS});
  expect_numbered_from_zero({GenericProtocolData::VT_PTYPE, GenericProtocolData::VT_FIELDS});
  expect_numbered_from_zero({MapEntry::VT_KEY, MapEntry::VT_VALUE});
  expect_numbered_from_zero({SystemStatsData::VT_CPU_USAGE, SystemStatsData::VT_PRIORITY,
                             SystemStatsData::VT_PH_MEM_TOTAL, SystemStatsData::VT_PH_MEM_USED,
                             SystemStatsData::VT_VIRT_MEM_TOTAL, SystemStatsData::VT_VIRT_MEM_USED,
                             SystemStatsData::VT_HDD_VOLUME, SystemStatsData::VT_HDD_USED,
                             SystemStatsData::VT_HDD_AVAIL});
}

TEST(Schema, ScalarsHaveTheWidthsOfTheFormat) {
  // Does not compile with any other type.
  expect_type<double>(&NetworkEvent::ts);
  expect_type<std::int32_t>(&NetworkEvent::tz_minutes_west);
  expect_type<Data>(&NetworkEvent::data_type);
  expect_type<const flatbuffers::Vector<std::int8_t>*>(&GeneralData::orig_h);
  expect_type<const flatbuffers::Vector<std::int8_t>*>(&GeneralData::resp_h);
  expect_type<std::uint16_t>(&GeneralData::orig_p);
  expect_type<std::uint16_t>(&GeneralData::resp_p);
  expect_type<Transport>(&GeneralData::proto);
  expect_type<std::uint64_t>(&GeneralData::duration);
  expect_type<std::uint32_t>(&GeneralData::orig_bytes);
  expect_type<std::uint32_t>(&GeneralData::resp_bytes);
  expect_type<std::int8_t>(&GeneralData::local_orig);
  expect_type<std::int8_t>(&GeneralData::local_resp);
  expect_type<std::uint32_t>(&GeneralData::missed_bytes);
  expect_type<std::uint32_t>(&GeneralData::orig_pkts);
  expect_type<std::uint32_t>(&GeneralData::orig_ip_bytes);
  expect_type<std::uint32_t>(&GeneralData::resp_pkts);
  expect_type<std::uint32_t>(&GeneralData::resp_ip_bytes);
  expect_type<std::uint16_t>(&FtpData::reply_code);
  expect_type<std::uint64_t>(&FtpData::file_size);
  expect_type<std::uint16_t>(&HttpData::status_code);
  expect_type<std::uint64_t>(&HttpData::request_body_len);
  expect_type<std::uint64_t>(&HttpData::response_body_len);
  expect_type<std::uint16_t>(&LdapData::result_code);
  expect_type<std::uint64_t>(&SmbData::filesize);
  expect_type<std::uint64_t>(&SmtpData::req_size);
  expect_type<std::int32_t>(&DceRpcData::opnum);
  expect_type<double>(&SystemStatsData::cpu_usage);
  expect_type<std::int32_t>(&SystemStatsData::priority);
  expect_type<std::int32_t>(&SystemStatsData::ph_mem_total);
  expect_type<std::int32_t>(&SystemStatsData::ph_mem_used);
  expect_type<std::int32_t>(&SystemStatsData::virt_mem_total);
  expect_type<std::int32_t>(&SystemStatsData::virt_mem_used);
  expect_type<double>(&SystemStatsData::hdd_volume);
  expect_type<double>(&SystemStatsData::hdd_used);
  expect_type<double>(&SystemStatsData::hdd_avail);
  EXPECT_EQ(1u, sizeof(Data));
}

TEST(Schema, PayloadWithNothingInItIsATableWithoutFields) {
  flatbuffers::FlatBufferBuilder builder;
  builder.Finish(CreateGeneralData(builder));
  const auto* data = flatbuffers::GetRoot<GeneralData>(builder.GetBufferPointer());
  const auto* table = reinterpret_cast<const flatbuffers::Table*>(data);
  EXPECT_EQ(4, flatbuffers::ReadScalar<flatbuffers::voffset_t>(table->GetVTable()));
  EXPECT_EQ(nullptr, data->orig_h());
  EXPECT_EQ(nullptr, data->service());
  EXPECT_EQ(0u, data->duration());
  EXPECT_EQ(Transport_unknown, data->proto());
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
