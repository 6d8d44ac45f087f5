// The loader, against plug-in folders with a shared object of their own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Func.h"
#include "TempDir.h"
#include "Val.h"
#include "Var.h"
#include "logging/WriterFrontend.h"
#include "plugin/Manager.h"
#include "standin/Host.h"
#include "standin/ReportRecorder.h"

using standin::Host;
using standin::HostError;
using testing::HasSubstr;

namespace fs = std::filesystem;

namespace {

const char kPreload[] =
    "type test_record: record { n: count; };\n"
    "module Test;\n"
    "export {\n"
    "  const greeting = \"hello\" &redef;\n"
    "}\n";
const char kStub[] =
    "export {\nmodule Test;\nglobal answer: function(): count ;\n} # end of export section\n"
    "module GLOBAL;\n";

class LoaderTest : public testing::Test {
 protected:
  // The plug-in folder `kind` with its scripts laid out as a build does it.
  std::string folder(const std::string& kind, const std::string& name) {
    const std::string path = dir_.file(kind);
    fs::create_directories(path + "/lib/bif");
    fs::create_directories(path + "/scripts");
    const std::string built = std::string(TEST_PLUGINS) + "/" + kind + "/lib";
    for (const auto& entry : fs::directory_iterator(built))
      fs::copy_file(entry.path(), path + "/lib/" + entry.path().filename().string());
    test::write_file(path + "/__bro_plugin__", name);
    test::write_file(path + "/scripts/__preload__.bro", kPreload);
    test::write_file(path + "/lib/bif/__load__.bro", "@load ./test.bif.bro\n");
    test::write_file(path + "/lib/bif/test.bif.bro", kStub);
    return path;
  }

  std::string good() { return folder("good", "Test::Plugin\n"); }

  static std::string load_error(const std::string& path, Host::Options options = {}) {
    try {
      Host host(options);
      host.LoadPlugin(path);
    } catch (const HostError& e) {
      return e.what();
    }
    return "";
  }

  // The plug-in's own account of what the host called.
  static std::string calls(const Host& host) {
    auto get = reinterpret_cast<const char* (*)()>(host.PluginSymbol("test_plugin_calls"));
    return get ? get() : "<no symbol>";
  }

  standin::ReportRecorder recorder_;
  test::TempDir dir_;
};

}  // namespace

TEST_F(LoaderTest, EverythingHappensInTheHostsOrder) {
  Host host{Host::Options()};
  host.LoadPlugin(good());
  EXPECT_EQ(calls(host), "Configure InitPreScript bif(hello) InitPostScript ");
  const plugin::Plugin* plugin = plugin_mgr->ActivePlugins().front();
  EXPECT_EQ(plugin->APIVersion(), 4);
  EXPECT_THAT(plugin->PluginPath(), HasSubstr("/lib/plugin."));
  host.Finish();
  EXPECT_EQ(calls(host), "Configure InitPreScript bif(hello) InitPostScript Done ");
}

TEST_F(LoaderTest, NamesAreComparedWithoutCaseAndBlanks) {
  EXPECT_EQ(load_error(folder("good", "  test::PLUGIN \n")), "");
}

TEST_F(LoaderTest, FolderMayBeRelativeAndHaveATrailingSlash) {
  good();
  EXPECT_EQ(load_error("good/"), "");
}

TEST_F(LoaderTest, RedefsAreAppliedBeforeTheInitialisersRun) {
  Host::Options options;
  options.redefs = {"Test::greeting=good morning", "Test::greeting="};
  Host host(options);
  host.LoadPlugin(good());
  EXPECT_THAT(calls(host), HasSubstr("bif(good morning)"));
}

TEST_F(LoaderTest, BadRedefsAreRefused) {
  Host::Options options;
  options.redefs = {"Test::nothing=1"};
  EXPECT_THAT(load_error(good(), options), HasSubstr("Test::nothing: there is no such option"));
  options.redefs = {"just a word"};
  EXPECT_THAT(load_error(dir_.file("good"), options), HasSubstr("is no NAME=VALUE"));
}

