// The compiler for .bif files, run as the build runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "TempDir.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class BifclTest : public testing::Test {
 protected:
  /// Compiles `bif` as in/zmq.bif; returns the exit status.
  int compile(const std::string& bif, const std::string& options = "-p NS::NAME") {
    std::filesystem::create_directory("in");
    test::write_file("in/zmq.bif", bif);
    return run(options + " in/zmq.bif");
  }

  int run(const std::string& words) {
    const std::string command =
        std::string("'") + ZMQWRITER_BIFCL + "' " + words + " >stdout.txt 2>stderr.txt";
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static std::string out(const std::string& extension) {
    return test::read_file("zmq.bif" + extension);
  }
  static std::string errors() { return test::read_file("stderr.txt"); }

  test::TempDir dir_;
};

// --- what it generates ---------------------------------------------------------------------------

TEST_F(BifclTest, ConstantBecomesAGlobalOfTheTypesCppType) {
  ASSERT_EQ(compile("module M;\nconst a: string;\nconst b: count;\nconst c: interval;\n"
                    "const d: Other;\n"),
            0);
  EXPECT_THAT(out(".h"), HasSubstr("namespace BifConst { namespace M { extern StringVal* a; } }"));
  EXPECT_THAT(out(".h"), HasSubstr("extern bro_uint_t b;"));
  EXPECT_THAT(out(".h"), HasSubstr("extern double c;"));
  EXPECT_THAT(out(".h"), HasSubstr("extern Val* d;"));
  EXPECT_THAT(out(".cc"), HasSubstr("namespace BifConst { namespace M { StringVal* a = 0; } }"));
  EXPECT_THAT(out(".init.cc"),
              HasSubstr("BifConst::M::a = internal_const_val(\"M::a\")->AsStringVal();\n"
                        "\tplugin->AddBifItem(\"M::a\", plugin::BifItem::CONSTANT);"));
  EXPECT_THAT(out(".init.cc"), HasSubstr("internal_const_val(\"M::c\")->AsInterval();"));
  EXPECT_THAT(out(".init.cc"), HasSubstr("BifConst::M::d = internal_const_val(\"M::d\");"));
}

TEST_F(BifclTest, TypeBeforeTheModuleLineIsGlobal) {
  ASSERT_EQ(compile("type r: record;\nmodule M;\ntype s: set;\ntype v: vector;\ntype t: table;\n"),
            0);
  EXPECT_THAT(out(".h"),
              HasSubstr("namespace BifType { namespace Record { extern RecordType* r; } }"));
  EXPECT_THAT(out(".h"), HasSubstr("namespace Set { namespace M { extern SetType* s;"));
  EXPECT_THAT(out(".h"), HasSubstr("namespace Vector { namespace M { extern VectorType* v;"));
  EXPECT_THAT(out(".h"), HasSubstr("namespace Table { namespace M { extern TableType* t;"));
  EXPECT_THAT(out(".init.cc"),
              HasSubstr("BifType::Record::r = internal_type(\"r\")->AsRecordType();\n"
                        "\tplugin->AddBifItem(\"r\", plugin::BifItem::TYPE);"));
}

TEST_F(BifclTest, FunctionChecksItsArgumentsAndGetsThemAsLocals) {
  ASSERT_EQ(compile("module M;\nfunction f%(c: connection, s: string, n: count &default=1%): any\n"
                    "\t%{ return g(c, s, n, @ARGC@); %}\n"),
            0);
  const std::string source = out(".cc");
  EXPECT_THAT(source, HasSubstr("Val* BifFunc::M::bro_f(Frame* frame, val_list* BiF_ARGS)"));
  EXPECT_THAT(source, HasSubstr("if ( BiF_ARGS->length() != 3 )"));
  EXPECT_THAT(source, HasSubstr("reporter->Error(\"M::f() takes exactly 3 argument(s)\");\n"
                                "\t\treturn 0;"));
  EXPECT_THAT(source, HasSubstr("Connection* c = (Connection*) "
                                "((*BiF_ARGS)[0]->AsRecordVal()->GetOrigin());"));
  EXPECT_THAT(source, HasSubstr("StringVal* s = (*BiF_ARGS)[1]->AsStringVal();"));
  EXPECT_THAT(source, HasSubstr("bro_uint_t n = (*BiF_ARGS)[2]->AsCount();"));
  EXPECT_THAT(source, HasSubstr("return g(c, s, n, BiF_ARGS->length());"));
  EXPECT_THAT(out(".init.cc"),
              HasSubstr("(void) new BuiltinFunc(BifFunc::M::bro_f, \"M::f\", 0);"));
  EXPECT_THAT(
      out(".bro"),
      HasSubstr("global f: function(c: connection , s: string , n: count &default=1): any ;"));
}

