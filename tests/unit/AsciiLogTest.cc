// The reader of ASCII logs: every header form, every column type, every kind of broken line.
#include "AsciiLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ShowValue.h"
#include "TempDir.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using zmqwriter::AsciiLog;
using zmqwriter::LogError;
using Step = AsciiLog::Step;

const std::string kHeader =
    "#separator \\x09\n#set_separator\t,\n#empty_field\t(empty)\n#unset_field\t-\n#path\ttest\n"
    "#open\t2015-02-23-21-32-33\n";

/// A log with one column of that type and these lines.
std::string one_column(const std::string& type, const std::string& lines) {
  return kHeader + "#fields\tx\n#types\t" + type + "\n" + lines;
}

class AsciiLogTest : public testing::Test {
 protected:
  /// Everything that a log gives: records as "value|value", "header:PATH:COLUMNS", "broken:REASON".
  static std::vector<std::string> read(const std::string& content) {
    test::write_file("x.log", content);
    AsciiLog log("x.log");
    std::vector<std::string> seen;
    for (;;) {
      switch (log.Next()) {
        case Step::kRecord:
          seen.push_back(show_record(log.TakeValues()));
          break;
        case Step::kHeader:
          seen.push_back("header:" + log.path() + ":" + std::to_string(log.columns().size()));
          break;
        case Step::kBroken:
          seen.push_back("broken:" + log.problem());
          break;
        case Step::kEnd:
          EXPECT_EQ(log.Next(), Step::kEnd) << "the end is final";
          return seen;
      }
    }
  }

  static std::string show_record(const std::vector<zmqwriter::ValuePtr>& values) {
    std::string text;
    for (const auto& value : values)
      text += (text.empty() ? "" : "|") + test::show(*value);
    return text;
  }

  /// The one value that `token` gives as a column of `type`.
  static std::string value(const std::string& type, const std::string& token) {
    const auto seen = read(one_column(type, token + "\n"));
    return seen.size() == 1 ? seen[0] : std::to_string(seen.size()) + " steps";
  }

  /// Text() of the first column of the first record.
  static std::string text(const std::string& content) {
    test::write_file("x.log", content);
    AsciiLog log("x.log");
    EXPECT_EQ(log.Next(), Step::kRecord);
    return log.Text(0);
  }

  static std::string refusal(const std::string& file) {
    try {
      AsciiLog log(file);
    } catch (const LogError& error) {
      return error.what();
    }
    return "accepted";
  }

  test::TempDir dir;
};

