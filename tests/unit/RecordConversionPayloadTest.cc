// The mapping of each protocol: which column feeds which schema field, and how.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "Conversion.h"

using flatbuffers::voffset_t;
using test::Bytes;
using test::convert;
using test::event_of;
using test::fields_present;
using test::payload_of;
using test::RecordBuilder;
using test::text_field;
using test::text_of;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using General = Dravenholt::GeneralData;
using Ftp = Dravenholt::FtpData;
using Http = Dravenholt::HttpData;
using Ldap = Dravenholt::LdapData;
using Smb = Dravenholt::SmbData;
using Smtp = Dravenholt::SmtpData;
using Tds = Dravenholt::TdsData;
using DceRpc = Dravenholt::DceRpcData;
using Tn5250 = Dravenholt::Tn5250Data;
using Stats = Dravenholt::SystemStatsData;

/// GeneralData always has orig_h, orig_name, resp_h, resp_name and history.
int always_present(const std::string& ptype) {
  return ptype == "general" ? 5 : 0;
}

struct TextRow {
  const char* ptype;
  const char* column;
  voffset_t slot;
};
const TextRow kTextRows[] = {
    {"general", "conn_state", General::VT_CONN_STATE},
    {"general", "username", General::VT_USERNAME},
    {"general", "process", General::VT_PROCESS},
    {"general", "service", General::VT_SERVICE},
    {"ftp", "ftp.user", Ftp::VT_USER},
    {"ftp", "ftp.command", Ftp::VT_COMMAND},
    {"ftp", "ftp.arg", Ftp::VT_ARG},
    {"http", "http.user", Http::VT_USER},
    {"http", "http.method", Http::VT_METHOD},
    {"http", "http.host", Http::VT_HOST},
    {"http", "http.uri", Http::VT_URI},
    {"ldap", "ldap.user", Ldap::VT_USER},
    {"ldap", "ldap.message", Ldap::VT_MESSAGE},
    {"ldap", "ldap.base", Ldap::VT_BASE},
    {"smb", "smb.user", Smb::VT_USER},
    {"smb", "smb.share", Smb::VT_SHARE},
    {"smb", "smb.filename", Smb::VT_FILENAME},
    {"smb", "smb.action", Smb::VT_ACTION},
    {"smtp", "smtp.from", Smtp::VT_FROM},
    {"smtp", "smtp.subject", Smtp::VT_SUBJECT},
    {"tds", "tds.user", Tds::VT_USER},
    {"tds", "tds.database", Tds::VT_DATABASE},
    {"tds", "tds.app", Tds::VT_APP},
    {"tds", "tds.sql", Tds::VT_SQL},
    {"dce-rpc", "dce.request_type", DceRpc::VT_REQUEST_TYPE},
    {"dce-rpc", "dce.interface_uuid", DceRpc::VT_INTERFACE_UUID},
    {"dce-rpc", "dce.interface_name", DceRpc::VT_INTERFACE_NAME},
    {"dce-rpc", "dce.method", DceRpc::VT_METHOD},
    {"dce-rpc", "dce.arguments", DceRpc::VT_ARGUMENTS},
    {"dce-rpc", "dce.raw_args", DceRpc::VT_RAW_ARGS},
    {"tn5250", "tn5250.protocol", Tn5250::VT_PROTOCOL},
    {"tn5250", "tn5250.details", Tn5250::VT_DETAILS},
};

