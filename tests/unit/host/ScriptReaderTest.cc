#include "standin/ScriptReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Scope.h"
#include "TempDir.h"
#include "Val.h"
#include "Var.h"
#include "standin/Host.h"
#include "standin/Scripts.h"

using standin::HostError;
using standin::ScriptReader;
using testing::HasSubstr;

namespace {

class ScriptReaderTest : public testing::Test {
 protected:
  void TearDown() override { standin::forget_scripts(); }

  void read(const std::string& text) { reader_.LoadText(text, "test.bro"); }

  static std::string string_const(const char* name) {
    const BroString* s = internal_const_val(name)->AsString();
    return std::string(reinterpret_cast<const char*>(s->Bytes()), static_cast<size_t>(s->Len()));
  }

  std::string error_of(const std::string& text) {
    try {
      read(text);
    } catch (const HostError& e) {
      return e.what();
    }
    return "";
  }

  ScriptReader reader_{{}};
};

std::string redefinition_error(const std::string& name, const std::string& text) {
  try {
    standin::redefine(name, text);
  } catch (const HostError& e) {
    return e.what();
  }
  return "";
}

}  // namespace

TEST_F(ScriptReaderTest, ConstantsOfAModule) {
  read(
      "module LogZMQ;\n"
      "export {\n"
      "  ## A comment with a \"quote and a { brace.\n"
      "  const server = \"127.0.0.1:5555\" &redef;  # more\n"
      "  const typed: string = \"\" &redef;\n"
      "}\n");
  EXPECT_EQ(string_const("LogZMQ::server"), "127.0.0.1:5555");
  EXPECT_EQ(string_const("LogZMQ::typed"), "");
}

TEST_F(ScriptReaderTest, EscapesInStrings) {
  read(
      "const a = \"\\t\\n\\\\\\\"\\x41\\101\\q#{\";\nconst b = \"x\" + \"y\";\n"
      "const c = \"a\\x00b\";");
  EXPECT_EQ(string_const("a"), "\t\n\\\"AAq#{");
  EXPECT_EQ(string_const("b"), "xy");
  EXPECT_EQ(string_const("c"), std::string("a\0b", 3));
}

TEST_F(ScriptReaderTest, LiteralsOfEveryKind) {
  read(
      "const c = 5; const i = -5; const plus = +0; const d = 1.5; const b = T;\n"
      "const p = 80/tcp; const iv = 5sec; const iv2 = 1.5 min; const as_double: double = 5;\n"
      "const as_int: int = 5; const n: subnet = 10.0.0.0/8;");
  EXPECT_EQ(internal_const_val("c")->AsCount(), 5u);
  EXPECT_EQ(internal_const_val("i")->AsInt(), -5);
  EXPECT_EQ(internal_const_val("plus")->AsInt(), 0);
  EXPECT_EQ(internal_const_val("d")->AsDouble(), 1.5);
  EXPECT_TRUE(internal_const_val("b")->AsBool());
  EXPECT_EQ(internal_const_val("p")->AsPortVal()->Port(), 80u);
  EXPECT_EQ(internal_const_val("iv")->AsInterval(), 5);
  EXPECT_EQ(internal_const_val("iv2")->AsInterval(), 90);
  EXPECT_EQ(internal_const_val("as_double")->AsDouble(), 5);
  EXPECT_EQ(internal_const_val("as_int")->AsInt(), 5);
  EXPECT_EQ(internal_const_val("n")->AsSubNetVal()->Width(), 8);
}