TEST_F(AsciiLogTest, EveryTypeIsReadAsTheHostStoresIt) {
  const struct {
    const char* type;
    std::vector<std::pair<std::string, std::string>> values;  // in the log, as the host stores it
  } cases[] = {
      {"bool", {{"T", "1"}, {"F", "0"}}},
      {"int",
       {{"-42", "-42"},
        {"0", "0"},
        {"-9223372036854775808", "-9223372036854775808"},
        {"9223372036854775807", "9223372036854775807"}}},
      {"count", {{"18446744073709551615", "18446744073709551615"}}},
      {"counter", {{"7", "7"}}},
      {"double",
       {{"3.141593", "3.1415929999999999"},
        {"3", "3"},
        {"-0.5", "-0.5"},
        {"2.147484e+09", "2147484000"},
        {"nan", "nan"},
        {"-inf", "-inf"},
        {"1e-400", "0"}}},
      {"time", {{"1449999999.123456", "1449999999.123456"}}},
      {"interval", {{"90.005000", "90.004999999999995"}}},
      {"string",
       {{"plain text", "'plain text'"},
        {"(empty)", "''"},
        {"a\\x09b", "'a\tb'"},
        {"\\xC3\\xa9", "'\xc3\xa9'"},
        {"back\\\\slash", "'back\\slash'"},
        {"\\\\x41", "'\\x41'"},
        {"C:\\dir", "'C:\\dir'"},
        {"cut\\x4", "'cut\\x4'"},
        {"end\\", "'end\\'"},
        {"\\x2d", "'-'"},
        {"--", "'--'"},
        {"a\\x00b", std::string("'a\0b'", 5)},
        {std::string("a\0b", 3), std::string("'a\0b'", 5)},
        {"caf\xc3\xa9", "'caf\xc3\xa9'"}}},
      {"enum", {{"Notice::LOG", "'Notice::LOG'"}, {"(empty)", "''"}}},
      {"file", {{"/var/x", "'/var/x'"}}},
      {"func", {{"M::f\\x0a{ }", "'M::f\n{ }'"}}},
      {"port", {{"0", "0"}, {"65535", "65535"}}},
      {"addr",
       {{"192.0.2.1", "v4:c0000201"},
        {"2001:db8::1", "v6:20010db8000000000000000000000001"},
        {"::", "v6:00000000000000000000000000000000"},
        {"::ffff:192.0.2.1", "v4:c0000201"}}},
      {"subnet",
       {{"192.0.2.0/24", "v4:c0000200/120"},
        {"10.0.0.0/8", "v4:0a000000/104"},
        {"0.0.0.0/0", "v4:00000000/96"},
        {"192.0.2.255/25", "v4:c0000280/121"},
        {"192.0.2.1/32", "v4:c0000201/128"},
        {"2001:db8::/32", "v6:20010db8000000000000000000000000/32"},
        {"2001:db8:ffff::/33", "v6:20010db8800000000000000000000000/33"},
        {"::/0", "v6:00000000000000000000000000000000/0"},
        {"::ffff:192.0.2.0/120", "v4:c0000200/120"}}},
      {"set[string]",
       {{"(empty)", "{}"},
        {"a", "{'a'}"},
        {"b\\x2cc,a", "{'b,c' 'a'}"},
        {"(empty),a", "{'' 'a'}"}}},
      {"set[enum]", {{"M::A,M::B", "{'M::A' 'M::B'}"}}},
      {"set[addr]", {{"192.0.2.1,::1", "{v4:c0000201 v6:00000000000000000000000000000001}"}}},
      {"vector[count]", {{"1,2,3", "[1 2 3]"}}},
      {"vector[string]", {{"x,y,-,w", "['x' 'y' unset 'w']"}, {"x,\\x2d", "['x' '-']"}}},
      {"vector[interval]", {{"1.5,-,2.5", "[1.5 unset 2.5]"}}},
      {"vector[bool]", {{"T,F", "[1 0]"}}},
      {"vector[int]", {{"(empty)", "[]"}}},
  };
  for (const auto& one : cases) {
    for (const auto& [token, shown] : one.values)
      EXPECT_EQ(value(one.type, token), shown) << one.type << " " << token;
  }
}

TEST_F(AsciiLogTest, UnsetIsAbsentOverAZeroedUnion) {
  for (const char* type :
       {"bool", "int", "count", "counter", "double", "time", "interval", "string", "enum", "port",
        "addr", "subnet", "file", "func", "set[string]", "vector[addr]"})
    EXPECT_EQ(value(type, "-"), "unset") << type;
}

TEST_F(AsciiLogTest, BadValueBreaksItsLineOnlyAndSaysWhy) {
  const struct {
    const char* type;
    std::string token;
    const char* reason;
  } cases[] = {
      {"bool", "true", "'true' is not a bool, which is T or F"},
      {"bool", "", "'' is not a bool, which is T or F"},
      {"int", "12x", "'12x' is not a valid int"},
      {"int", "", "'' is not a valid int"},
      {"int", "9223372036854775808", "'9223372036854775808' is out of range for int"},
      {"count", "-1", "'-1' is not a valid count"},
      {"count", "1.5", "'1.5' is not a valid count"},
      {"count", "18446744073709551616", "'18446744073709551616' is out of range for count"},
      {"count", std::string("1\0", 2), "'1\\x00' is not a valid count"},
      {"counter", "x", "'x' is not a valid count"},
      {"double", "1.5.2", "'1.5.2' is not a number"},
      {"double", " 1", "' 1' is not a number"},
      {"double", "0x10", "'0x10' is not a number"},
      {"double", "1e999", "'1e999' is out of range for a double"},
      {"double", std::string("1\0", 2), "'1\\x00' is not a number"},
      {"time", "yesterday", "'yesterday' is not a number"},
      {"interval", "", "'' is not a number"},
      {"port", "65536", "'65536' is out of range for port"},
      {"port", "80/tcp", "'80/tcp' is not a valid port"},
      {"port", "-5", "'-5' is not a valid port"},
      {"addr", "192.0.2.256", "'192.0.2.256' is not an address"},
      {"addr", "2001:db8::1::", "'2001:db8::1::' is not an address"},
      {"addr", std::string("192.0.2.1\0", 10), "'192.0.2.1\\x00' is not an address"},
      {"addr", "example.com", "'example.com' is not an address"},
      {"subnet", "192.0.2.0", "'192.0.2.0' is not a subnet"},
      {"subnet", "192.0.2.0/33", "'192.0.2.0/33' has a prefix that is longer than the address"},
      {"subnet", "2001:db8::/129", "'2001:db8::/129' has a prefix that is longer than the address"},
      {"subnet", "192.0.2.0/x", "'x' is not a valid prefix length"},
      {"set[count]", "1,,2", "'' is not a valid count"},
      {"set[addr]", "192.0.2.1,nowhere", "'nowhere' is not an address"},
      {"vector[port]", "1,70000", "'70000' is out of range for port"},
      {"count", std::string(100, 'a'),
       "'aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa...' is not a valid "
       "count"},
  };
  for (const auto& bad : cases) {
    EXPECT_THAT(read(one_column(bad.type, bad.token + "\n-\n")),
                ElementsAre(std::string("broken:x.log:9: column 'x': ") + bad.reason, "unset"))
        << bad.type;
  }
}