struct CountRow {
  const char* ptype;
  const char* column;
  voffset_t slot;
  int bits;
};
const CountRow kCountRows[] = {
    {"general", "id.orig_p", General::VT_ORIG_P, 16},
    {"general", "id.resp_p", General::VT_RESP_P, 16},
    {"general", "orig_bytes", General::VT_ORIG_BYTES, 32},
    {"general", "resp_bytes", General::VT_RESP_BYTES, 32},
    {"general", "missed_bytes", General::VT_MISSED_BYTES, 32},
    {"general", "orig_pkts", General::VT_ORIG_PKTS, 32},
    {"general", "orig_ip_bytes", General::VT_ORIG_IP_BYTES, 32},
    {"general", "resp_pkts", General::VT_RESP_PKTS, 32},
    {"general", "resp_ip_bytes", General::VT_RESP_IP_BYTES, 32},
    {"ftp", "ftp.reply_code", Ftp::VT_REPLY_CODE, 16},
    {"ftp", "ftp.file_size", Ftp::VT_FILE_SIZE, 64},
    {"http", "http.status_code", Http::VT_STATUS_CODE, 16},
    {"http", "http.request_body_len", Http::VT_REQUEST_BODY_LEN, 64},
    {"http", "http.response_body_len", Http::VT_RESPONSE_BODY_LEN, 64},
    {"ldap", "ldap.resultCode", Ldap::VT_RESULT_CODE, 16},
    {"smb", "smb.filesize", Smb::VT_FILESIZE, 64},
    {"smtp", "smtp.reqSize", Smtp::VT_REQ_SIZE, 64},
    {"dce-rpc", "dce.opnum", DceRpc::VT_OPNUM, 32},
    {"stats", "priority", Stats::VT_PRIORITY, 32},
    {"stats", "ph_mem_total", Stats::VT_PH_MEM_TOTAL, 32},
    {"stats", "ph_mem_used", Stats::VT_PH_MEM_USED, 32},
    {"stats", "virt_mem_total", Stats::VT_VIRT_MEM_TOTAL, 32},
    {"stats", "virt_mem_used", Stats::VT_VIRT_MEM_USED, 32},
};

struct RealRow {
  const char* column;
  voffset_t slot;
};
const RealRow kRealRows[] = {
    {"cpu_usage", Stats::VT_CPU_USAGE},
    {"hdd_volume", Stats::VT_HDD_VOLUME},
    {"hdd_used", Stats::VT_HDD_USED},
    {"hdd_avail", Stats::VT_HDD_AVAIL},
};

class PayloadMapping : public test::ReportingTest {};

/// Starts a record of that protocol; a statistics record ("stats") has no name but a column.
void begin(RecordBuilder& record, const std::string& ptype) {
  if (ptype == "stats")
    record.unset("cpu_usage", TYPE_DOUBLE);
  else
    record.text("ptype", ptype);
}

std::uint64_t number_field(const flatbuffers::Table* table, voffset_t slot, int bits) {
  switch (bits) {
    case 16:
      return table->GetField<std::uint16_t>(slot, 0);
    case 32:
      return table->GetField<std::uint32_t>(slot, 0);
    default:
      return table->GetField<std::uint64_t>(slot, 0);
  }
}

std::uint64_t low_bits(std::uint64_t value, int bits) {
  return bits == 64 ? value : value & ((std::uint64_t(1) << bits) - 1);
}

Bytes address_bytes(const flatbuffers::Vector<std::int8_t>* vector) {
  return Bytes(vector->begin(), vector->end());
}

const General* general(const Bytes& message) {
  return event_of(message)->data_as_GeneralData();
}

std::uint64_t milliseconds_of(double seconds) {
  RecordBuilder record;
  record.text("ptype", "general").interval("duration", seconds);
  return general(convert(record))->duration();
}

Dravenholt::Transport transport_of(const std::string& name) {
  RecordBuilder record;
  record.text("ptype", "general").enumerator("proto", name);
  return general(convert(record))->proto();
}

std::string recipients(RecordBuilder& record) {
  return text_of(event_of(convert(record))->data_as_SmtpData()->to());
}

}  // namespace

TEST_F(PayloadMapping, EachTextColumnFillsItsFieldAndNoOther) {
  const std::string value = std::string(1, '\0') + "caf\xc3\xa9\xff, as it is\n";
  for (const TextRow& row : kTextRows) {
    SCOPED_TRACE(row.column);
    RecordBuilder record;
    record.text("ptype", row.ptype).text(row.column, value);
    const Bytes message = convert(record);
    EXPECT_EQ(value, text_field(payload_of(message), row.slot));
    EXPECT_EQ(always_present(row.ptype) + 1, fields_present(payload_of(message)));
  }
}

