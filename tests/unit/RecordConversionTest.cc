// The envelope of an event: protocol type, uid, time, agent and the generic key/value payload.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "Conversion.h"

#include "standin/Host.h"
#include "util.h"

using Dravenholt::Data;
using test::Bytes;
using test::convert;
using test::event_of;
using test::payload_of;
using test::RecordBuilder;
using test::text_of;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

int fake_minutes_west = 0;

class RecordConversion : public test::ReportingTest {
 protected:
  RecordConversion() { fake_minutes_west = 0; }
};

std::vector<std::pair<std::string, std::string>> pairs_of(const Bytes& message) {
  std::vector<std::pair<std::string, std::string>> pairs;
  for (const Dravenholt::MapEntry* entry :
       *event_of(message)->data_as_GenericProtocolData()->fields())
    pairs.emplace_back(text_of(entry->key()), text_of(entry->value()));
  return pairs;
}

Data type_of(RecordBuilder& record) {
  return event_of(convert(record))->data_type();
}

Data type_of_ptype(const std::string& ptype) {
  RecordBuilder record;
  record.text("ptype", ptype);
  return type_of(record);
}

std::string unsupported(const std::string& ptype) {
  return "Unsupported protocol type " + ptype + ", using generic format";
}

}  // namespace

/// In place of the C library's, which leaves the time zone at zero.
extern "C" int gettimeofday(struct timeval* now, void* zone) noexcept {
  struct timespec real;
  clock_gettime(CLOCK_REALTIME, &real);
  now->tv_sec = real.tv_sec;
  now->tv_usec = real.tv_nsec / 1000;
  if (zone)
    static_cast<struct timezone*>(zone)->tz_minuteswest = fake_minutes_west;
  return 0;
}

TEST_F(RecordConversion, RecordWithoutFieldsBecomesABareGenericEvent) {
  for (int num_fields : {0, -1}) {
    fake_minutes_west = num_fields < 0 ? -330 : 480;
    flatbuffers::FlatBufferBuilder builder(logging::writer::kInitialBufferBytes);
    logging::writer::convert_record(builder, "agent-7", num_fields, nullptr, nullptr);
    const auto* event = Dravenholt::GetNetworkEvent(builder.GetBufferPointer());
    EXPECT_EQ(Dravenholt::Data_GenericProtocolData, event->data_type());
    EXPECT_EQ(nullptr, event->data());
    EXPECT_EQ(nullptr, event->uid());
    EXPECT_EQ(0.0, event->ts());
    EXPECT_EQ(fake_minutes_west, event->tz_minutes_west());
    EXPECT_EQ("agent-7", text_of(event->agent_id()));
  }
  RecordBuilder record;
  EXPECT_EQ("", text_of(event_of(convert(record, ""))->agent_id()));
}

