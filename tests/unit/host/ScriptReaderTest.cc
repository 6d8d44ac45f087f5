#include "ScriptReader.h"

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

  void read(const std::string& text) {
    test::write_file("test.bro", text);
    ScriptReader({}).Load("test.bro");
  }

  static std::string constant(const char* name) {
    const BroString* s = internal_const_val(name)->AsString();
    return std::string(reinterpret_cast<const char*>(s->Bytes()), static_cast<size_t>(s->Len()));
  }

  static bool knows(const std::string& name) { return global_scope()->Lookup(name) != nullptr; }

  template <typename Action>
  static std::string error_of(Action action) {
    try {
      action();
    } catch (const HostError& e) {
      return e.what();
    }
    return "";
  }

  std::string reading_error(const std::string& text) {
    return error_of([&] { read(text); });
  }

  test::TempDir dir_;
};

}  // namespace

TEST_F(ScriptReaderTest, StringsBecomeConstantsOfTheirModule) {
  read(
      "module LogZMQ;\n"
      "export {\n"
      "  ## A comment with a \"quote and a { brace.\n"
      "  const server = \"127.0.0.1:5555\" &redef;  # more\n"
      "  const typed: string = \"\\t\\\\\\\"\\x41\\101\\x00b#{\";\n"
      "}\n");
  EXPECT_EQ(constant("LogZMQ::server"), "127.0.0.1:5555");
  EXPECT_EQ(constant("LogZMQ::typed"), std::string("\t\\\"AA\0b#{", 9));
}

TEST_F(ScriptReaderTest, RecordsOfPlainFieldsBecomeTypes) {
  read("type stats: record {\n  ts: time &log;  # when\n  n: count &optional &log;\n} &log;\n");
  const RecordType* type = internal_type("stats")->AsRecordType();
  ASSERT_EQ(type->NumFields(), 2);
  EXPECT_STREQ(type->FieldName(1), "n");
  EXPECT_EQ(type->FieldDecl(1)->type->Tag(), TYPE_COUNT);
}

TEST_F(ScriptReaderTest, EverythingElseIsSkippedOver) {
  read(
      "module M;\n"
      "redef enum Log::ID += { LOG };\n"
      "redef record Conn::Info += { f: string &log &optional; };\n"
      "function f(a: count, s: string &default=\"}\"): string\n"
      "  { if ( a == 1 ) { return \"a { b\"; } return fmt(\"%s\", s); }\n"
      "event bro_init() &priority=-10\n"
      "  {\n"
      "  for ( id in Log::active_streams )\n"
      "    Log::add_filter(id, [$name=\"x\", $path_func=function(i: count): string { return \"\"; "
      "}]);\n"
      "  local half = 1 / 2;\n"
      "  }\n"
      "const set_valued: set[string] = { \"a\", \"b\" } &redef;\n"
      "const number = 5; const sum = \"a\" + \"b\"; const called = f(1, \"x\");\n"
      "type Kind: enum { ONE, TWO }; type Nested: record { ids: set[addr]; n: count; };\n"
      "global counter = 0; global tick: event();\n"
      "global answer: function(c: connection): string_vec;\n"
      "if ( T ) { print \"x\"; } else print \"y\";\n"
      "@ifdef ( Something )\nconst conditional = \"no\";\n@if ( T )\n@endif\n@else\n"
      "const other_branch = \"no\";\n@endif\n"
      "const last = \"reached\";\n");
  EXPECT_EQ(constant("M::last"), "reached");
  EXPECT_TRUE(knows("M::answer"));
  for (const char* name : {"M::set_valued", "M::number", "M::sum", "M::called", "M::Kind",
                           "M::Nested", "M::counter", "M::conditional", "M::other_branch"})
    EXPECT_FALSE(knows(name)) << name;
}

TEST_F(ScriptReaderTest, WhatHasNoEndOrIsNotThereIsRefusedWithNameAndLine) {
  EXPECT_THAT(reading_error("\nconst a = \"open\n;"), HasSubstr("test.bro:2: the string"));
  EXPECT_THAT(reading_error("@if ( T )\n"), HasSubstr("test.bro:1: this @if has no @endif"));
  EXPECT_THAT(reading_error("\n@load ./nowhere\n"), HasSubstr("test.bro:2: can't find ./nowhere"));
}

TEST_F(ScriptReaderTest, ReadingEndsWhereverTheScriptDoes) {
  const std::string text = "module M; const a = \"x\" &redef; type r: record { n: count &log; };";
  for (std::size_t length = 0; length < text.size(); ++length)
    reading_error(text.substr(0, length));
  read(text);
  EXPECT_TRUE(knows("M::r"));
}

TEST_F(ScriptReaderTest, LoadFollowsThePluginsOwnScriptsOnce) {
  std::filesystem::create_directories("scripts/NS/NAME");
  test::write_file("scripts/__load__.bro",
                   "@load ./types  # comment\n@load ./types.bro\n@load NS/NAME\n"
                   "@load base/protocols/conn\nconst main = \"main\";\n");
  test::write_file("scripts/types.bro", "const types = \"types\";\n");
  test::write_file("scripts/NS/NAME/__load__.bro", "module M;\nconst more = \"more\";\n");
  ScriptReader({dir_.file("scripts")}).Load(dir_.file("scripts/__load__.bro"));
  EXPECT_EQ(constant("types"), "types");
  EXPECT_EQ(constant("M::more"), "more");
  EXPECT_EQ(constant("main"), "main") << "a loaded script's module does not spread";
}

TEST_F(ScriptReaderTest, OptionsCanBeRedefined) {
  const auto error = [](const char* name, const char* text) {
    return error_of([&] { standin::redefine(name, text); });
  };
  read("module M;\nconst s = \"old\" &redef; const fixed = \"x\";");
  standin::redefine("M::s", "host with = and \\x41");
  EXPECT_EQ(constant("M::s"), "host with = and A");
  EXPECT_THAT(error("M::nope", "1"), HasSubstr("there is no such option"));
  EXPECT_THAT(error("M::fixed", "1"), HasSubstr("&redef"));
  EXPECT_THAT(error("M::s", "a\"b"), HasSubstr("quotation mark"));
}