TEST_F(PayloadMapping, UnsetTextIsEmptyAndAMissingOneIsAbsent) {
  for (const TextRow& row : kTextRows) {
    SCOPED_TRACE(row.column);
    RecordBuilder unset, missing;
    unset.text("ptype", row.ptype).unset(row.column, TYPE_STRING);
    missing.text("ptype", row.ptype);
    EXPECT_EQ("", text_field(payload_of(convert(unset)), row.slot));
    EXPECT_EQ("<absent>", text_field(payload_of(convert(missing)), row.slot));
  }
}

TEST_F(PayloadMapping, LastOccurrenceOfATextColumnWinsAlsoWhenItIsUnset) {
  for (const TextRow& row : kTextRows) {
    SCOPED_TRACE(row.column);
    RecordBuilder record;
    record.text(row.column, "first").text("ptype", row.ptype).text(row.column, "last");
    EXPECT_EQ("last", text_field(payload_of(convert(record)), row.slot));
    record.unset(row.column, TYPE_STRING);
    EXPECT_EQ("", text_field(payload_of(convert(record)), row.slot));
  }
}

TEST_F(PayloadMapping, TextColumnsMayHaveAnyTypeThatCarriesText) {
  for (TypeTag type : {TYPE_STRING, TYPE_ENUM, TYPE_FILE, TYPE_FUNC}) {
    RecordBuilder record;
    record.text("ptype", "ftp").raw("ftp.user", test::text_value("alice", type));
    EXPECT_EQ("alice", text_field(payload_of(convert(record)), Ftp::VT_USER)) << type_name(type);
  }
}

TEST_F(PayloadMapping, EachCountColumnFillsItsFieldAndNoOtherWithItsLowBits) {
  const std::uint64_t value = 0xf123456789abcdefULL;
  for (const CountRow& row : kCountRows) {
    SCOPED_TRACE(row.column);
    RecordBuilder record;
    begin(record, row.ptype);
    record.count(row.column, value);
    const Bytes message = convert(record);
    EXPECT_EQ(low_bits(value, row.bits), number_field(payload_of(message), row.slot, row.bits));
    EXPECT_EQ(always_present(row.ptype) + 1, fields_present(payload_of(message)));
  }
}

TEST_F(PayloadMapping, CountsAreCutNotClampedAtEachWidth) {
  for (const CountRow& row : kCountRows) {
    SCOPED_TRACE(row.column);
    if (row.bits == 64)
      continue;
    const std::uint64_t first_too_big = std::uint64_t(1) << row.bits;
    for (std::uint64_t value : {first_too_big - 1, first_too_big, first_too_big + 5}) {
      RecordBuilder record;
      begin(record, row.ptype);
      record.count(row.column, value);
      EXPECT_EQ(low_bits(value, row.bits),
                number_field(payload_of(convert(record)), row.slot, row.bits));
    }
  }
}

TEST_F(PayloadMapping, ByteCountOfTwoToTheThirtyTwoPlusFiveIsFive) {
  RecordBuilder record;
  record.text("ptype", "general").count("orig_bytes", (std::uint64_t(1) << 32) + 5);
  EXPECT_EQ(5u, general(convert(record))->orig_bytes());
}

TEST_F(PayloadMapping, UnsetAndMissingCountsAreZeroAndNotInTheBuffer) {
  for (const CountRow& row : kCountRows) {
    SCOPED_TRACE(row.column);
    RecordBuilder unset, missing;
    begin(unset, row.ptype);
    begin(missing, row.ptype);
    unset.unset(row.column, TYPE_COUNT);
    for (RecordBuilder* record : {&unset, &missing}) {
      const Bytes message = convert(*record);
      EXPECT_EQ(0u, number_field(payload_of(message), row.slot, row.bits));
      EXPECT_FALSE(payload_of(message)->CheckField(row.slot));
    }
  }
}