TEST_F(ScriptReaderTest, RecordTypesWithAttributes) {
  read(
      "type system_stats: record {\n"
      "  ts: time &log;                 # when\n"
      "  load: double &log &optional;\n"
      "  name: string &default=\"none\" &log;\n"
      "  hosts: set[addr] &optional;\n"
      "  list: vector of count;\n"
      "  id: conn_id;\n"
      "};\n");
  const RecordType* type = internal_type("system_stats")->AsRecordType();
  ASSERT_EQ(type->NumFields(), 6);
  EXPECT_STREQ(type->FieldName(0), "ts");
  EXPECT_EQ(type->FieldType(0)->Tag(), TYPE_TIME);
  EXPECT_NE(type->FieldDecl(0)->attrs->FindAttr(ATTR_LOG), nullptr);
  EXPECT_EQ(type->FieldDecl(0)->attrs->FindAttr(ATTR_OPTIONAL), nullptr);
  EXPECT_NE(type->FieldDecl(1)->attrs->FindAttr(ATTR_OPTIONAL), nullptr);
  EXPECT_NE(type->FieldDecl(2)->attrs->FindAttr(ATTR_DEFAULT), nullptr);
  EXPECT_TRUE(type->FieldType(3)->IsSet());
  EXPECT_EQ(type->FieldType(4)->YieldType()->Tag(), TYPE_COUNT);
  EXPECT_EQ(type->FieldType(5), internal_type("conn_id"));
}

TEST_F(ScriptReaderTest, LogBehindTheBraceIsForAllFields) {
  read("module M;\nexport { type Info: record { a: count; b: count; } &log; }");
  const RecordType* type = internal_type("M::Info")->AsRecordType();
  EXPECT_NE(type->FieldDecl(0)->attrs->FindAttr(ATTR_LOG), nullptr);
  EXPECT_NE(type->FieldDecl(1)->attrs->FindAttr(ATTR_LOG), nullptr);
}

TEST_F(ScriptReaderTest, EnumTypesAreQualified) {
  read("module M;\ntype Kind: enum { ONE, TWO = 5, THREE, };");
  const EnumType* type = internal_type("M::Kind")->AsEnumType();
  EXPECT_STREQ(type->Lookup(0), "M::ONE");
  EXPECT_STREQ(type->Lookup(5), "M::TWO");
  EXPECT_EQ(type->Lookup("M", "THREE"), 6);
  EXPECT_EQ(type->Lookup("M", "FOUR"), -1);
}

TEST_F(ScriptReaderTest, FunctionsAndEventsAreDeclared) {
  read(
      "export {\nmodule LogZMQ;\n"
      "global __detect_user: function(c: connection ): string_vec ;\n"
      "global tick: event();\nglobal counter = 0;\n"
      "}\nmodule GLOBAL;\nglobal plain: function();\n");
  EXPECT_NE(global_scope()->Lookup("LogZMQ::__detect_user"), nullptr);
  EXPECT_NE(global_scope()->Lookup("LogZMQ::tick"), nullptr);
  EXPECT_NE(global_scope()->Lookup("plain"), nullptr);
  EXPECT_EQ(global_scope()->Lookup("LogZMQ::counter"), nullptr);
}

TEST_F(ScriptReaderTest, EverythingElseIsSkippedOver) {
  read(
      "module M;\n"
      "redef enum Log::ID += { LOG };\n"
      "redef record Conn::Info += { f: string &log &optional; };\n"
      "function f(a: count, s: string &default=\"}\"): string\n"
      "  { if ( a == 1 ) { return \"a { b\"; } return fmt(\"%s\", /ab\\/c\"{/ in s); }\n"
      "event bro_init() &priority=-10\n"
      "  {\n"
      "  for ( id in Log::active_streams )\n"
      "    Log::add_filter(id, [$name=\"x\", $path_func=function(i: count): string { return \"\"; "
      "}]);\n"
      "  local half = 1 / 2; local other = 3 / 4;\n"
      "  }\n"
      "hook h(x: count) { break; }\n"
      "const set_valued: set[string] = { \"a\", \"b\" } &redef;\n"
      "const called = f(1, \"x\");\n"
      "const with_table = table([\"a\"] = 1) &redef;\n"
      "if ( T ) { print \"x\"; } else print \"y\";\n"
      "@ifdef ( Something )\nconst conditional = \"no\";\n@if ( T )\n@endif\n@else\n"
      "const other_branch = \"no\";\n@endif\n"
      "const last = \"reached\";\n");
  EXPECT_EQ(string_const("M::last"), "reached");
  for (const char* name :
       {"M::set_valued", "M::called", "M::with_table", "M::conditional", "M::other_branch"})
    EXPECT_EQ(opt_internal_val(name), nullptr) << name;
}

