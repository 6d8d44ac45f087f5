// Damaged records: values of the wrong type, unset, out of range, too large.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "Conversion.h"
#include "TempDir.h"

using test::Bytes;
using test::convert;
using test::event_of;
using test::list_value;
using test::RecordBuilder;
using test::text_of;
using test::text_value;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using threading::Value;

namespace {

const char* const kColumns[] = {"ptype",         "uid",          "ts",
                                "cpu_usage",     "extra_fields", "extra_vals",
                                "id.orig_h",     "id.orig_p",    "id.resp_h",
                                "id.resp_p",     "proto",        "duration",
                                "orig_bytes",    "conn_state",   "local_orig",
                                "service",       "ftp.user",     "ftp.reply_code",
                                "ftp.file_size", "http.uri",     "ldap.resultCode",
                                "smb.filesize",  "smtp.to",      "smtp.reqSize",
                                "tds.sql",       "dce.opnum",    "tn5250.details",
                                "priority",      "hdd_volume",   "ph_mem_used"};
const char* const kPtypes[] = {"general", "ftp", "http",    "http-in", "ldap", "smb",
                               "smtp",    "tds", "dce-rpc", "tn5250",  "other"};

/// Every type a host value can have, with something in it.
std::vector<Value*> one_of_each_type() {
  std::vector<Value*> values;
  for (TypeTag type : {TYPE_STRING, TYPE_ENUM, TYPE_FILE, TYPE_FUNC})
    values.push_back(text_value("text", type));
  for (TypeTag type : {TYPE_BOOL, TYPE_INT, TYPE_COUNT, TYPE_COUNTER}) {
    values.push_back(new Value(type));
    values.back()->val.uint_val = ~std::uint64_t(0);
  }
  for (TypeTag type : {TYPE_TIME, TYPE_INTERVAL, TYPE_DOUBLE}) {
    values.push_back(new Value(type));
    values.back()->val.double_val = -1.5e200;
  }
  for (TypeTag type : {TYPE_PORT, TYPE_ADDR, TYPE_SUBNET, TYPE_ERROR, TYPE_VOID, TYPE_PATTERN}) {
    values.push_back(new Value(type));
    memset(static_cast<void*>(&values.back()->val), 0x01, sizeof values.back()->val);
  }
  for (TypeTag type : {TYPE_TABLE, TYPE_VECTOR}) {
    values.push_back(list_value(type, {text_value("a"), new Value(TYPE_STRING, false)}));
    values.push_back(list_value(type, {new Value(TYPE_COUNT), text_value("")}));
    values.push_back(list_value(type, {}));
  }
  return values;
}

/// An unset value whose union was not cleared.
Value* unset_with_garbage(TypeTag type) {
  Value* value = new Value(type, false);
  memset(static_cast<void*>(&value->val), 0x5a, sizeof value->val);
  return value;
}

class RobustConversion : public test::ReportingTest {};

}  // namespace

TEST_F(RobustConversion, EveryColumnTakesAValueOfEveryType) {
  for (const char* ptype : kPtypes) {
    for (const char* column : kColumns) {
      for (Value* value : one_of_each_type()) {
        RecordBuilder record;
        record.text("ptype", ptype).raw(column, value);
        convert(record);  // verifies the message
      }
    }
  }
}

TEST_F(RobustConversion, ValuesOfAnotherKindReadAsEmptyOrZero) {
  RecordBuilder record;
  record.text("ptype", "general").text("orig_bytes", "12").count("conn_state", 7);
  record.count("duration", 5).real("id.orig_p", 80.0).count("id.orig_h", 1).count("proto", 6);
  record.text("local_orig", "T").addr("service", "10.0.0.1").text("ts", "1.0");
  record.count("uid", 9);
  const Bytes message = convert(record);
  const auto* data = event_of(message)->data_as_GeneralData();
  EXPECT_EQ(0u, data->orig_bytes());
  EXPECT_EQ("", text_of(data->conn_state()));
  EXPECT_EQ(0u, data->duration());
  EXPECT_EQ(0, data->orig_p());
  EXPECT_EQ(0u, data->orig_h()->size());
  EXPECT_EQ(Dravenholt::Transport_unknown, data->proto());
  EXPECT_EQ(0, data->local_orig());
  EXPECT_EQ("", text_of(data->service()));
  EXPECT_EQ(0.0, event_of(message)->ts());
  EXPECT_EQ("", text_of(event_of(message)->uid()));
  EXPECT_THAT(weirds(), IsEmpty());
}