TEST_F(PayloadMapping, LastOccurrenceOfACountColumnWins) {
  for (const CountRow& row : kCountRows) {
    SCOPED_TRACE(row.column);
    RecordBuilder record;
    begin(record, row.ptype);
    record.count(row.column, 1).count(row.column, 2);
    EXPECT_EQ(2u, number_field(payload_of(convert(record)), row.slot, row.bits));
    record.unset(row.column, TYPE_COUNT);
    EXPECT_EQ(0u, number_field(payload_of(convert(record)), row.slot, row.bits));
  }
}

TEST_F(PayloadMapping, CountColumnsMayHaveAnyIntegerType) {
  for (TypeTag type : {TYPE_COUNT, TYPE_COUNTER, TYPE_INT, TYPE_PORT, TYPE_BOOL}) {
    threading::Value* value = new threading::Value(type);
    if (type == TYPE_PORT)
      value->val.port_val.port = 1;
    else
      value->val.uint_val = 1;
    RecordBuilder record;
    record.text("ptype", "ftp").raw("ftp.reply_code", value);
    EXPECT_EQ(1, event_of(convert(record))->data_as_FtpData()->reply_code()) << type_name(type);
  }
}

TEST_F(PayloadMapping, NegativeIntegersKeepTheirLowBits) {
  RecordBuilder stats, dce;
  stats.real("cpu_usage", 0.0).integer("priority", -20);
  dce.text("ptype", "dce-rpc").integer("dce.opnum", -1);
  EXPECT_EQ(-20, event_of(convert(stats))->data_as_SystemStatsData()->priority());
  EXPECT_EQ(-1, event_of(convert(dce))->data_as_DceRpcData()->opnum());
}

TEST_F(PayloadMapping, EachRealColumnFillsItsFieldAndNoOther) {
  for (const RealRow& row : kRealRows) {
    SCOPED_TRACE(row.column);
    RecordBuilder record;
    begin(record, "stats");
    record.real(row.column, 2.86102294921875);
    const Bytes message = convert(record);
    EXPECT_EQ(2.86102294921875, payload_of(message)->GetField<double>(row.slot, 0.0));
    EXPECT_EQ(1, fields_present(payload_of(message)));
    record.real(row.column, -1.0);
    EXPECT_EQ(-1.0, payload_of(convert(record))->GetField<double>(row.slot, 0.0));
  }
}

TEST_F(PayloadMapping, StatisticsWithOnlyCpuUsageHaveNothingElse) {
  RecordBuilder load, idle;
  load.real("cpu_usage", 0.25);
  idle.real("cpu_usage", 0.0);
  EXPECT_EQ(0.25, event_of(convert(load))->data_as_SystemStatsData()->cpu_usage());
  EXPECT_EQ(1, fields_present(payload_of(convert(load))));
  EXPECT_EQ(0, fields_present(payload_of(convert(idle))));
}

TEST_F(PayloadMapping, ColumnsOfOtherProtocolsAndOfOtherCaseAreIgnored) {
  for (const TextRow& row : kTextRows) {
    RecordBuilder record;
    record.text("ptype", row.ptype).text("smtp.nothing", "x").text("xftp.user", "x");
    record.text(to_upper(row.column), "x").text(std::string(row.column) + "s", "x");
    if (std::string(row.ptype) != "tds")
      record.text("tds.sql", "x");
    EXPECT_EQ(always_present(row.ptype), fields_present(payload_of(convert(record)))) << row.column;
  }
}

