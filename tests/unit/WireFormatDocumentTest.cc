// docs/wire-format.md against the conversion: its example is the very message that its record
// becomes, and every column that its tables name fills the field next to it, and no other.

#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdio>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Conversion.h"
#include "TempDir.h"

#include "util.h"

using test::Bytes;
using test::convert;
using test::payload_of;
using test::RecordBuilder;

namespace {

// What the example's text says about its agent.
constexpr int kMinutesWest = -120;
const char kAgentId[] = "agent-7";

const std::string& document() {
  static const std::string text = test::read_file(ZMQWRITER_SOURCE_DIR "/docs/wire-format.md");
  return text;
}

/// The lines between "```KIND" and "```".
std::vector<std::string> block(const std::string& kind) {
  std::istringstream lines(document());
  std::vector<std::string> found;
  std::string line;
  while (std::getline(lines, line) && line != "```" + kind) {
  }
  while (std::getline(lines, line) && line != "```")
    found.push_back(line);
  EXPECT_FALSE(found.empty()) << "no block " << kind;
  return found;
}

void append_hex(const std::string& digits, Bytes* bytes) {
  std::istringstream pairs(digits);
  for (std::string pair; pairs >> pair;)
    bytes->push_back(static_cast<std::uint8_t>(std::stoul(pair, nullptr, 16)));
}

std::string hex_dump(const Bytes& bytes) {
  std::string text;
  char piece[32];
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i % 16 == 0) {
      snprintf(piece, sizeof piece, "\n%08zx ", i);
      text += piece;
    }
    snprintf(piece, sizeof piece, i % 16 == 8 ? "  %02x" : " %02x", bytes[i]);
    text += piece;
  }
  return text;
}

/// Adds the column to `record` as a line of the example gives it.
void add_column(const std::string& name, const std::string& type, const std::string& value,
                RecordBuilder* record) {
  if (type == "string")
    record->text(name, value);
  else if (type == "enum")
    record->enumerator(name, value);
  else if (type == "addr")
    record->addr(name, value);
  else if (type == "port")
    record->port(name, std::stoull(value));
  else if (type == "count")
    record->count(name, std::stoull(value));
  else if (type == "int")
    record->integer(name, std::stoll(value));
  else if (type == "bool")
    record->boolean(name, value == "T");
  else if (type == "time")
    record->time(name, std::stod(value));
  else if (type == "interval")
    record->interval(name, std::stod(value));
  else if (type == "double")
    record->real(name, std::stod(value));
  else if (type == "set")
    record->set(name, {value, "x"});
  else
    ADD_FAILURE() << "no such type: " << type;
}

/// Of each kind of column: its type, a value that does not fit into a narrow field, and what a
/// field holds then, as text.
struct Kind {
  TypeTag type;
  const char* value;
  const char* field;
};

const Kind& kind_of(const std::string& name) {
  static const std::map<std::string, Kind> kinds = {{"string", {TYPE_STRING, "tcp", "tcp"}},
                                                    {"enum", {TYPE_ENUM, "tcp", "1"}},
                                                    {"addr", {TYPE_ADDR, "10.0.0.5", "10.0.0.5."}},
                                                    {"port", {TYPE_PORT, "65979", "443"}},
                                                    {"count", {TYPE_COUNT, "4294967301", "5"}},
                                                    {"int", {TYPE_INT, "4294967301", "5"}},
                                                    {"bool", {TYPE_BOOL, "T", "1"}},
                                                    {"time", {TYPE_TIME, "1.2345", "1.2345"}},
                                                    {"interval", {TYPE_INTERVAL, "1.2345", "1234"}},
                                                    {"double", {TYPE_DOUBLE, "1.2345", "1.2345"}},
                                                    {"set", {TYPE_TABLE, "tcp", "tcp,x"}}};
  return kinds.at(name);
}

/// A row of a payload's table whose field comes from a column.
struct Row {
  std::string table;
  int number;
  std::string field;
  std::string type;
  std::string column;
  std::string kind;
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
  return out << row.table << "." << row.field << " from " << row.column;
}

std::vector<Row> rows_with_columns() {
  const std::regex heading("### `([A-Za-z0-9]+)`");
  const std::regex row(R"(\| (\d+) \| `([a-z_]+)` \| ([^|]+) \| `([A-Za-z0-9._]+)` ([a-z]+) \|.*)");
  std::vector<Row> rows;
  std::istringstream lines(document());
  std::string line, table;
  for (std::smatch match; std::getline(lines, line);) {
    if (std::regex_match(line, match, heading))
      table = match[1];
    else if (std::regex_match(line, match, row))
      rows.push_back({table, std::stoi(match[1]), match[2], match[3], match[4], match[5]});
  }
  return rows;
}

std::string ptype_of(const std::string& table) {
  const std::regex row(R"(\| (\d+) \| `([A-Za-z0-9]+)` \| `([a-z0-9-]+)`.*)");
  std::istringstream lines(document());
  std::smatch match;
  for (std::string line; std::getline(lines, line);)
    if (std::regex_match(line, match, row) && match[2] == table)
      return match[3];
  ADD_FAILURE() << "no ptype for " << table;
  return "";
}