TEST_F(RobustConversion, NothingOfAnUnsetValueIsRead) {
  for (const char* ptype : kPtypes) {
    RecordBuilder garbage, clean;
    for (RecordBuilder* record : {&garbage, &clean}) {
      record->text("ptype", ptype);
      for (const char* column : kColumns) {
        if (std::string(column) == "ptype" || std::string(column) == "cpu_usage")
          continue;
        for (TypeTag type : {TYPE_STRING, TYPE_COUNT, TYPE_DOUBLE, TYPE_TIME, TYPE_INTERVAL,
                             TYPE_PORT, TYPE_BOOL, TYPE_ENUM, TYPE_TABLE, TYPE_VECTOR, TYPE_ADDR})
          record->raw(column,
                      record == &garbage ? unset_with_garbage(type) : new Value(type, false));
      }
    }
    EXPECT_EQ(convert(clean), convert(garbage)) << ptype;
  }
}

TEST_F(RobustConversion, TextWithoutBytesOrWithANegativeLengthIsEmpty) {
  for (int length : {0, -1, INT32_MIN, 5}) {
    Value* value = new Value(TYPE_STRING);
    value->val.string_val.data = length == 5 ? nullptr : new char[1];
    value->val.string_val.length = length;
    RecordBuilder record;
    record.text("ptype", "ftp").raw("ftp.user", value);
    EXPECT_EQ("", text_of(event_of(convert(record))->data_as_FtpData()->user())) << length;
  }
}

TEST_F(RobustConversion, ListsWithoutElementsOrOfNegativeSizeAreEmpty) {
  for (TypeTag type : {TYPE_TABLE, TYPE_VECTOR}) {
    for (bro_int_t size : {0, -1, 3}) {
      Value* value = new Value(type);
      Value::set_t& list = type == TYPE_TABLE ? value->val.set_val : value->val.vector_val;
      list.vals = size < 0 ? new Value*[1]() : nullptr;
      list.size = size;
      RecordBuilder record;
      record.text("ptype", "smtp").raw("smtp.to", value);
      EXPECT_EQ("", text_of(event_of(convert(record))->data_as_SmtpData()->to()));
      list.size = 0;  // the host's destructor walks it
    }
  }
}

TEST_F(RobustConversion, ElementsThatAreMissingUnsetOrNoTextReadAsEmpty) {
  RecordBuilder smtp;
  smtp.text("ptype", "smtp");
  smtp.raw("smtp.to", list_value(TYPE_VECTOR, {nullptr, text_value("a"), new Value(TYPE_COUNT),
                                               new Value(TYPE_STRING, false), text_value("b")}));
  EXPECT_EQ(",a,,,b", text_of(event_of(convert(smtp))->data_as_SmtpData()->to()));

  RecordBuilder generic;
  generic.raw("extra_fields", list_value(TYPE_TABLE, {new Value(TYPE_STRING, false)}));
  generic.raw("extra_vals", list_value(TYPE_TABLE, {new Value(TYPE_ADDR)}));
  const Bytes message = convert(generic);
  const auto* pairs = event_of(message)->data_as_GenericProtocolData()->fields();
  ASSERT_EQ(1u, pairs->size());
  EXPECT_EQ("", text_of(pairs->Get(0)->key()));
  EXPECT_EQ("", text_of(pairs->Get(0)->value()));
}

TEST_F(RobustConversion, APtypeThatIsNoTextMatchesNothing) {
  RecordBuilder record;
  record.count("ptype", 6);
  EXPECT_EQ(Dravenholt::Data_GenericProtocolData, event_of(convert(record))->data_type());
  EXPECT_THAT(weirds(), IsEmpty());
  EXPECT_THAT(warnings(), ElementsAre("Unsupported protocol type , using generic format"));
}

