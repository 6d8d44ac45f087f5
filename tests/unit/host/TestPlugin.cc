// A small plug-in that keeps an account of what the host calls. Without TEST_PLUGIN_NAME the object
// holds no plug-in.

#ifdef TEST_PLUGIN_NAME

#include <string>

#include "Func.h"
#include "Reporter.h"
#include "Val.h"
#include "plugin/Manager.h"
#include "plugin/Plugin.h"

namespace {

std::string* calls = 0;

void note(const std::string& call) {
  if (!calls)
    calls = new std::string;
  *calls += call + " ";
}

class TestPlugin : public plugin::Plugin {
 protected:
  virtual plugin::Configuration Configure() {
    note("Configure");
    plugin::Configuration config;
    config.name = TEST_PLUGIN_NAME;
    return config;
  }
  virtual void InitPreScript() { note("InitPreScript"); }
  virtual void InitPostScript() { note("InitPostScript"); }
  virtual void Done() {
    note("Done");
    plugin::Plugin::Done();
  }
};

TestPlugin the_plugin;

void bif_init(plugin::Plugin*) {
  const std::string greeting = internal_const_val("Test::greeting")->AsStringVal()->CheckString();
  note("bif(" + greeting + ")");
  if (greeting == "please fail")
    reporter->Error("as asked");
}

plugin::__RegisterBif register_bif(TEST_PLUGIN_NAME, bif_init);

}  // namespace

extern "C" const char* test_plugin_calls() {
  return calls ? calls->c_str() : "";
}

#endif