TEST_F(AsciiLogTest, TextsThatTheHostTerminatesAreTerminatedOutsideTheirLength) {
  for (const char* type : {"enum", "file", "func"}) {
    test::write_file("x.log", one_column(type, "abc\n"));
    AsciiLog log("x.log");
    ASSERT_EQ(log.Next(), Step::kRecord);
    const auto values = log.TakeValues();
    EXPECT_EQ(values[0]->val.string_val.length, 3);
    EXPECT_STREQ(values[0]->val.string_val.data, "abc");
  }
}

TEST_F(AsciiLogTest, ColumnsAndPathComeFromTheHeader) {
  test::write_file("x.log", kHeader +
                                "#fields\tts\tid.orig_h\ttags\tttl\n"
                                "#types\ttime\taddr\tset[enum]\tvector[interval]\n");
  AsciiLog log("x.log");
  EXPECT_EQ(log.path(), "test");
  EXPECT_EQ(log.lines().name(), "x.log");
  EXPECT_THAT(log.columns(), ElementsAre(AsciiLog::Column{"ts", TYPE_TIME, TYPE_VOID},
                                         AsciiLog::Column{"id.orig_h", TYPE_ADDR, TYPE_VOID},
                                         AsciiLog::Column{"tags", TYPE_TABLE, TYPE_ENUM},
                                         AsciiLog::Column{"ttl", TYPE_VECTOR, TYPE_INTERVAL}));
  EXPECT_EQ(log.Next(), Step::kEnd);
}

