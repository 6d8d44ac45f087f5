// The plug-in object and the glue of the script interface, over the stand-in host and fakes of
// what they lead to: the writer's factory and the two probes.
#include "Plugin.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SystemStats.h"
#include "UserDetect.h"
#include "ZMQ.h"

#include "Func.h"
#include "logging/Component.h"
#include "logging/Manager.h"
#include "plugin/Manager.h"
#include "standin/Host.h"
#include "standin/ReportRecorder.h"
#include "standin/Scripts.h"
#include "zmq.bif.h"

// --- fakes ---------------------------------------------------------------------------------------

namespace {

struct Calls {
  std::vector<Connection*> detect_user;
  int get_stats = 0;
};

Calls calls;

}  // namespace

VectorVal* UserDetect::detectUser(Connection* conn) {
  calls.detect_user.push_back(conn);
  return new VectorVal(internal_type("string_vec")->AsVectorType());
}

RecordVal* SystemStats::getStats() {
  ++calls.get_stats;
  return new RecordVal(internal_type("system_stats")->AsRecordType());
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

using testing::ElementsAre;
using testing::HasSubstr;

const char* const kConstants[] = {"LogZMQ::zmq_primary_server", "LogZMQ::zmq_secondary_server",
                                  "LogZMQ::zmq_public_key",     "LogZMQ::zmq_agent_id",
                                  "LogZMQ::set_separator",      "LogZMQ::empty_field",
                                  "LogZMQ::unset_field"};

/// A host that has read the plug-in's scripts: every constant holds its own name.
class PluginTest : public testing::Test {
 protected:
  PluginTest() : host_(standin::Host::Options()) {
    calls = Calls();
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

  static Val* call(const char* function, const std::vector<Val*>& arguments) {
    val_list list;
    for (Val* argument : arguments)
      list.append(argument);
    return internal_func(function)->Call(&list);
  }

  static RecordVal* connection_record(Connection* origin) {
    RecordVal* record = new RecordVal(internal_type("connection")->AsRecordType());
    if (origin)
      record->SetOrigin(origin);
    return record;
  }

  std::vector<std::string> errors() const { return reports_.Texts(standin::ReportKind::kError); }

  standin::Host host_;
  standin::ReportRecorder reports_;
};

using PluginDeathTest = PluginTest;

// --- the plug-in object --------------------------------------------------------------------------

TEST_F(PluginTest, NameDescriptionAndVersionsAreTheRequiredOnes) {
  configure();
  EXPECT_EQ(plugin_().Name(), "Dravenholt::ZMQWriter");
  EXPECT_EQ(plugin_().Description(), "ZeroMQ log writer");
  EXPECT_EQ(plugin_().APIVersion(), 4);
  EXPECT_FALSE(plugin_().Version()) << "unset";
  EXPECT_EQ(plugin_().Version().major, -1);
  EXPECT_EQ(plugin_().Version().minor, -1);
}

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

TEST_F(PluginTest, ListsTenScriptItemsTheTypeFirst) {
  bind();
  std::vector<std::string> names;
  std::vector<int> kinds;
  for (const ::plugin::BifItem& item : plugin_().BifItems()) {
    names.push_back(item.GetID());
    kinds.push_back(item.GetType());
  }
  EXPECT_THAT(names, ElementsAre("system_stats", "LogZMQ::zmq_primary_server",
                                 "LogZMQ::zmq_secondary_server", "LogZMQ::zmq_public_key",
                                 "LogZMQ::zmq_agent_id", "LogZMQ::set_separator",
                                 "LogZMQ::empty_field", "LogZMQ::unset_field",
                                 "LogZMQ::__detect_user", "LogZMQ::__get_system_stats"));
  using ::plugin::BifItem;
  EXPECT_THAT(
      kinds, ElementsAre(BifItem::TYPE, BifItem::CONSTANT, BifItem::CONSTANT, BifItem::CONSTANT,
                         BifItem::CONSTANT, BifItem::CONSTANT, BifItem::CONSTANT, BifItem::CONSTANT,
                         BifItem::FUNCTION, BifItem::FUNCTION));
  for (const char* name : {"LogZMQ::__detect_user", "LogZMQ::__get_system_stats"})
    EXPECT_FALSE(internal_func(name)->IsPure()) << name;
}

TEST_F(PluginTest, EachGlobalHoldsTheValueOfItsOwnConstant) {
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

TEST_F(PluginTest, WrongNumberOfArgumentsIsRefused) {
  bind();
  EXPECT_EQ(call("LogZMQ::__detect_user", {}), nullptr);
  EXPECT_EQ(call("LogZMQ::__detect_user", {connection_record(nullptr), connection_record(nullptr)}),
            nullptr);
  EXPECT_EQ(call("LogZMQ::__get_system_stats", {new StringVal("all")}), nullptr);
  EXPECT_THAT(errors(), ElementsAre("LogZMQ::__detect_user() takes exactly 1 argument(s)",
                                    "LogZMQ::__detect_user() takes exactly 1 argument(s)",
                                    "LogZMQ::__get_system_stats() takes exactly 0 argument(s)"));
  EXPECT_TRUE(calls.detect_user.empty());
  EXPECT_EQ(calls.get_stats, 0);
}

TEST_F(PluginTest, DetectUserAsksForTheConnectionThatTheRecordWasMadeFrom) {
  bind();
  ConnID id = {};
  Connection* connection = new Connection(nullptr, nullptr, 1.0, &id, 0, 0, 0, nullptr);
  Val* result = call("LogZMQ::__detect_user", {connection->BuildConnVal()});
  EXPECT_THAT(calls.detect_user, ElementsAre(connection));
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->Type()->Tag(), TYPE_VECTOR);
  EXPECT_THAT(errors(), ElementsAre());
  Unref(result);
  Unref(connection);
}

TEST_F(PluginTest, DetectUserPassesOnThatARecordHasNoConnection) {
  bind();
  Unref(call("LogZMQ::__detect_user", {connection_record(nullptr)}));
  EXPECT_THAT(calls.detect_user, ElementsAre(nullptr));
}

TEST_F(PluginDeathTest, DetectUserOfSomethingElseThanARecordIsFatal) {
  bind();
  EXPECT_EXIT(call("LogZMQ::__detect_user", {new StringVal("conn")}), testing::ExitedWithCode(1),
              HasSubstr("Val::CONVERTER (string/record)"));
}

TEST_F(PluginTest, GetSystemStatsReturnsTheProbesRecord) {
  bind();
  Val* result = call("LogZMQ::__get_system_stats", {});
  EXPECT_EQ(calls.get_stats, 1);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->Type(), internal_type("system_stats"));
  EXPECT_THAT(errors(), ElementsAre());
  Unref(result);
}

}  // namespace
