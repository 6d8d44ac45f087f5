// The compiler for .bif files: what it refuses. What it makes of zmq.bif, PluginTest and the loaded
// plug-in show.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "TempDir.h"

namespace {

using testing::HasSubstr;

class BifclTest : public testing::Test {
 protected:
  /// Compiles `bif` as in/zmq.bif; returns the exit status.
  int compile(const std::string& bif) {
    std::filesystem::create_directory("in");
    test::write_file("in/zmq.bif", bif);
    return run("-p NS::NAME in/zmq.bif");
  }

  int run(const std::string& words) {
    const std::string command =
        std::string("'") + ZMQWRITER_BIFCL + "' " + words + " >stdout.txt 2>stderr.txt";
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static std::string errors() { return test::read_file("stderr.txt"); }

  test::TempDir dir_;
};

struct Refused {
  const char* name;
  const char* bif;
  const char* message;
};

class BifclRefusesTest : public BifclTest, public testing::WithParamInterface<Refused> {};

TEST_P(BifclRefusesTest, WithFileAndLineAndWritesNothing) {
  EXPECT_EQ(compile(GetParam().bif), 1);
  EXPECT_THAT(errors(), HasSubstr(GetParam().message));
  EXPECT_FALSE(std::filesystem::exists("zmq.bif.h"));
}

INSTANTIATE_TEST_SUITE_P(
    Bifcl, BifclRefusesTest,
    testing::Values(
        Refused{"MissingSemicolon", "\nconst a: string\nconst b: string;\n",
                "in/zmq.bif:2: syntax error, at or near \"const a: string\""},
        Refused{"OtherConstant", "const a: count;\n", "in/zmq.bif:1: syntax error"},
        Refused{"OtherType", "type a: set;\n", "in/zmq.bif:1: syntax error"},
        Refused{"Event", "module M;\nevent e%(%);\n", "in/zmq.bif:2: syntax error, at or near"},
        Refused{"OtherArgument", "function f%(s: string%): any\n%{ return 0; %}\n",
                "in/zmq.bif:1: syntax error, at or near \"function f"},
        Refused{"FunctionWithoutResult", "function f%(%)\n\t%{ return 0; %}\n",
                "in/zmq.bif:1: syntax error"},
        Refused{"UnfinishedBody", "function f%(%): any\n%{ return 0;\n\n", "in/zmq.bif:1: syntax"},
        Refused{"Macro", "function f%(%): any\n%{ return @ARG@[0]; %}\n",
                "in/zmq.bif:2: macros of the host's generator are not known"},
        Refused{"StandAloneT", "function f%(%): any\n%{\nreturn g<T>();\n%}\n",
                "in/zmq.bif:3: syntax error, at or near \"T\""},
        Refused{"StandAloneFInSegment", "%%{\nint F;\n%%}\n",
                "in/zmq.bif:2: syntax error, at or near \"F\""}),
    [](const testing::TestParamInfo<Refused>& info) { return info.param.name; });

TEST_F(BifclTest, WordsThatOnlyContainTOrFAreFine) {
  EXPECT_EQ(compile("%%{\nint Table_F, T2; const char* text = \"T\"; char c = 'F';\n%%}\n"), 0)
      << errors();
}

TEST_F(BifclTest, WrongUsageAndMissingFilesAreExplained) {
  EXPECT_EQ(run("-p NAME in/zmq.bif"), 2);
  EXPECT_THAT(errors(), HasSubstr("usage: bifcl -p NS::NAME FILE.bif"));
  EXPECT_EQ(run("-p NS::NAME nowhere.bif"), 1);
  EXPECT_THAT(errors(), HasSubstr("nowhere.bif: cannot be read"));
}

}  // namespace