TEST_F(AsciiLogTest, EveryFormOfHeaderIsUnderstood) {
  const struct {
    const char* name;
    std::string content;
    std::vector<std::string> seen;
  } cases[] = {
      {"WithoutSeparatorLine", "#fields\ta\tb\n#types\tcount\tstring\n1\t-\n", {"1|unset"}},
      {"TypesBeforeFields", "#types\tcount\n#fields\ta\n1\n", {"1"}},
      {"SpaceAsSeparator",
       "#separator \\x20\n#set_separator ;\n#unset_field nil\n#empty_field none\n"
       "#path sp\n#fields a b c\n#types string set[string] string\n"
       "a\\x20b x;y nil\nnone none -\n",
       {"'a b'|{'x' 'y'}|unset", "''|{}|'-'"}},
      {"SeparatorOfSeveralCharacters",
       "#separator ||\n#set_separator||::\n#fields||a||b\n#types||vector[count]||string\n"
       "1::2||a|b\n\n",
       {"[1 2]|'a|b'", "broken:x.log:6: 1 columns instead of 2"}},
      {"EscapedMarkers",
       "#separator \\x09\n#empty_field\t\\xe2\\x88\\x85\n#unset_field\tn\\x20a\n"
       "#fields\ta\tb\tc\td\n#types\tstring\tset[count]\tcount\tstring\n"
       "\xe2\x88\x85\t\\xe2\\x88\\x85\tn a\tn\\x20a\n",
       {"''|{}|unset|unset"}},
      {"EmptyMarkerIsNothing",
       "#separator \\x09\n#empty_field\t\n#fields\ta\tb\n#types\tstring\tset[count]\n\t\n",
       {"''|{}"}},
      {"UnsetMarkerIsNothing",
       "#separator \\x09\n#unset_field\t\n#fields\ta\tb\n#types\tcount\tset[count]\n\t\n",
       {"unset|unset"}},
      {"OtherMetaPrefix",
       "%%separator \\x09\n%%path\tother\n%%fields\ta\n%%types\tstring\n#1\n\\x25%2\n"
       "%%close\tnow\n",
       {"'#1'", "'%%2'"}},
      {"UnknownMetaLines",
       "#separator \\x09\n#remark\tnothing\n#fields\ta\n#types\tcount\n# free text\n1\n",
       {"1"}},
      {"CarriageReturns",
       "#separator \\x09\r\n#unset_field\t-\r\n#fields\ta\tb\r\n#types\tcount\tstring\r\n"
       "1\t-\r\n2\tx\\x0d\r\n#close\tnow\r\n",
       {"1|unset", "2|'x\r'"}},
      {"DataThatLooksLikeMeta", one_column("string", "\\x23fields\n"), {"'#fields'"}},
      {"NoRecords", one_column("string", "#close\tnow\n"), {}},
      {"CloseWithoutLineEnd", one_column("count", "1\n#close\tnow"), {"1"}},
      {"SameHeaderAgain",
       one_column("count", "1\n#close\tnow\n") + one_column("count", "2\n"),
       {"1", "header:test:1", "2"}},
      {"OtherHeaderLater",
       one_column("count", "1\n#close\tnow\n") +
           "#separator ,\n#path,more\n#fields,a,b\n#types,string,count\nx,2\n",
       {"1", "header:more:2", "'x'|2"}},
      {"LaterHeaderWithoutRecords",
       one_column("count", "1\n") + one_column("string", ""),
       {"1", "header:test:1"}},
      {"LaterHeaderOfFieldsAlone",
       one_column("count", "1\n#fields\ta\tb\n#types\tcount\tcount\n2\t3\n"),
       {"1", "header:test:2", "2|3"}},
      {"BrokenHeaderLater",
       one_column("count", "1\n#fields\ta\tb\n2\n3\n#fields\tx\n4\n"),
       {"1", "broken:x.log:11: unusable header: 2 fields but 1 types",
        "broken:x.log:11: no record can be read after an unusable header",
        "broken:x.log:12: no record can be read after an unusable header", "header:test:1", "4"}},
  };
  for (const auto& header : cases)
    EXPECT_EQ(read(header.content), header.seen) << header.name;
}

TEST_F(AsciiLogTest, FileWithoutUsableHeaderIsRefusedWithTheReason) {
  const std::string separator = "#separator \\x09\n";
  const struct {
    std::string content;
    const char* reason;
  } cases[] = {
      {"", "x.log: file without header: it is empty"},
      {"1\t2\n", "x.log:1: file without header"},
      {"ts\tuid\n1\tC1\n", "x.log:1: file without header"},
      {std::string("\x7f"
                   "ELF\0\0\0",
                   7),
       "x.log:1: file without header"},
      {separator + "#types\tcount\n1\n", "there must be a '#fields' and a '#types' line"},
      {separator + "#fields\ta\n1\n", "there must be a '#fields' and a '#types' line"},
      {separator + "#fields\ta\tb\n#types\tcount\n", "2 fields but 1 types"},
      {separator + "#fields\ta\n#types\tcolour\n", "column 'a' has the unknown type 'colour'"},
      {separator + "#fields\ta\n#types\tpattern\n", "column 'a' has the unknown type 'pattern'"},
      {separator + "#fields\ta\n#types\tset[colour]\n",
       "column 'a' has the unknown type 'set[colour]'"},
      {separator + "#fields\ta\n#types\tset[set[count]]\n",
       "column 'a' has the unknown type 'set[set[count]]'"},
      {separator + "#fields\ta\n#types\tlist[count]\n",
       "column 'a' has the unknown type 'list[count]'"},
      {separator + "#fields\ta\t\n#types\tcount\tcount\n", "column 2 has no usable name"},
      {separator + "#fields\ta\\x00b\n#types\tcount\n", "column 1 has no usable name"},
      {"#separator \n#fields\ta\n#types\tcount\n", "the separator is empty or holds a line end"},
      {"#separator \\x0a\n#fields\ta\n#types\tcount\n",
       "the separator is empty or holds a line end"},
      {separator + "#set_separator\t\n#fields\ta\n#types\tset[count]\n",
       "column 'a' is a set[count], but the set separator is empty"},
  };
  for (const auto& bad : cases) {
    test::write_file("x.log", bad.content);
    EXPECT_THAT(refusal("x.log"), HasSubstr(bad.reason)) << bad.content;
  }
  EXPECT_THAT(refusal("nowhere.log"), HasSubstr("nowhere.log: cannot be read: No such file"));
  EXPECT_THAT(refusal("."), HasSubstr(".: this is a folder, not a log"));
}