TEST_F(PayloadMapping, AddressesAreTheirBytesInNetworkOrder) {
  RecordBuilder record;
  record.text("ptype", "general").addr("id.orig_h", "10.1.2.255");
  record.addr("id.resp_h", "2001:db8::ff00:42:8329");
  const Bytes message = convert(record);
  EXPECT_THAT(address_bytes(general(message)->orig_h()), ElementsAre(10, 1, 2, 255));
  EXPECT_THAT(address_bytes(general(message)->resp_h()),
              ElementsAre(0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0xff, 0, 0, 0x42, 0x83, 0x29));
  RecordBuilder other;
  other.text("ptype", "general").addr("id.orig_h", "fe80::1").addr("id.resp_h", "192.168.0.1");
  const Bytes second = convert(other);
  EXPECT_EQ(16u, general(second)->orig_h()->size());
  EXPECT_THAT(address_bytes(general(second)->resp_h()), ElementsAre(192, 168, 0, 1));
  EXPECT_THAT(weirds(), IsEmpty());
}

TEST_F(PayloadMapping, GeneralRecordWithoutAddressesHasEmptyVectorsNotAbsentOnes) {
  RecordBuilder record;
  record.text("ptype", "general");
  const Bytes message = convert(record);
  ASSERT_NE(nullptr, general(message)->orig_h());
  ASSERT_NE(nullptr, general(message)->resp_h());
  EXPECT_EQ(0u, general(message)->orig_h()->size());
  EXPECT_EQ(0u, general(message)->resp_h()->size());
}

TEST_F(PayloadMapping, NamesAndHistoryAreAlwaysTheEmptyText) {
  RecordBuilder record;
  record.text("ptype", "general").text("orig_name", "x").text("resp_name", "y");
  record.text("history", "ShADadfF");
  const Bytes message = convert(record);
  EXPECT_EQ("", text_of(general(message)->orig_name()));
  EXPECT_EQ("", text_of(general(message)->resp_name()));
  EXPECT_EQ("", text_of(general(message)->history()));
  EXPECT_EQ(5, fields_present(payload_of(message)));
}

TEST_F(PayloadMapping, AnUnsetAddressReadsAsTheZeroAddressOfFamilyIPv4) {
  RecordBuilder record;
  record.text("ptype", "general").unset("id.orig_h", TYPE_ADDR);
  EXPECT_THAT(address_bytes(general(convert(record))->orig_h()), ElementsAre(0, 0, 0, 0));
  EXPECT_THAT(weirds(), IsEmpty());
}

TEST_F(PayloadMapping, UnknownAddressFamilyIsReportedAndLeavesTheVectorEmpty) {
  for (const char* column : {"id.orig_h", "id.resp_h"}) {
    const std::string side = std::string(column).substr(3, 4);
    recorder_.Clear();
    threading::Value* value = new threading::Value(TYPE_ADDR);
    const int family = 2;
    memcpy(&value->val.addr_val.family, &family, sizeof family);
    RecordBuilder record;
    record.text("ptype", "general").addr("id.orig_h", "10.0.0.1").addr("id.resp_h", "10.0.0.2");
    record.raw(column, value).text("service", "dns");
    const Bytes message = convert(record);
    EXPECT_EQ(side == "orig" ? 0u : 4u, general(message)->orig_h()->size());
    EXPECT_EQ(side == "resp" ? 0u : 4u, general(message)->resp_h()->size());
    EXPECT_EQ("dns", text_of(general(message)->service()));
    EXPECT_THAT(weirds(), ElementsAre("Unknown addr family in " + side + "_h!"));
  }
}

TEST_F(PayloadMapping, ObjectsOfAConnectionStandInTheRequiredOrder) {
  RecordBuilder record;
  record.text("service", "the-service").text("ptype", "general").text("process", "the-process");
  record.addr("id.resp_h", "10.0.0.2").addr("id.orig_h", "10.0.0.1").text("uid", "the-uid");
  const Bytes message = convert(record, "the-agent");
  const General* data = general(message);
  // Created later means closer to the start of the buffer.
  const std::vector<const void*> in_order = {event_of(message)->agent_id(),
                                             data->service(),
                                             data->process(),
                                             data->orig_h(),
                                             data->orig_name(),
                                             data->resp_h(),
                                             data->resp_name(),
                                             data->history(),
                                             data,
                                             event_of(message)};
  for (std::size_t i = 1; i < in_order.size(); i++)
    EXPECT_LT(in_order[i], in_order[i - 1]) << i;
}

