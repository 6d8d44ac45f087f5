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

TEST_F(BifclTest, RefusesWhatItDoesNotKnowWithFileAndLineAndWritesNothing) {
  const char* const cases[][2] = {
      // the text and what is said of it
      {"\nconst a: string\nconst b: string;\n",
       "in/zmq.bif:2: syntax error, at or near \"const a: string\""},
      {"const a: count;\n", "in/zmq.bif:1: syntax error"},
      {"type a: set;\n", "in/zmq.bif:1: syntax error"},
      {"module M;\nevent e%(%);\n", "in/zmq.bif:2: syntax error, at or near"},
      {"function f%(s: string%): any\n%{ return 0; %}\n",
       "in/zmq.bif:1: syntax error, at or near \"function f"},
      {"function f%(%)\n\t%{ return 0; %}\n", "in/zmq.bif:1: syntax error"},
      {"function f%(%): any\n%{ return 0;\n\n", "in/zmq.bif:1: syntax"},
      {"function f%(%): any\n%{ return @ARG@[0]; %}\n",
       "in/zmq.bif:2: macros of the host's generator are not known"},
      {"function f%(%): any\n%{\nreturn g<T>();\n%}\n",
       "in/zmq.bif:3: syntax error, at or near \"T\""},
      {"%%{\nint F;\n%%}\n", "in/zmq.bif:2: syntax error, at or near \"F\""},
  };
  for (const auto& [bif, message] : cases) {
    EXPECT_EQ(compile(bif), 1) << bif;
    EXPECT_THAT(errors(), HasSubstr(message));
    EXPECT_FALSE(std::filesystem::exists("zmq.bif.h"));
  }
}

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