TEST_F(RobustConversion, LargeTextsAndManyColumnsGoThroughWhole) {
  RecordBuilder record;
  record.text("ptype", "tds");
  for (int i = 0; i < 2000; i++)
    record.text("column" + std::to_string(i), "x");
  const std::string sql(5 * 1000 * 1000, 'q');
  record.text("tds.sql", sql).text("tds.user", "alice");
  const Bytes message = convert(record);
  EXPECT_EQ(sql, text_of(event_of(message)->data_as_TdsData()->sql()));
  EXPECT_EQ("alice", text_of(event_of(message)->data_as_TdsData()->user()));
}

TEST_F(RobustConversion, TextIsCutWhereTheMessageWouldGrowTooLarge) {
  RecordBuilder record;
  record.text("ptype", "tds").text("tds.user", "alice").text("tds.sql", std::string(5000, 'q'));
  record.text("tds.app", "nothing is left for this one");
  const Bytes message = convert(record, "agent-7", 2000);
  const auto* data = event_of(message)->data_as_TdsData();
  EXPECT_EQ("alice", text_of(data->user()));
  EXPECT_GT(data->sql()->size(), 1800u);
  EXPECT_EQ(std::string(data->sql()->size(), 'q'), text_of(data->sql()));
  EXPECT_LT(message.size(), 2200u);
  EXPECT_EQ("", text_of(data->app()));
}

TEST_F(RobustConversion, JoinedTextIsCutWhereTheMessageWouldGrowTooLarge) {
  RecordBuilder record;
  record.text("ptype", "smtp").vec("smtp.to", std::vector<std::string>(3000, "bob"));
  const Bytes message = convert(record, "agent-7", 2000);
  const std::string to = text_of(event_of(message)->data_as_SmtpData()->to());
  EXPECT_GT(to.size(), 1800u);
  EXPECT_LT(message.size(), 2200u);
  EXPECT_EQ("bob,bob,bob", to.substr(0, 11));
}

TEST_F(RobustConversion, PairsThatFindNoRoomAreLeftOut) {
  RecordBuilder record;
  record.vec("extra_fields", std::vector<std::string>(3000, "key"));
  record.vec("extra_vals", std::vector<std::string>(3000, "value"));
  const Bytes message = convert(record, "agent-7", 2000);
  const auto* pairs = event_of(message)->data_as_GenericProtocolData()->fields();
  EXPECT_GT(pairs->size(), 20u);
  EXPECT_LT(pairs->size(), 100u);
  EXPECT_LT(message.size(), 2600u);
  EXPECT_EQ("value", text_of(pairs->Get(0)->value()));
}

TEST_F(RobustConversion, TheLimitItselfLeavesRoomForTablesBelowTwoGibibytes) {
  const std::size_t format_limit = FLATBUFFERS_MAX_BUFFER_SIZE;
  EXPECT_LE(logging::writer::kMaxTextBytes + (std::size_t(512) << 20), format_limit + 1);
}

TEST_F(RobustConversion, RandomRecordsAlwaysGiveAValidMessage) {
  const unsigned long seed = test::random_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto below = [&random](std::size_t n) { return random() % n; };
  for (unsigned long round = 0; round < 1500 * test::test_factor(); round++) {
    RecordBuilder record;
    const std::size_t columns = below(30);
    for (std::size_t i = 0; i < columns; i++) {
      const char* column = kColumns[below(sizeof kColumns / sizeof *kColumns)];
      std::vector<Value*> values = one_of_each_type();
      const std::size_t chosen = below(values.size());
      for (std::size_t v = 0; v < values.size(); v++)
        if (v != chosen)
          delete values[v];
      if (below(4) == 0)
        record.text("ptype", kPtypes[below(sizeof kPtypes / sizeof *kPtypes)]);
      if (below(5) == 0)
        record.raw(column, unset_with_garbage(values[chosen]->type));
      record.raw(column, values[chosen]);
    }
    convert(record, "agent-7", below(2) ? logging::writer::kMaxTextBytes : below(600));
  }
}
