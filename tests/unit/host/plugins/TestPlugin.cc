// A small plug-in with one of everything, which keeps an account of what the host calls.

#include <string>

#include "Func.h"
#include "Reporter.h"
#include "Val.h"
#include "logging/Component.h"
#include "logging/WriterBackend.h"
#include "plugin/Manager.h"
#include "plugin/Plugin.h"

#ifndef TEST_PLUGIN_NAME
#define TEST_PLUGIN_NAME "Test::Plugin"
#endif

namespace {

std::string* calls = 0;

void note(const std::string& call) {
  if (!calls)
    calls = new std::string;
  *calls += call + " ";
}

}  // namespace

extern "C" const char* test_plugin_calls() {
  return calls ? calls->c_str() : "";
}

namespace {

class TestWriter : public logging::WriterBackend {
 public:
  explicit TestWriter(logging::WriterFrontend* frontend) : logging::WriterBackend(frontend) {}
  static logging::WriterBackend* Instantiate(logging::WriterFrontend* frontend) {
    return new TestWriter(frontend);
  }

 protected:
  virtual bool DoInit(const WriterInfo&, int, const threading::Field* const*) {
    note("DoInit");
    return true;
  }
  virtual bool DoWrite(int, const threading::Field* const*, threading::Value**) {
    note("DoWrite");
    return true;
  }
  virtual bool DoSetBuf(bool) { return true; }
  virtual bool DoFlush(double) { return true; }
  virtual bool DoRotate(const char*, double, double, bool) { return true; }
  virtual bool DoFinish(double) {
    note("DoFinish");
    return true;
  }
  virtual bool DoHeartbeat(double, double) { return true; }
};

class TestPlugin : public plugin::Plugin {
 protected:
  virtual plugin::Configuration Configure() {
    if (calls)
      calls->clear();
    note("Configure");
    AddComponent(new logging::Component("Test-Writer", &TestWriter::Instantiate));
    plugin::Configuration config;
    config.name = TEST_PLUGIN_NAME;
    config.description = "A plug-in for tests";
    config.version.major = 1;
    config.version.minor = 2;
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

Val* bro_answer(Frame*, val_list*) {
  return new Val(uint64(42), TYPE_COUNT);
}

void bif_init(plugin::Plugin* p) {
  internal_type("test_record")->AsRecordType();
  p->AddBifItem("test_record", plugin::BifItem::TYPE);
  const std::string greeting = internal_const_val("Test::greeting")->AsStringVal()->CheckString();
  p->AddBifItem("Test::greeting", plugin::BifItem::CONSTANT);
  (void)new BuiltinFunc(bro_answer, "Test::answer", 0);
  p->AddBifItem("Test::answer", plugin::BifItem::FUNCTION);
  note("bif(" + greeting + ")");
  if (greeting == "please fail")
    reporter->Error("as asked");
}

plugin::__RegisterBif register_bif(TEST_PLUGIN_NAME, bif_init);

}  // namespace