TEST_F(BifclTest, FunctionWithoutArgumentsChecksForNone) {
  ASSERT_EQ(compile("function f%(%): count\n\t%{ return 0; %}\n"), 0);
  EXPECT_THAT(out(".cc"), HasSubstr("if ( BiF_ARGS->length() != 0 )"));
  EXPECT_THAT(out(".cc"), HasSubstr("f() takes exactly 0 argument(s)"));
}

TEST_F(BifclTest, VarargsFunctionChecksForItsFixedPart) {
  ASSERT_EQ(compile("function f%(s: string, ...%): any\n\t%{ return @ARG@[1]; %}\n"), 0);
  EXPECT_THAT(out(".cc"), HasSubstr("if ( BiF_ARGS->length() < 1 )"));
  EXPECT_THAT(out(".cc"), HasSubstr("f() takes at least 1 argument(s)"));
  EXPECT_THAT(out(".cc"), HasSubstr("return (*BiF_ARGS)[1];"));
}

TEST_F(BifclTest, ItemsAreBoundInSourceOrder) {
  ASSERT_EQ(compile("function z%(%): any\n%{ return 0; %}\nconst y: string;\ntype x: record;\n"),
            0);
  const std::string init = out(".init.cc");
  EXPECT_LT(init.find("\"z\""), init.find("\"y\""));
  EXPECT_LT(init.find("\"y\""), init.find("\"x\""));
}

TEST_F(BifclTest, InitialiserIsRegisteredUnderThePluginsName) {
  ASSERT_EQ(compile("const a: string;\n"), 0);
  EXPECT_THAT(out(".init.cc"), HasSubstr("namespace plugin { namespace NS_NAME {"));
  EXPECT_THAT(out(".init.cc"), HasSubstr("void __bif_zmq_init(plugin::Plugin* plugin)"));
  EXPECT_THAT(out(".register.cc"), HasSubstr("::plugin::__RegisterBif __register_bifs_NS_NAME_zmq("
                                             "\"NS::NAME\", __bif_zmq_init);"));
}

TEST_F(BifclTest, StubHoldsFunctionsAndKeptCommentsOnly) {
  ASSERT_EQ(compile("# dropped\n## kept\nmodule M;\nconst a: string;\ntype b: record;\n"
                    "function f%(%): any\n%{ return 0; %}\n"),
            0);
  const std::string stub = out(".bro");
  EXPECT_THAT(stub, HasSubstr("export {\n"));
  EXPECT_THAT(stub, HasSubstr("## kept\nmodule M;\nglobal f: function(): any ;\n"
                              "} # end of export section\nmodule GLOBAL;\n"));
  EXPECT_THAT(stub, Not(HasSubstr("dropped")));
  EXPECT_THAT(stub, Not(HasSubstr("const")));
  EXPECT_THAT(stub, Not(HasSubstr("type")));
}

TEST_F(BifclTest, CppSegmentStandsBehindTheHeaderOfTheGlue) {
  ASSERT_EQ(compile("%%{\n#include \"Own.h\"\n%%}\nconst a: string;\n"), 0);
  const std::string source = out(".cc");
  ASSERT_NE(source.find("#include \"Own.h\""), std::string::npos);
  EXPECT_LT(source.find("#include \"zmq.bif.h\""), source.find("#include \"Own.h\""));
}

TEST_F(BifclTest, ModuleGlobalEndsAModule) {
  ASSERT_EQ(compile("module M;\nmodule GLOBAL;\nconst a: string;\nconst N::b: string;\n"), 0);
  EXPECT_THAT(out(".init.cc"), HasSubstr("BifConst::a = internal_const_val(\"a\")"));
  EXPECT_THAT(out(".init.cc"), HasSubstr("BifConst::N::b = internal_const_val(\"N::b\")"));
}

// --- what it refuses -----------------------------------------------------------------------------

struct Refused {
  const char* name;
  const char* bif;
  const char* message;
};

