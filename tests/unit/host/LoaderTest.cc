// The loader, against plug-in folders with a shared object of their own. With the real plug-in
// PluginFolderTest shows it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "TempDir.h"
#include "Val.h"
#include "Var.h"
#include "plugin/Manager.h"
#include "standin/Host.h"
#include "standin/ReportRecorder.h"

using standin::Host;
using standin::HostError;
using testing::HasSubstr;

namespace fs = std::filesystem;

namespace {

class LoaderTest : public testing::Test {
 protected:
  /// A plug-in folder with the shared object that was built as `kind`.
  std::string folder(const std::string& kind = "good", const std::string& name = "Test::Plugin\n") {
    fs::remove_all(kind);
    fs::create_directories(kind + "/scripts");
    fs::copy(std::string(TEST_PLUGINS) + "/" + kind, kind, fs::copy_options::recursive);
    test::write_file(kind + "/__bro_plugin__", name);
    test::write_file(kind + "/scripts/__preload__.bro",
                     "module Test;\nconst greeting = \"hello\" &redef;\n");
    return dir_.file(kind);
  }

  static std::string load_error(const std::string& path,
                                const std::vector<std::string>& redefs = {}) {
    Host::Options options;
    options.redefs = redefs;
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

TEST_F(LoaderTest, EverythingHappensInTheHostsOrderForEachHostOfAProcess) {
  folder();
  std::string expected;
  for (const char* greeting : {"good morning", "good evening"}) {
    Host::Options options;
    options.redefs = {std::string("Test::greeting=") + greeting, "Test::greeting="};
    Host host(options);
    host.LoadPlugin("good/");
    expected += std::string("Configure InitPreScript bif(") + greeting + ") InitPostScript ";
    EXPECT_EQ(calls(host), expected);
    EXPECT_EQ(plugin_mgr->ActivePlugins().front()->APIVersion(), 4);
    host.Finish();
    expected += "Done ";
    EXPECT_EQ(calls(host), expected);
  }
}

TEST_F(LoaderTest, BadRedefsAndErrorsWhileLoadingEndTheStart) {
  EXPECT_THAT(load_error(folder(), {"Test::nothing=1"}),
              HasSubstr("Test::nothing: there is no such option"));
  EXPECT_THAT(load_error(folder(), {"just a word"}), HasSubstr("is no NAME=VALUE"));
  EXPECT_THAT(load_error(folder(), {"Test::greeting=please fail"}),
              HasSubstr("reported 1 error(s)"));
}

TEST_F(LoaderTest, FolderWithoutAPluginOfItsNameAndVersionIsRefused) {
  EXPECT_THAT(load_error("nowhere"), HasSubstr("is no plug-in folder: it has no file __bro_pl"));
  EXPECT_THAT(load_error(folder("good", " \n")), HasSubstr("is empty"));
  EXPECT_THAT(load_error(folder("old_api", "Test::OldApi")),
              HasSubstr("plugin's API version does not match Bro (expected 4, got 3 in "));
  EXPECT_THAT(load_error(folder("no_plugin")), HasSubstr("did not instantiate a plugin"));
  const std::string path = folder();
  for (const auto& entry : fs::directory_iterator(path + "/lib"))
    test::write_file(entry.path().string(), "no shared object");
  EXPECT_THAT(load_error(path), HasSubstr("cannot load plugin library "));
}

TEST_F(LoaderTest, FolderWithoutObjectStillLoadsItsScripts) {
  const std::string path = folder();
  fs::remove_all(path + "/lib");
  Host host{Host::Options()};
  host.LoadPlugin(path);
  EXPECT_STREQ(internal_const_val("Test::greeting")->AsStringVal()->CheckString(), "hello");
  EXPECT_EQ(host.PluginSymbol("test_plugin_calls"), nullptr);
  EXPECT_EQ(host.DescribePlugins(true), "");
}
