// How columns are converted for their schema fields. Which column feeds which field stands in
// docs/wire-format.md, whose tables WireFormatDocumentTest tries row by row.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "Conversion.h"

using test::Bytes;
using test::convert;
using test::event_of;
using test::fields_present;
using test::payload_of;
using test::RecordBuilder;
using test::text_of;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using General = Dravenholt::GeneralData;
using Http = Dravenholt::HttpData;

class PayloadMapping : public test::ReportingTest {};

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

std::string ftp_user(RecordBuilder& record) {
  return text_of(event_of(convert(record))->data_as_FtpData()->user());
}

Dravenholt::Transport transport_of(const std::string& name) {
  RecordBuilder record;
  record.text("ptype", "general").enumerator("proto", name);
  return general(convert(record))->proto();
}

std::string recipients(RecordBuilder& record) {
  record.text("ptype", "smtp");
  return text_of(event_of(convert(record))->data_as_SmtpData()->to());
}

/// The message of an inbound HTTP record with these pairs.
Bytes inbound(const std::vector<std::string>& keys, const std::vector<std::string>& values) {
  RecordBuilder record;
  record.text("ptype", "http-in").vec("extra_fields", keys).vec("extra_vals", values);
  return convert(record);
}

}  // namespace

TEST_F(PayloadMapping, TextIsCopiedByteForByteFromAnyTypeThatCarriesIt) {
  const std::string value = std::string(1, '\0') + "caf\xc3\xa9\xff, as it is\n";
  for (TypeTag type : {TYPE_STRING, TYPE_ENUM, TYPE_FILE, TYPE_FUNC}) {
    RecordBuilder record;
    record.text("ptype", "ftp").raw("ftp.user", test::text_value(value, type));
    EXPECT_EQ(value, ftp_user(record)) << type_name(type);
    record.unset("ftp.user", TYPE_STRING);
    EXPECT_EQ("", ftp_user(record)) << "the last occurrence, although it is unset";
  }
}