TEST_F(PayloadMapping, TransportIsReadInAnyCaseAndWhole) {
  EXPECT_EQ(Dravenholt::Transport_tcp, transport_of("tcp"));
  EXPECT_EQ(Dravenholt::Transport_tcp, transport_of("TCP"));
  EXPECT_EQ(Dravenholt::Transport_udp, transport_of("Udp"));
  EXPECT_EQ(Dravenholt::Transport_icmp, transport_of("icmp"));
  EXPECT_EQ(Dravenholt::Transport_icmp, transport_of("ICMP"));
  for (const char* other : {"sctp", "tcp ", "tc", "icmp6", "", "unknown_transport"})
    EXPECT_EQ(Dravenholt::Transport_unknown, transport_of(other)) << other;
}

TEST_F(PayloadMapping, UnsetTransportIsUnknownAlsoBehindASetOne) {
  RecordBuilder record;
  record.text("ptype", "general").enumerator("proto", "tcp").unset("proto", TYPE_ENUM);
  EXPECT_EQ(Dravenholt::Transport_unknown, general(convert(record))->proto());
}

TEST_F(PayloadMapping, DurationIsInWholeMilliseconds) {
  EXPECT_EQ(1234u, milliseconds_of(1.2345));
  EXPECT_EQ(0u, milliseconds_of(0.0009));
  EXPECT_EQ(1u, milliseconds_of(0.001));
  EXPECT_EQ(86400000u, milliseconds_of(86400.0));
}

TEST_F(PayloadMapping, DurationsOutsideOfTheRangeKeepTheirLowBitsAndNonNumbersAreZero) {
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(0u, milliseconds_of(std::nan("")));
  EXPECT_EQ(0u, milliseconds_of(infinity));
  EXPECT_EQ(0u, milliseconds_of(-infinity));
  EXPECT_EQ(0u, milliseconds_of(-0.0001));
  EXPECT_EQ(std::uint64_t(-1500), milliseconds_of(-1.5));
  EXPECT_EQ(0u, milliseconds_of(std::ldexp(1.0, 64) / 1000.0 * 2.0));  // 2^65
  EXPECT_EQ(0u, milliseconds_of(1e300));
  EXPECT_EQ(std::uint64_t(1) << 63, milliseconds_of(std::ldexp(1.0, 63) / 1000.0));
}

TEST_F(PayloadMapping, LocalFlagsAreOneOrZero) {
  for (bool value : {true, false}) {
    RecordBuilder record;
    record.text("ptype", "general").boolean("local_orig", value).boolean("local_resp", !value);
    const Bytes message = convert(record);
    EXPECT_EQ(value ? 1 : 0, general(message)->local_orig());
    EXPECT_EQ(value ? 0 : 1, general(message)->local_resp());
  }
  RecordBuilder record;
  record.text("ptype", "general").count("local_orig", 256).unset("local_resp", TYPE_BOOL);
  EXPECT_EQ(1, general(convert(record))->local_orig());
  EXPECT_EQ(0, general(convert(record))->local_resp());
}