std::string expected(const Row& row) {
  const Kind& kind = kind_of(row.kind);
  return row.type == "ulong" && row.kind != "interval" ? kind.value : kind.field;
}

/// The field at `slot`, read as the type that the document gives it.
std::string read(const flatbuffers::Table& table, const std::string& type,
                 flatbuffers::voffset_t slot) {
  if (type == "string")
    return test::text_field(&table, slot);
  std::ostringstream text;
  if (type == "[byte]") {
    for (const std::uint8_t byte :
         *table.GetPointer<const flatbuffers::Vector<std::uint8_t>*>(slot))
      text << int{byte} << ".";
  } else if (type == "ushort") {
    text << table.GetField<std::uint16_t>(slot, 0);
  } else if (type == "uint") {
    text << table.GetField<std::uint32_t>(slot, 0);
  } else if (type == "int") {
    text << table.GetField<std::int32_t>(slot, 0);
  } else if (type == "ulong") {
    text << table.GetField<std::uint64_t>(slot, 0);
  } else if (type == "double") {
    text << table.GetField<double>(slot, 0);
  } else if (type == "byte" || type == "Transport") {
    text << int{table.GetField<std::int8_t>(slot, 0)};
  } else {
    ADD_FAILURE() << "no such type: " << type;
  }
  return text.str();
}

/// A record that becomes `table` with no more in it than is always there.
void make_bare(const std::string& table, RecordBuilder* record) {
  if (table == "SystemStatsData")
    record->real("cpu_usage", 0);
  else
    record->text("ptype", ptype_of(table));
}

class WireFormatDocumentTest : public test::ReportingTest {};

}  // namespace

/// In place of the C library's: the example's agent lives two hours east of Greenwich.
extern "C" int gettimeofday(struct timeval* now, void* zone) noexcept {
  *now = timeval();
  if (zone)
    static_cast<struct timezone*>(zone)->tz_minuteswest = kMinutesWest;
  return 0;
}

TEST_F(WireFormatDocumentTest, TheExampleIsTheMessageOfItsRecord) {
  RecordBuilder record;
  for (const std::string& line : block("record")) {
    std::istringstream words(line);
    std::string name, type, value;
    words >> name >> type >> value;
    add_column(name, type, value, &record);
  }
  Bytes documented;
  for (const std::string& line : block("hex")) {
    EXPECT_EQ(documented.size(), std::stoul(line.substr(0, 8), nullptr, 16)) << line;
    append_hex(line.substr(8), &documented);
  }
  const Bytes message = convert(record, kAgentId);
  EXPECT_EQ(hex_dump(message), hex_dump(documented));
}

TEST_F(WireFormatDocumentTest, TheExampleNamesItsAgentAndTimeZone) {
  EXPECT_NE(std::string::npos, document().find("agent `" + std::string(kAgentId) + "`"));
  EXPECT_NE(std::string::npos,
            document().find("`tz_minutes_west` " + std::to_string(kMinutesWest)));
}

TEST_F(WireFormatDocumentTest, EachColumnFillsTheFieldNextToItAndNoOther) {
  const std::vector<Row> rows = rows_with_columns();
  EXPECT_EQ(19u + 5 + 7 + 4 + 5 + 4 + 4 + 7 + 2 + 9, rows.size());
  for (const Row& row : rows) {
    RecordBuilder bare, record;
    make_bare(row.table, &bare);
    make_bare(row.table, &record);
    // Of columns with the same name the last one counts; names are case-sensitive and whole.
    record.unset(row.column, kind_of(row.kind).type);
    add_column(row.column, row.kind, kind_of(row.kind).value, &record);
    record.text(to_upper(row.column), "x").text(row.column + "s", "x").text("x" + row.column, "x");
    const Bytes bare_message = convert(bare), message = convert(record);
    const flatbuffers::voffset_t slot = static_cast<flatbuffers::voffset_t>(4 + 2 * row.number);
    EXPECT_EQ(expected(row), read(*payload_of(message), row.type, slot)) << row;
    const bool always_there = payload_of(bare_message)->CheckField(slot);
    EXPECT_EQ(test::fields_present(payload_of(bare_message)) + (always_there ? 0 : 1),
              test::fields_present(payload_of(message)))
        << row;
    EXPECT_EQ(row.type == "[byte]", always_there) << row;
  }
}

TEST_F(WireFormatDocumentTest, AnUnsetColumnReadsAsTheDocumentSays) {
  for (const Row& row : rows_with_columns()) {
    RecordBuilder record;
    make_bare(row.table, &record);
    add_column(row.column, row.kind, kind_of(row.kind).value, &record);
    record.unset(row.column, kind_of(row.kind).type);
    const Bytes message = convert(record);
    const std::string value = read(*payload_of(message), row.type,
                                   static_cast<flatbuffers::voffset_t>(4 + 2 * row.number));
    EXPECT_EQ(row.type == "[byte]" ? "0.0.0.0." : row.type == "string" ? "" : "0", value) << row;
  }
}