TEST_F(ScriptReaderTest, BrokenScriptsAreRefusedWithNameAndLine) {
  EXPECT_THAT(error_of("\nconst a = \"open\n;"), HasSubstr("test.bro:2: the string"));
  EXPECT_THAT(error_of("module M\nconst a = \"x\";"), HasSubstr("test.bro:2: expected ';'"));
  EXPECT_THAT(error_of("export {\nconst a = \"x\";\n"), HasSubstr("ends inside an export block"));
  EXPECT_THAT(error_of("event e() {\n\n"), HasSubstr("test.bro:1: what begins here does not end"));
  EXPECT_THAT(error_of("event e() { ( }"), HasSubstr("a '}' without its '{'"));
  EXPECT_THAT(error_of("}"), HasSubstr("a } without its {"));
  EXPECT_THAT(error_of("@if ( T )\n"), HasSubstr("has no @endif"));
  EXPECT_THAT(error_of("const a: count = \"x\";"), HasSubstr("a string where the type is count"));
  EXPECT_THAT(error_of("const a: count = -1;"), HasSubstr("is not a count"));
  EXPECT_THAT(error_of("type r: record { a b; };"), HasSubstr("expected ':' instead of 'b'"));
  EXPECT_THAT(error_of("type r: record { a: count"), HasSubstr("the end of the script"));
}

TEST_F(ScriptReaderTest, LoadFollowsThePluginsOwnScriptsOnce) {
  test::TempDir dir;
  std::filesystem::create_directories("scripts/NS/NAME");
  test::write_file("scripts/__load__.bro",
                   "@load ./types  # comment\n@load ./types.bro\n@load NS/NAME/more\n"
                   "@load base/protocols/conn\nconst main = \"main\";\n");
  test::write_file("scripts/types.bro", "const types = \"types\";\n");
  test::write_file("scripts/NS/NAME/more.bro", "module M;\nconst more = \"more\";\n");
  ScriptReader reader({dir.file("scripts")});
  reader.Load(dir.file("scripts"));
  EXPECT_EQ(string_const("types"), "types");
  EXPECT_EQ(string_const("M::more"), "more");
  EXPECT_EQ(string_const("main"), "main") << "a loaded script's module does not spread";
  EXPECT_EQ(reader.Files().size(), 3u);
}

TEST_F(ScriptReaderTest, MissingScriptsAreNamed) {
  test::TempDir dir;
  test::write_file("a.bro", "\n@load ./nowhere\n");
  try {
    ScriptReader({}).Load(dir.file("a.bro"));
    FAIL();
  } catch (const HostError& e) {
    EXPECT_THAT(e.what(), HasSubstr("a.bro:2: can't find ./nowhere"));
  }
  EXPECT_THROW(ScriptReader({}).Load(dir.file("b.bro")), HostError);
}

TEST_F(ScriptReaderTest, RedefinitionsTakeTheTypeOfTheOption) {
  read(
      "module M;\nexport { const s = \"old\" &redef; const n = 5 &redef; const b = F &redef;\n"
      "const iv = 1sec &redef; const unset: string &redef; const fixed = \"x\"; }");
  standin::redefine("M::s", "host with = and \\x41");
  standin::redefine("M::n", "7");
  standin::redefine("M::b", "T");
  standin::redefine("M::iv", "5sec");
  standin::redefine("M::unset", "12");
  EXPECT_EQ(string_const("M::s"), "host with = and A");
  EXPECT_EQ(internal_const_val("M::n")->AsCount(), 7u);
  EXPECT_TRUE(internal_const_val("M::b")->AsBool());
  EXPECT_EQ(internal_const_val("M::iv")->AsInterval(), 5);
  EXPECT_EQ(string_const("M::unset"), "12");
  EXPECT_THAT(redefinition_error("M::nope", "1"), HasSubstr("there is no such option"));
  EXPECT_THAT(redefinition_error("M::fixed", "1"), HasSubstr("&redef"));
  EXPECT_THAT(redefinition_error("M::n", "many"), HasSubstr("is not a count"));
  EXPECT_THAT(redefinition_error("M::s", "a\"b"), HasSubstr("quotation mark"));
}
