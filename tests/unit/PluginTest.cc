// The plug-in object and the glue of the script interface, over the stand-in host and without what
// they lead to. The functions of the loaded plug-in PluginFolderTest shows, its description
// replay_test.py.
#include "Plugin.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SystemStats.h"
#include "UserDetect.h"
#include "ZMQ.h"

#include "Func.h"
#include "logging/Component.h"
#include "logging/Manager.h"
#include "plugin/Manager.h"
#include "standin/Host.h"
#include "standin/Scripts.h"
#include "zmq.bif.h"

// --- fakes ---------------------------------------------------------------------------------------

VectorVal* UserDetect::detectUser(Connection*) {
  return nullptr;
}

RecordVal* SystemStats::getStats() {
  return nullptr;
}

logging::WriterBackend* logging::writer::ZMQ::Instantiate(WriterFrontend*) {
  return nullptr;
}

namespace plugin {
namespace Dravenholt_ZMQWriter {
void __bif_zmq_init(::plugin::Plugin* plugin);
}
}  // namespace plugin

// --- fixture -------------------------------------------------------------------------------------

namespace {

using testing::HasSubstr;

const char* const kConstants[] = {"LogZMQ::zmq_primary_server", "LogZMQ::zmq_secondary_server",
                                  "LogZMQ::zmq_public_key",     "LogZMQ::zmq_agent_id",
                                  "LogZMQ::set_separator",      "LogZMQ::empty_field",
                                  "LogZMQ::unset_field"};

/// A host that has read the plug-in's scripts: every constant holds its own name.
class PluginTest : public testing::Test {
 protected:
  PluginTest() : host_(standin::Host::Options()) {
    standin::define_type("system_stats", new RecordType(new type_decl_list));
    for (const char* name : kConstants)
      standin::define_option(name, new StringVal(name));
    standin::declare_function("LogZMQ::__detect_user");
    standin::declare_function("LogZMQ::__get_system_stats");
  }

  ~PluginTest() override {
    standin::forget_scripts();
    plugin_().bif_items.clear();
    plugin_().Done();
  }

  static ::plugin::Plugin& plugin_() { return ::plugin::Dravenholt_ZMQWriter::plugin; }
  static void configure() { plugin_().DoConfigure(); }
  static void bind() { ::plugin::Dravenholt_ZMQWriter::__bif_zmq_init(&plugin_()); }

  standin::Host host_;
};

using PluginDeathTest = PluginTest;

// --- the plug-in object --------------------------------------------------------------------------

TEST_F(PluginTest, ListsOneComponentTheWriterZmqWithItsFactory) {
  configure();
  const ::plugin::Plugin::component_list components = plugin_().Components();
  ASSERT_EQ(components.size(), 1u);
  EXPECT_EQ(components.front()->Name(), "ZMQ");
  EXPECT_EQ(components.front()->Type(), ::plugin::component::WRITER);
  EXPECT_EQ(static_cast<logging::Component*>(components.front())->Factory(),
            &logging::writer::ZMQ::Instantiate);
  EXPECT_NE(log_mgr->Lookup("ZMQ"), nullptr);
}

// --- binding -------------------------------------------------------------------------------------

TEST_F(PluginTest, EachGlobalHoldsTheValueOfItsOwnConstantAndNoFunctionIsPure) {
  bind();
  StringVal* const bound[] = {
      BifConst::LogZMQ::zmq_primary_server, BifConst::LogZMQ::zmq_secondary_server,
      BifConst::LogZMQ::zmq_public_key,     BifConst::LogZMQ::zmq_agent_id,
      BifConst::LogZMQ::set_separator,      BifConst::LogZMQ::empty_field,
      BifConst::LogZMQ::unset_field};
  for (int i = 0; i < 7; ++i) {
    ASSERT_NE(bound[i], nullptr) << kConstants[i];
    EXPECT_STREQ(bound[i]->CheckString(), kConstants[i]);
    EXPECT_EQ(bound[i], internal_const_val(kConstants[i]));
  }
  EXPECT_EQ(BifType::Record::system_stats, internal_type("system_stats"));
  for (const char* name : {"LogZMQ::__detect_user", "LogZMQ::__get_system_stats"})
    EXPECT_FALSE(internal_func(name)->IsPure()) << name;
}

TEST_F(PluginDeathTest, ConstantThatIsNoStringIsFatal) {
  for (const char* name : kConstants) {
    standin::define_option(name, new Val(uint64_t(7), TYPE_COUNT));
    EXPECT_EXIT(bind(), testing::ExitedWithCode(1), HasSubstr("Val::CONVERTER (count/string)"))
        << name;
    standin::define_option(name, new StringVal(name));
  }
}

TEST_F(PluginDeathTest, SystemStatsThatIsNoRecordIsFatal) {
  standin::forget_scripts();
  standin::define_type("system_stats", base_type(TYPE_COUNT));
  EXPECT_EXIT(bind(), testing::ExitedWithCode(1), HasSubstr("BroType::AsRecordType"));
}

// --- the functions -------------------------------------------------------------------------------

TEST_F(PluginDeathTest, DetectUserOfSomethingElseThanARecordIsFatal) {
  bind();
  val_list arguments;
  arguments.append(new StringVal("conn"));
  EXPECT_EXIT(internal_func("LogZMQ::__detect_user")->Call(&arguments), testing::ExitedWithCode(1),
              HasSubstr("Val::CONVERTER (string/record)"));
  Unref(arguments[0]);  // the call that takes it over was made by another process
}

}  // namespace