class BifclRefusesTest : public BifclTest, public testing::WithParamInterface<Refused> {};

TEST_P(BifclRefusesTest, WithFileLineAndReasonAndWritesNothing) {
  EXPECT_EQ(compile(GetParam().bif), 1);
  EXPECT_THAT(errors(), HasSubstr(GetParam().message));
  EXPECT_FALSE(std::filesystem::exists("zmq.bif.h"));
}

INSTANTIATE_TEST_SUITE_P(
    Bifcl, BifclRefusesTest,
    testing::Values(Refused{"MissingSemicolon", "const a: string\nconst b: string;\n",
                            "in/zmq.bif:2: syntax error, at or near \"const\": expected \";\""},
                    Refused{"UnknownKeyword", "\nglobal a: string;\n",
                            "in/zmq.bif:2: syntax error, at or near \"global\""},
                    Refused{"Event", "event e%(%);\n", "in/zmq.bif:1: \"event\" is not supported"},
                    Refused{"Enum", "enum e %{ A, %}\n", "in/zmq.bif:1: \"enum\" is not supported"},
                    Refused{"ContainerConstant", "const a: set[string];\n",
                            "in/zmq.bif:1: a constant cannot have the type \"set\""},
                    Refused{"InitialisedConstant", "const a: string = \"x\";\n",
                            "in/zmq.bif:1: syntax error, at or near \"=\""},
                    Refused{"TypeWithBody", "type a: record { x: count; };\n",
                            "in/zmq.bif:1: syntax error, at or near \"{\""},
                    Refused{"TypeOfAnotherKind", "type a: count;\n",
                            "in/zmq.bif:1: syntax error, at or near \"count\""},
                    Refused{"TwoScopes", "const a::b::c: string;\n", "in/zmq.bif:1: syntax error"},
                    Refused{"FunctionWithoutResult", "function f%(%)\n\t%{ return 0; %}\n",
                            "in/zmq.bif:2: syntax error, at or near \"%\": expected \":\""},
                    Refused{"UnfinishedBody", "function f%(%): any\n%{ return 0;\n\n",
                            "in/zmq.bif:2: no \"%}\" ends the C++ text that begins here"},
                    Refused{"UnfinishedSegment", "\n%%{\nint x;\n",
                            "in/zmq.bif:2: no \"%%}\" ends"},
                    Refused{"UnfinishedArguments", "function f%(a: string\n",
                            "in/zmq.bif:2: syntax error, at or near \"end of file\""},
                    Refused{"StandAloneT", "function f%(%): any\n%{\nreturn g<T>();\n%}\n",
                            "in/zmq.bif:3: syntax error, at or near \"T\""},
                    Refused{"StandAloneFInSegment", "%%{\nint F;\n%%}\n",
                            "in/zmq.bif:2: syntax error, at or near \"F\""},
                    Refused{"Twice", "const a: string;\nconst a: string;\n",
                            "in/zmq.bif:2: \"a\" is declared twice"}),
    [](const testing::TestParamInfo<Refused>& info) { return info.param.name; });

TEST_F(BifclTest, WordsThatOnlyContainTOrFAreFine) {
  EXPECT_EQ(compile("%%{\nint Table_F, T2; const char* text = \"T\"; char c = 'F';\n%%}\n"), 0)
      << errors();
}

TEST_F(BifclTest, MissingFileIsAnError) {
  EXPECT_EQ(run("-p NS::NAME nowhere.bif"), 1);
  EXPECT_THAT(errors(), HasSubstr("nowhere.bif: cannot be read"));
}

TEST_F(BifclTest, OutputThatCannotBeWrittenIsAnError) {
  std::filesystem::create_directory("zmq.bif.h");
  EXPECT_EQ(compile("const a: string;\n"), 1);
  EXPECT_THAT(errors(), HasSubstr("zmq.bif.h: cannot be written"));
}

TEST_F(BifclTest, WrongUsageIsExplained) {
  EXPECT_EQ(run(""), 2);
  EXPECT_THAT(errors(), HasSubstr("usage: bifcl -p NS::NAME FILE.bif"));
  EXPECT_EQ(compile("const a: string;\n", "-p NAME"), 2);
  EXPECT_THAT(errors(), HasSubstr("the form is NS::NAME"));
  EXPECT_EQ(run("--help"), 0);
}

}  // namespace
