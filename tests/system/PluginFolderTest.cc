// The plug-in as the build leaves it, loaded from its folder by the stand-in host: with its own
// scripts, its own shared object and the real probes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "TempDir.h"
#include "WriterStatus.h"

#include "Func.h"
#include "LoopbackPair.h"
#include "Val.h"
#include "standin/Host.h"
#include "standin/ReportRecorder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// The name of this process as the system keeps it, cut off there.
std::string own_command_name() {
#ifdef __APPLE__
  return std::string(getprogname()).substr(0, 16);
#else
  std::string name;
  std::getline(std::ifstream("/proc/self/comm"), name);
  return name;
#endif
}

/// Root is no one to the probe.
std::string own_user_name() {
  return getuid() == 0 ? "" : getpwuid(getuid())->pw_name;
}

class PluginFolderTest : public testing::Test {
 protected:
  void load(const std::vector<std::string>& redefs = {},
            const std::string& folder = ZMQWRITER_PLUGIN_FOLDER) {
    standin::Host::Options options;
    options.redefs = redefs;
    host_ = std::make_unique<standin::Host>(options);
    host_->LoadPlugin(folder);
  }

  static std::string constant(const std::string& name) {
    return internal_const_val(("LogZMQ::" + name).c_str())->AsStringVal()->CheckString();
  }

  static Val* call(const char* function, const std::vector<Val*>& arguments) {
    val_list list;
    for (Val* argument : arguments)
      list.append(argument);
    return internal_func(function)->Call(&list);
  }

  static std::string text(const Val* value) {
    const BroString* const string = value->AsString();
    return std::string(reinterpret_cast<const char*>(string->Bytes()),
                       static_cast<std::size_t>(string->Len()));
  }

  static Val* connection_record_without_origin() {
    return new RecordVal(internal_type("connection")->AsRecordType());
  }

  std::vector<std::string> errors() const { return reports_.Texts(standin::ReportKind::kError); }

  test::TempDir dir_;
  standin::ReportRecorder reports_;
  std::unique_ptr<standin::Host> host_;
};

TEST_F(PluginFolderTest, EveryConstantHasItsDefaultAndCanBeRedefined) {
  const std::pair<std::string, std::string> defaults[] = {
      {"zmq_primary_server", ""}, {"zmq_secondary_server", ""}, {"zmq_public_key", ""},
      {"zmq_agent_id", ""},       {"set_separator", ","},       {"empty_field", "(empty)"},
      {"unset_field", "-"}};
  std::vector<std::string> redefs;
  load();
  for (const auto& [name, value] : defaults) {
    EXPECT_EQ(constant(name), value) << name;
    redefs.push_back("LogZMQ::" + name + "=new " + name);
  }
  host_.reset();
  load(redefs);
  for (const auto& [name, value] : defaults)
    EXPECT_EQ(constant(name), "new " + name);
}

TEST_F(PluginFolderTest, CallsWithAnotherNumberOfArgumentsAreRefused) {
  load();
  EXPECT_EQ(call("LogZMQ::__detect_user", {}), nullptr);
  EXPECT_EQ(call("LogZMQ::__detect_user",
                 {connection_record_without_origin(), connection_record_without_origin()}),
            nullptr);
  EXPECT_EQ(call("LogZMQ::__get_system_stats", {new StringVal("all")}), nullptr);
  EXPECT_THAT(errors(), ElementsAre("LogZMQ::__detect_user() takes exactly 1 argument(s)",
                                    "LogZMQ::__detect_user() takes exactly 1 argument(s)",
                                    "LogZMQ::__get_system_stats() takes exactly 0 argument(s)"));
}

TEST_F(PluginFolderTest, ConnectionRecordWithoutOriginGivesTwoEmptyStrings) {
  load();
  Val* const result = call("LogZMQ::__detect_user", {connection_record_without_origin()});
  ASSERT_NE(result, nullptr);
  ASSERT_EQ(result->AsVectorVal()->Size(), 2u);
  for (unsigned i = 0; i < 2; ++i)
    EXPECT_EQ(result->AsVectorVal()->Lookup(i)->AsStringVal()->Len(), 0);
  EXPECT_THAT(errors(), ElementsAre());
  Unref(result);
}

TEST_F(PluginFolderTest, ScriptThatAsksForAConnectionOfThisProcessGetsItsNameAndUser) {
  load();
  const LoopbackPair pair;
  ASSERT_NE(pair.server_port(), 0);
  Connection* const conn = connection_between("127.0.0.1", pair.client_port(), pair.server_port());
  Val* const result = call("LogZMQ::__detect_user", {conn->BuildConnVal()});
  Unref(conn);
  ASSERT_NE(result, nullptr);
  const VectorVal& names = *result->AsVectorVal();
  ASSERT_EQ(names.Size(), 2u);
  ASSERT_FALSE(own_command_name().empty());
  EXPECT_EQ(text(names.Lookup(0u)), own_command_name());
  EXPECT_EQ(text(names.Lookup(1u)), own_user_name());
  EXPECT_THAT(errors(), ElementsAre());
  Unref(result);
}

TEST_F(PluginFolderTest, GetSystemStatsFillsEachFieldOfTheScriptsRecordWithItsType) {
  load();
  Val* const result = call("LogZMQ::__get_system_stats", {});
  ASSERT_NE(result, nullptr);
  const RecordVal* const record = result->AsRecordVal();
  const RecordType* const type = internal_type("system_stats")->AsRecordType();
  ASSERT_EQ(type->NumFields(), 9);
  for (int i = 0; i < type->NumFields(); ++i) {
    ASSERT_NE(record->Lookup(i), nullptr) << type->FieldName(i);
    EXPECT_EQ(record->Lookup(i)->Type()->Tag(), type->FieldDecl(i)->type->Tag())
        << type->FieldName(i);
  }
  EXPECT_GT(record->Lookup("ph_mem_total")->AsCount(), 0u);
  EXPECT_GT(record->Lookup("hdd_volume")->AsDouble(), 0.0);
  Unref(result);
}

TEST_F(PluginFolderTest, StatusFunctionIsExportedAndKnowsNoWorkerYet) {
  load();
  const auto status = reinterpret_cast<decltype(&dravenholt_zmqwriter_status)>(
      host_->PluginSymbol("dravenholt_zmqwriter_status"));
  ASSERT_NE(status, nullptr);
  DravenholtZmqWriterStatus now;
  status(&now);
  EXPECT_EQ(now.worker, 0);
  EXPECT_STREQ(now.install_prefix, "orvik");
  EXPECT_STREQ(now.spool_folder, "orvik-spool/work");
}

TEST_F(PluginFolderTest, MagicFileOfAnotherNameIsRefused) {
  std::filesystem::copy(ZMQWRITER_PLUGIN_FOLDER, "other", std::filesystem::copy_options::recursive);
  test::write_file("other/__bro_plugin__", "Dravenholt::OtherWriter\n");
  try {
    load({}, dir_.file("other"));
    FAIL() << "it was loaded";
  } catch (const standin::HostError& error) {
    EXPECT_THAT(error.what(), HasSubstr("inconsistent plugin name"));
  }
}

TEST_F(PluginFolderTest, NameInTheMagicFileIsComparedWithoutCase) {
  std::filesystem::copy(ZMQWRITER_PLUGIN_FOLDER, "other", std::filesystem::copy_options::recursive);
  test::write_file("other/__bro_plugin__", "dravenholt::zmqwriter\n");
  load({}, dir_.file("other"));
  EXPECT_THAT(host_->DescribePlugins(false), HasSubstr("Dravenholt::ZMQWriter"));
}

}  // namespace