TEST_F(PayloadMapping, CountsAreCutNotClampedAtEachWidth) {
  for (std::uint64_t more : {0, 5}) {
    RecordBuilder ftp, connection;
    ftp.text("ptype", "ftp").count("ftp.reply_code", (1u << 16) + more);
    ftp.count("ftp.file_size", (std::uint64_t(1) << 63) + more);
    connection.text("ptype", "general").count("orig_bytes", (std::uint64_t(1) << 32) + more);
    const Bytes message = convert(ftp);
    EXPECT_EQ(more, event_of(message)->data_as_FtpData()->reply_code());
    EXPECT_EQ((std::uint64_t(1) << 63) + more, event_of(message)->data_as_FtpData()->file_size());
    EXPECT_EQ(more, general(convert(connection))->orig_bytes());
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

TEST_F(PayloadMapping, StatisticsWithOnlyCpuUsageHaveNothingElse) {
  RecordBuilder load, idle;
  load.real("cpu_usage", 0.25);
  idle.real("cpu_usage", 0.0);
  EXPECT_EQ(0.25, event_of(convert(load))->data_as_SystemStatsData()->cpu_usage());
  EXPECT_EQ(1, fields_present(payload_of(convert(load))));
  EXPECT_EQ(0, fields_present(payload_of(convert(idle))));
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

TEST_F(PayloadMapping, ConnectionWithoutColumnsHasEmptyAddressesNamesAndHistory) {
  RecordBuilder record;
  record.text("ptype", "general").text("orig_name", "x").text("resp_name", "y");
  record.text("history", "ShADadfF");
  const Bytes message = convert(record);
  ASSERT_NE(nullptr, general(message)->orig_h());
  ASSERT_NE(nullptr, general(message)->resp_h());
  EXPECT_EQ(0u, general(message)->orig_h()->size());
  EXPECT_EQ(0u, general(message)->resp_h()->size());
  EXPECT_EQ("", text_of(general(message)->orig_name()));
  EXPECT_EQ("", text_of(general(message)->resp_name()));
  EXPECT_EQ("", text_of(general(message)->history()));
  EXPECT_EQ(5, fields_present(payload_of(message)));
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
  for (const char* other : {"sctp", "tcp ", "tc", "icmp6", "", "unknown_transport"})
    EXPECT_EQ(Dravenholt::Transport_unknown, transport_of(other)) << other;
  RecordBuilder unset;
  unset.text("ptype", "general").enumerator("proto", "tcp").unset("proto", TYPE_ENUM);
  EXPECT_EQ(Dravenholt::Transport_unknown, general(convert(unset))->proto());
}

TEST_F(PayloadMapping, DurationIsInWholeMillisecondsOfWhichTheLowBitsAreKept) {
  EXPECT_EQ(1234u, milliseconds_of(1.2345));
  EXPECT_EQ(0u, milliseconds_of(0.0009));
  EXPECT_EQ(1u, milliseconds_of(0.001));
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

TEST_F(PayloadMapping, RecipientsAreJoinedWithCommasInElementOrder) {
  RecordBuilder missing, unset, none, one, two, more;
  EXPECT_EQ("<absent>", recipients(missing));
  EXPECT_EQ("", recipients(unset.unset("smtp.to", TYPE_TABLE, TYPE_STRING)));
  EXPECT_EQ("", recipients(none.set("smtp.to", {})));
  EXPECT_EQ("alice", recipients(one.set("smtp.to", {"alice"})));
  EXPECT_EQ("alice,bob", recipients(two.set("smtp.to", {"alice", "bob"})));
  EXPECT_EQ("b,a,,c", recipients(more.vec("smtp.to", {"b", "a", "", "c"})));
  for (std::size_t length : {1021u, 1022u, 1023u, 100000u}) {
    const std::string name(length, 'x');
    RecordBuilder record;
    EXPECT_EQ("a," + name, recipients(record.vec("smtp.to", {"a", name}))) << length;
  }
}

TEST_F(PayloadMapping, InboundHttpIsMadeOfTheExtraPairs) {
  const Bytes message = inbound({"VERB", "Url", "user", "host"}, {"GET", "/index", "bob", "h"});
  const Http* data = event_of(message)->data_as_HttpData();
  EXPECT_EQ("GET", text_of(data->method()));
  EXPECT_EQ("/index", text_of(data->uri()));
  EXPECT_EQ("bob", text_of(data->user()));
  EXPECT_EQ("<absent>", text_of(data->host()));
  EXPECT_EQ(3, fields_present(payload_of(message)));
}

TEST_F(PayloadMapping, InboundHttpWalksThePairsOfTheShorterListAndTakesTheLast) {
  const Bytes message = inbound({"verb", "VERB", "url", "user"}, {"GET", "PUT", "/x"});
  EXPECT_EQ("PUT", text_of(event_of(message)->data_as_HttpData()->method()));
  EXPECT_EQ("/x", text_of(event_of(message)->data_as_HttpData()->uri()));
  EXPECT_EQ(2, fields_present(payload_of(message)));
}

TEST_F(PayloadMapping, InboundHttpWithoutPairsOfThoseNamesHasEveryFieldAtItsDefault) {
  RecordBuilder neither, only_keys, only_values, unset;
  neither.text("ptype", "http-in");
  only_keys.text("ptype", "http-in").vec("extra_fields", {"verb"});
  only_values.text("ptype", "http-in").vec("extra_vals", {"GET"});
  unset.text("ptype", "http-in").vec("extra_fields", {"verb"}).unset("extra_vals", TYPE_VECTOR);
  for (const Bytes& message :
       {convert(neither), convert(only_keys), convert(only_values), convert(unset),
        inbound({"verb"}, {}),
        inbound({"verbs", "ur", "username", "", "user "}, std::vector<std::string>(5, "x"))}) {
    EXPECT_EQ(Dravenholt::Data_HttpData, event_of(message)->data_type());
    EXPECT_EQ(0, fields_present(payload_of(message)));
  }
}

TEST_F(PayloadMapping, InboundHttpReadsNoColumnsAndOrdinaryHttpNoPairs) {
  RecordBuilder in, out;
  for (RecordBuilder* record : {&in, &out}) {
    record->text("ptype", "http-in").text("http.method", "POST").text("http.user", "eve");
    record->text("http.host", "h").text("http.uri", "/x").count("http.status_code", 200);
    record->vec("extra_fields", {"verb"}).vec("extra_vals", {"GET"});
  }
  const Bytes inbound_message = convert(in);
  EXPECT_EQ("GET", text_of(event_of(inbound_message)->data_as_HttpData()->method()));
  EXPECT_EQ(1, fields_present(payload_of(inbound_message)));
  const Bytes message = convert(out.text("ptype", "http"));  // the last one decides
  EXPECT_EQ("POST", text_of(event_of(message)->data_as_HttpData()->method()));
  EXPECT_EQ(5, fields_present(payload_of(message)));
}