TEST_F(RecordConversion, EachNameInAnyCaseSelectsItsPayloadEvenWithoutColumns) {
  const std::vector<std::pair<std::string, Data>> names = {
      {"general", Dravenholt::Data_GeneralData}, {"ftp", Dravenholt::Data_FtpData},
      {"http", Dravenholt::Data_HttpData},       {"http-in", Dravenholt::Data_HttpData},
      {"ldap", Dravenholt::Data_LdapData},       {"smb", Dravenholt::Data_SmbData},
      {"smtp", Dravenholt::Data_SmtpData},       {"tds", Dravenholt::Data_TdsData},
      {"dce-rpc", Dravenholt::Data_DceRpcData},  {"tn5250", Dravenholt::Data_Tn5250Data}};
  for (const auto& name : names) {
    std::string mixed = name.first;
    for (std::size_t i = 0; i < mixed.size(); i += 2)
      mixed[i] = static_cast<char>(toupper(mixed[i]));
    for (const std::string& ptype : {name.first, to_upper(name.first), mixed}) {
      RecordBuilder record;
      record.text("ptype", ptype);
      const Bytes message = convert(record);
      EXPECT_EQ(name.second, event_of(message)->data_type()) << ptype;
      EXPECT_NE(nullptr, payload_of(message)) << ptype << " without any column";
    }
  }
  EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(RecordConversion, ANameThatIsNotWholeDoesNotMatchAndIsWarnedAbout) {
  for (const char* ptype : {"http ", " http", "htt", "https", "http-", "dns", "dce_rpc", "f"}) {
    recorder_.Clear();
    EXPECT_EQ(Dravenholt::Data_GenericProtocolData, type_of_ptype(ptype));
    EXPECT_THAT(warnings(), ElementsAre(unsupported(ptype))) << ptype;
  }
  recorder_.Clear();
  EXPECT_EQ(Dravenholt::Data_GenericProtocolData, type_of_ptype(std::string("ftp\0", 4)));
  EXPECT_THAT(warnings(), ElementsAre(unsupported("ftp")));
}

TEST_F(RecordConversion, RecordWithoutPtypeIsGenericWithoutAWarning) {
  RecordBuilder record;
  record.text("uid", "CAbc").vec("extra_fields", {"a"}).vec("extra_vals", {"1"});
  const Bytes message = convert(record);
  EXPECT_EQ(Dravenholt::Data_GenericProtocolData, event_of(message)->data_type());
  EXPECT_EQ(nullptr, event_of(message)->data_as_GenericProtocolData()->ptype());
  EXPECT_THAT(pairs_of(message), ElementsAre(std::make_pair("a", "1")));
  EXPECT_THAT(warnings(), IsEmpty());
  EXPECT_THAT(weirds(), IsEmpty());
}

TEST_F(RecordConversion, GenericRecordWithoutBothListsHasATagButNoData) {
  RecordBuilder neither, only_fields, only_vals;
  neither.text("uid", "CAbc");
  only_fields.vec("extra_fields", {"a"});
  only_vals.vec("extra_vals", {"1"});
  for (RecordBuilder* record : {&neither, &only_fields, &only_vals}) {
    const Bytes message = convert(*record);
    EXPECT_EQ(Dravenholt::Data_GenericProtocolData, event_of(message)->data_type());
    EXPECT_TRUE(event_of(message)->data() == nullptr);
  }
  EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(RecordConversion, PairsBeyondTheShorterListAreDropped) {
  RecordBuilder record;
  record.vec("extra_fields", {"a", "b", "c"}).vec("extra_vals", {"1", "2"});
  EXPECT_THAT(pairs_of(convert(record)),
              ElementsAre(std::make_pair("a", "1"), std::make_pair("b", "2")));
  RecordBuilder other;
  other.set("extra_vals", {"1", "2", "3"}).set("extra_fields", {"a"});
  EXPECT_THAT(pairs_of(convert(other)), ElementsAre(std::make_pair("a", "1")));
}

TEST_F(RecordConversion, EmptyAndUnsetListsGiveAPayloadWithAnEmptyVector) {
  RecordBuilder empty, unset;
  empty.vec("extra_fields", {}).set("extra_vals", {});
  unset.unset("extra_fields", TYPE_VECTOR, TYPE_STRING).unset("extra_vals", TYPE_TABLE);
  for (RecordBuilder* record : {&empty, &unset}) {
    const Bytes message = convert(*record);
    ASSERT_NE(nullptr, event_of(message)->data_as_GenericProtocolData());
    ASSERT_NE(nullptr, event_of(message)->data_as_GenericProtocolData()->fields());
    EXPECT_THAT(pairs_of(message), IsEmpty());
  }
}

TEST_F(RecordConversion, GenericPayloadKeepsTheNameAndEachRecordIsWarnedAbout) {
  for (const char* ptype : {"My Protocol", "My Protocol", ""}) {
    recorder_.Clear();
    RecordBuilder record;
    record.text("ptype", ptype).vec("extra_fields", {"k"}).vec("extra_vals", {"v"});
    const Bytes message = convert(record);
    EXPECT_EQ(ptype, text_of(event_of(message)->data_as_GenericProtocolData()->ptype()));
    EXPECT_THAT(warnings(), ElementsAre(unsupported(ptype)));
    EXPECT_THAT(weirds(), IsEmpty());
  }
}

TEST_F(RecordConversion, UnsetPtypeIsReportedAndCalledUnknown) {
  RecordBuilder record;
  record.unset("ptype", TYPE_STRING).vec("extra_fields", {"k"}).vec("extra_vals", {"v"});
  const Bytes message = convert(record);
  EXPECT_EQ(Dravenholt::Data_GenericProtocolData, event_of(message)->data_type());
  EXPECT_EQ("Unknown", text_of(event_of(message)->data_as_GenericProtocolData()->ptype()));
  EXPECT_THAT(weirds(), ElementsAre("Empty type!"));
  EXPECT_THAT(warnings(), ElementsAre("Unsupported protocol type , using generic format"));
}

TEST_F(RecordConversion, UidIsCopiedAndAbsentWithoutTheFieldAndUnknownInLowerCaseWhenUnset) {
  RecordBuilder with, without, unset;
  with.text("uid", "CHhAvVGS1DHFjwGM9");
  without.text("ptype", "ftp");
  EXPECT_EQ("CHhAvVGS1DHFjwGM9", text_of(event_of(convert(with))->uid()));
  EXPECT_EQ("<absent>", text_of(event_of(convert(without))->uid()));
  EXPECT_THAT(weirds(), IsEmpty());
  unset.unset("uid", TYPE_STRING);
  EXPECT_EQ("unknown", text_of(event_of(convert(unset))->uid()));
  EXPECT_THAT(weirds(), ElementsAre("Empty uid!"));
}

TEST_F(RecordConversion, EventTimeIsTheLastTsFieldEvenWhenItIsUnset) {
  RecordBuilder set, unset, statistics, unset_statistics;
  set.unset("ts", TYPE_TIME).time("ts", 1340213005.165293);
  unset.time("ts", 5.0).unset("ts", TYPE_TIME);
  statistics.real("cpu_usage", 0.5).time("ts", 1340213005.25);
  unset_statistics.real("cpu_usage", 0.5).unset("ts", TYPE_TIME);
  EXPECT_EQ(1340213005.165293, event_of(convert(set))->ts());
  EXPECT_EQ(0.0, event_of(convert(unset))->ts());
  EXPECT_EQ(1340213005.25, event_of(convert(statistics))->ts());
  EXPECT_EQ(0.0, event_of(convert(unset_statistics))->ts());
}

TEST_F(RecordConversion, TimeOfZeroIsLeftOutOfTheBuffer) {
  RecordBuilder record;
  const Bytes message = convert(record.time("ts", 0.0));
  const auto* table = reinterpret_cast<const flatbuffers::Table*>(event_of(message));
  EXPECT_FALSE(table->CheckField(Dravenholt::NetworkEvent::VT_TS));
  EXPECT_EQ(0.0, event_of(message)->ts());
}

TEST_F(RecordConversion, StatisticsRecordHasTheFixedUidAndTheHostsCurrentTime) {
  RecordBuilder record;
  record.text("uid", "CAbc").time("ts", 5.0).real("cpu_usage", 0.5);
  standin::set_pseudo_time(1234.5);
  const Bytes message = convert(record);
  standin::set_pseudo_time(0);
  EXPECT_EQ(Dravenholt::Data_SystemStatsData, event_of(message)->data_type());
  EXPECT_EQ("000000000000000000", text_of(event_of(message)->uid()));
  EXPECT_EQ(1234.5, event_of(message)->ts());
  EXPECT_EQ(0.5, event_of(message)->data_as_SystemStatsData()->cpu_usage());
}

TEST_F(RecordConversion, FixedUidOfAStatisticsRecordIsCreatedBeforeItsPayload) {
  RecordBuilder record;
  record.unset("cpu_usage", TYPE_DOUBLE);  // a statistics record all the same
  const Bytes message = convert(record);
  EXPECT_EQ(Dravenholt::Data_SystemStatsData, event_of(message)->data_type());
  EXPECT_EQ("000000000000000000", text_of(event_of(message)->uid()));
  // What is created earlier stands further behind.
  EXPECT_GT(reinterpret_cast<const std::uint8_t*>(event_of(message)->uid()),
            reinterpret_cast<const std::uint8_t*>(payload_of(message)));
}

TEST_F(RecordConversion, OfPtypeAndCpuUsageTheLaterOneDecides) {
  RecordBuilder ptype_first, cpu_usage_first;
  ptype_first.text("ptype", "ftp").real("cpu_usage", 0.5);
  cpu_usage_first.real("cpu_usage", 0.5).text("ptype", "ftp").text("uid", "CAbc");
  EXPECT_EQ(Dravenholt::Data_SystemStatsData, type_of(ptype_first));
  const Bytes message = convert(cpu_usage_first);
  EXPECT_EQ(Dravenholt::Data_FtpData, event_of(message)->data_type());
  EXPECT_EQ("CAbc", text_of(event_of(message)->uid()));
  EXPECT_GT(event_of(message)->ts(), 0.0);  // cpu_usage has set it all the same
}

TEST_F(RecordConversion, LastOccurrenceOfEachEnvelopeFieldWins) {
  RecordBuilder record;
  record.text("ptype", "ftp").text("ptype", "dns");
  record.text("uid", "first").text("uid", "second");
  record.time("ts", 1.0).time("ts", 2.0);
  record.vec("extra_fields", {"a", "b"}).vec("extra_fields", {"c"});
  record.vec("extra_vals", {"1"}).vec("extra_vals", {"2", "3"});
  const Bytes message = convert(record);
  EXPECT_EQ("second", text_of(event_of(message)->uid()));
  const std::string bytes(message.begin(), message.end());
  EXPECT_NE(std::string::npos, bytes.find("first")) << "it was created all the same";
  EXPECT_EQ(2.0, event_of(message)->ts());
  EXPECT_EQ("dns", text_of(event_of(message)->data_as_GenericProtocolData()->ptype()));
  EXPECT_THAT(pairs_of(message), ElementsAre(std::make_pair("c", "2")));
}

TEST_F(RecordConversion, StringsOfTheScanStandInRecordOrderBehindTheAgentId) {
  RecordBuilder record;
  record.text("uid", "the-uid").text("ptype", "the-type").vec("extra_fields", {"the-key"});
  record.vec("extra_vals", {"the-value"});
  const Bytes message = convert(record, "the-agent");
  const std::string bytes(message.begin(), message.end());
  std::vector<std::size_t> places;
  for (const char* text : {"the-agent", "the-uid", "the-type", "the-key", "the-value"})
    places.push_back(bytes.find(text));
  // From the end of the buffer towards its start.
  EXPECT_TRUE(std::is_sorted(places.rbegin(), places.rend()));
  EXPECT_NE(std::string::npos, places[0]);
}

TEST_F(RecordConversion, FieldNamesOfTheScanAreCaseSensitiveAndWhole) {
  RecordBuilder record;
  record.text("PTYPE", "ftp").text("Uid", "x").time("TS", 5.0).real("CPU_USAGE", 1.0);
  record.text("ptypes", "ftp").text("uid.x", "x").time("ts2", 5.0).text("", "x");
  const Bytes message = convert(record);
  EXPECT_EQ(Dravenholt::Data_GenericProtocolData, event_of(message)->data_type());
  EXPECT_EQ(nullptr, event_of(message)->uid());
  EXPECT_EQ(0.0, event_of(message)->ts());
  EXPECT_THAT(warnings(), IsEmpty());
}