TEST_F(AsciiLogTest, PathDefaultsToTheFilesName) {
  test::write_file("weird.12:00.log", "#fields\ta\n#types\tcount\n");
  EXPECT_EQ(AsciiLog("weird.12:00.log").path(), "weird.12:00");
}

TEST_F(AsciiLogTest, WrongColumnCountBreaksTheLineOnly) {
  const std::string log = kHeader + "#fields\ta\tb\n#types\tcount\tcount\n1\n1\t2\t3\n\n1\t2\n";
  EXPECT_THAT(read(log), ElementsAre("broken:x.log:9: 1 columns instead of 2",
                                     "broken:x.log:10: 3 columns instead of 2",
                                     "broken:x.log:11: 1 columns instead of 2", "1|2"));
}

TEST_F(AsciiLogTest, TruncatedLastLineIsBrokenWhereverItWasCut) {
  const std::string whole =
      kHeader + "#fields\ta\tb\n#types\tcount\tstring\n1\tone\n234\ttwo\\x09three\n";
  const std::size_t last_line = whole.find("234");
  for (std::size_t size = last_line + 1; size < whole.size(); ++size) {
    EXPECT_THAT(
        read(whole.substr(0, size)),
        ElementsAre("1|'one'", "broken:x.log:10: the last line has no line end, so it may be cut"))
        << "cut at byte " << size;
  }
  EXPECT_THAT(read(whole.substr(0, last_line)), ElementsAre("1|'one'"));
}

TEST_F(AsciiLogTest, LinesOfManyMegabytesAreRead) {
  const std::string big(5 << 20, 'x');
  const auto seen = read(one_column("string", big + "\nsmall\n"));
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].size(), big.size() + 2);
  EXPECT_EQ(seen[1], "'small'");
}

TEST_F(AsciiLogTest, TextIsTheHostsOwnWithEscapesUndoneAndElementsJoinedWithAComma) {
  const char* const cases[][3] = {
      {"string", "a\\x09b\\\\", "a\tb\\"},
      {"string", "(empty)", ""},
      {"string", "-", ""},
      {"string", "\\x2d", "-"},
      {"time", "1300475167.100000", "1300475167.100000"},
      {"double", "2.50", "2.50"},
      {"bool", "T", "T"},
      {"subnet", "192.0.2.0/24", "192.0.2.0/24"},
      {"set[string]", "b\\x2cc,a", "b,c,a"},
      {"set[string]", "(empty)", ""},
      {"set[string]", "(empty),a", ",a"},
      {"vector[string]", "x,-,\\x2d", "x,-,-"},
  };
  for (const auto& [type, token, text_of_it] : cases)
    EXPECT_EQ(text(one_column(type, token + std::string("\n"))), text_of_it) << type;
  EXPECT_EQ(text("#set_separator\t;\n#fields\ta\n#types\tvector[count]\n1;2;3\n"), "1,2,3");
}

TEST_F(AsciiLogTest, IsUnsetTellsUnsetFromEmptyAndFromADash) {
  test::write_file("x.log", kHeader +
                                "#fields\ta\tb\tc\n#types\tstring\tstring\tstring\n"
                                "-\t(empty)\t\\x2d\n");
  AsciiLog log("x.log");
  ASSERT_EQ(log.Next(), Step::kRecord);
  EXPECT_TRUE(log.IsUnset(0));
  EXPECT_FALSE(log.IsUnset(1));
  EXPECT_FALSE(log.IsUnset(2));
}

}  // namespace