TEST_F(PayloadMapping, AWholeConnectionComesOutAsItWentIn) {
  RecordBuilder record;
  record.time("ts", 1340213005.165293).text("uid", "CHhAvVGS1DHFjwGM9");
  record.addr("id.orig_h", "10.0.0.5").port("id.orig_p", 51000);
  record.addr("id.resp_h", "10.0.0.9").port("id.resp_p", 443).enumerator("proto", "tcp");
  record.text("service", "ssl").interval("duration", 2.5).count("orig_bytes", 111);
  record.count("resp_bytes", 222).text("conn_state", "SF").boolean("local_orig", true);
  record.boolean("local_resp", false).count("missed_bytes", 3).text("history", "ShADadfF");
  record.count("orig_pkts", 4).count("orig_ip_bytes", 444).count("resp_pkts", 5);
  record.count("resp_ip_bytes", 555).text("username", "alice").text("process", "curl");
  record.text("ptype", "general");
  const Bytes message = convert(record);
  const auto* event = event_of(message);
  EXPECT_EQ(1340213005.165293, event->ts());
  EXPECT_EQ("CHhAvVGS1DHFjwGM9", text_of(event->uid()));
  EXPECT_EQ("agent-7", text_of(event->agent_id()));
  const General* data = event->data_as_GeneralData();
  EXPECT_THAT(address_bytes(data->orig_h()), ElementsAre(10, 0, 0, 5));
  EXPECT_EQ(51000, data->orig_p());
  EXPECT_THAT(address_bytes(data->resp_h()), ElementsAre(10, 0, 0, 9));
  EXPECT_EQ(443, data->resp_p());
  EXPECT_EQ(Dravenholt::Transport_tcp, data->proto());
  EXPECT_EQ(2500u, data->duration());
  EXPECT_EQ(111u, data->orig_bytes());
  EXPECT_EQ(222u, data->resp_bytes());
  EXPECT_EQ("SF", text_of(data->conn_state()));
  EXPECT_EQ(1, data->local_orig());
  EXPECT_EQ(0, data->local_resp());
  EXPECT_EQ(3u, data->missed_bytes());
  EXPECT_EQ("", text_of(data->history()));
  EXPECT_EQ(4u, data->orig_pkts());
  EXPECT_EQ(444u, data->orig_ip_bytes());
  EXPECT_EQ(5u, data->resp_pkts());
  EXPECT_EQ(555u, data->resp_ip_bytes());
  EXPECT_EQ("alice", text_of(data->username()));
  EXPECT_EQ("curl", text_of(data->process()));
  EXPECT_EQ("ssl", text_of(data->service()));
}

TEST_F(PayloadMapping, RecipientsAreJoinedWithCommasInElementOrder) {
  RecordBuilder two, one, none, vector;
  two.text("ptype", "smtp").set("smtp.to", {"alice", "bob"});
  one.text("ptype", "smtp").set("smtp.to", {"alice"});
  none.text("ptype", "smtp").set("smtp.to", {});
  vector.text("ptype", "smtp").vec("smtp.to", {"b", "a", "", "c"});
  EXPECT_EQ("alice,bob", recipients(two));
  EXPECT_EQ("alice", recipients(one));
  EXPECT_EQ("", recipients(none));
  EXPECT_EQ("b,a,,c", recipients(vector));
}

TEST_F(PayloadMapping, UnsetRecipientsAreTheEmptyTextAndMissingOnesAbsent) {
  RecordBuilder unset, missing, last;
  unset.text("ptype", "smtp").unset("smtp.to", TYPE_TABLE, TYPE_STRING);
  missing.text("ptype", "smtp");
  last.text("ptype", "smtp").set("smtp.to", {"alice"}).set("smtp.to", {"bob"});
  EXPECT_EQ("", recipients(unset));
  EXPECT_EQ("<absent>", recipients(missing));
  EXPECT_EQ("bob", recipients(last));
}

TEST_F(PayloadMapping, RecipientListsOfAnySizeAreWhole) {
  for (int count : {100, 1000, 20000}) {
    std::vector<std::string> names;
    std::string expected;
    for (int i = 0; i < count; i++) {
      names.push_back("user" + std::to_string(i) + "@example.net");
      expected += (i > 0 ? "," : "") + names.back();
    }
    RecordBuilder record;
    record.text("ptype", "smtp").vec("smtp.to", names);
    EXPECT_EQ(expected, recipients(record));
  }
  for (std::size_t length : {1023u, 1024u, 1025u}) {
    RecordBuilder record;
    record.text("ptype", "smtp").vec("smtp.to", {"a", std::string(length - 2, 'x')});
    EXPECT_EQ("a," + std::string(length - 2, 'x'), recipients(record));
  }
}