TEST_F(LoaderTest, WritersOfThePluginWork) {
  Host host{Host::Options()};
  host.LoadPlugin(good());
  std::vector<threading::Field> fields;
  fields.emplace_back("n", nullptr, TYPE_COUNT, TYPE_VOID, false);
  logging::WriterFrontend* frontend = host.CreateWriter("Test-Writer", "log", fields);
  EXPECT_STREQ(frontend->Name(), "log/Log::WRITER_TEST_WRITER");
  threading::Value** vals = new threading::Value*[1];
  vals[0] = new threading::Value(TYPE_COUNT);
  frontend->Write(1, vals);
  host.Finish();
  EXPECT_THAT(calls(host), HasSubstr("DoInit DoWrite DoFinish Done"));
}

TEST_F(LoaderTest, SecondHostOfAProcessLoadsThePluginAgain) {
  const std::string path = good();
  for (int i = 0; i < 2; ++i) {
    Host host{Host::Options()};
    host.LoadPlugin(path);
    EXPECT_THAT(calls(host), HasSubstr("Configure InitPreScript bif(hello) InitPostScript "));
    EXPECT_EQ(plugin_mgr->ActivePlugins().front()->BifItems().size(), 3u);
    EXPECT_EQ(plugin_mgr->ActivePlugins().front()->Components().size(), 1u);
  }
}

TEST_F(LoaderTest, FolderWithoutMagicFileIsRefused) {
  const std::string path = good();
  fs::remove(path + "/__bro_plugin__");
  EXPECT_THAT(load_error(path), HasSubstr("it has no file __bro_plugin__"));
  EXPECT_THAT(load_error(dir_.file("nowhere")), HasSubstr("is no plug-in folder"));
  test::write_file(path + "/__bro_plugin__", " \n");
  EXPECT_THAT(load_error(path), HasSubstr("is empty"));
}

TEST_F(LoaderTest, OtherApiVersionIsRefused) {
  EXPECT_THAT(load_error(folder("old_api", "Test::OldApi")),
              HasSubstr("plugin's API version does not match Bro (expected 4, got 3 in "));
}

TEST_F(LoaderTest, OtherNameIsRefused) {
  EXPECT_THAT(load_error(folder("other_name", "Test::Plugin")),
              HasSubstr("inconsistent plugin name: Test::OtherName vs Test::Plugin"));
}

TEST_F(LoaderTest, ObjectWithoutPluginIsRefused) {
  EXPECT_THAT(load_error(folder("no_object", "Test::Plugin")),
              HasSubstr("did not instantiate a plugin"));
}

TEST_F(LoaderTest, ObjectThatIsNoneIsRefused) {
  const std::string path = good();
  for (const auto& entry : fs::directory_iterator(path + "/lib")) {
    if (entry.is_regular_file())
      test::write_file(entry.path().string(), "no shared object");
  }
  EXPECT_THAT(load_error(path), HasSubstr("cannot load plugin library "));
}

TEST_F(LoaderTest, FolderWithoutObjectStillLoadsItsScripts) {
  const std::string path = good();
  fs::remove_all(path + "/lib");
  Host host{Host::Options()};
  host.LoadPlugin(path);
  EXPECT_STREQ(internal_const_val("Test::greeting")->AsStringVal()->CheckString(), "hello");
  EXPECT_EQ(host.PluginSymbol("test_plugin_calls"), nullptr);
  EXPECT_EQ(host.DescribePlugins(true), "");
}

TEST_F(LoaderTest, ErrorsWhileLoadingEndTheStart) {
  Host::Options options;
  options.redefs = {"Test::greeting=please fail"};
  EXPECT_THAT(load_error(good(), options), HasSubstr("reported 1 error(s)"));
}