TEST_F(PayloadMapping, InboundHttpIsMadeOfTheExtraPairs) {
  RecordBuilder record;
  record.text("ptype", "http-in").vec("extra_fields", {"VERB", "Url", "user", "host"});
  record.vec("extra_vals", {"GET", "/index", "bob", "h"});
  const Bytes message = convert(record);
  const Http* data = event_of(message)->data_as_HttpData();
  EXPECT_EQ("GET", text_of(data->method()));
  EXPECT_EQ("/index", text_of(data->uri()));
  EXPECT_EQ("bob", text_of(data->user()));
  EXPECT_EQ("<absent>", text_of(data->host()));
  EXPECT_EQ(3, fields_present(payload_of(message)));
}

TEST_F(PayloadMapping, InboundHttpDoesNotReadTheColumnsOfOrdinaryHttp) {
  RecordBuilder record;
  record.text("ptype", "http-in").text("http.method", "POST").text("http.user", "eve");
  record.text("http.host", "h").text("http.uri", "/x").count("http.status_code", 200);
  record.count("http.request_body_len", 1).count("http.response_body_len", 2);
  record.vec("extra_fields", {"verb"}).vec("extra_vals", {"GET"});
  const Bytes message = convert(record);
  EXPECT_EQ("GET", text_of(event_of(message)->data_as_HttpData()->method()));
  EXPECT_EQ(1, fields_present(payload_of(message)));
}

TEST_F(PayloadMapping, OrdinaryHttpDoesNotReadTheExtraPairs) {
  RecordBuilder record;
  record.text("ptype", "http").vec("extra_fields", {"verb"}).vec("extra_vals", {"GET"});
  EXPECT_EQ(0, fields_present(payload_of(convert(record))));
}

TEST_F(PayloadMapping, InboundHttpWithoutPairsHasEveryFieldAtItsDefault) {
  RecordBuilder neither, only_keys, only_values, empty, unset;
  neither.text("ptype", "http-in");
  only_keys.text("ptype", "http-in").vec("extra_fields", {"verb"});
  only_values.text("ptype", "http-in").vec("extra_vals", {"GET"});
  empty.text("ptype", "http-in").vec("extra_fields", {"verb"}).vec("extra_vals", {});
  unset.text("ptype", "http-in").vec("extra_fields", {"verb"}).unset("extra_vals", TYPE_VECTOR);
  for (RecordBuilder* record : {&neither, &only_keys, &only_values, &empty, &unset}) {
    const Bytes message = convert(*record);
    EXPECT_EQ(Dravenholt::Data_HttpData, event_of(message)->data_type());
    EXPECT_EQ(0, fields_present(payload_of(message)));
  }
}

TEST_F(PayloadMapping, InboundHttpWalksThePairsOfTheShorterListAndTakesTheLast) {
  RecordBuilder record;
  record.text("ptype", "http-in").vec("extra_fields", {"verb", "VERB", "url", "user"});
  record.vec("extra_vals", {"GET", "PUT", "/x"});
  const Bytes message = convert(record);
  const Http* data = event_of(message)->data_as_HttpData();
  EXPECT_EQ("PUT", text_of(data->method()));
  EXPECT_EQ("/x", text_of(data->uri()));
  EXPECT_EQ("<absent>", text_of(data->user()));
}

TEST_F(PayloadMapping, InboundHttpKeysMatchWhole) {
  RecordBuilder record;
  record.text("ptype", "http-in").vec("extra_fields", {"verbs", "ur", "username", "", "user "});
  record.vec("extra_vals", {"1", "2", "3", "4", "5"});
  EXPECT_EQ(0, fields_present(payload_of(convert(record))));
}

TEST_F(PayloadMapping, ALaterOrdinaryHttpOverridesInbound) {
  RecordBuilder record;
  record.text("ptype", "http-in").text("ptype", "http").text("http.method", "POST");
  EXPECT_EQ("POST", text_of(event_of(convert(record))->data_as_HttpData()->method()));
}
