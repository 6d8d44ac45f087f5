// The two forms of check's report, and the exit status behind it.
#include "CheckReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "SettingsFile.h"
#include "TempDir.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

using namespace zmqwriter;

std::vector<std::string> ids(const Findings& findings) {
  std::vector<std::string> result;
  for (const Finding& finding : findings)
    result.push_back(finding.id);
  return result;
}

CheckReport report_with(Severity severity) {
  CheckReport report;
  report.libzmq = {"4.3.4", true};
  report.findings = {{"some-id", severity, "something is so", "do this"}};
  return report;
}

/// Everything there is to say.
CheckReport full_report() {
  const ConstantValues constants = {{"zmq_primary_server", "tcp://a:1"},
                                    {"zmq_public_key", "AB"},
                                    {"zmq_secondary_server", ""},
                                    {"zmq_agent_id", "x\ny"},
                                    {"set_separator", ","},
                                    {"empty_field", "\""},
                                    {"unset_field", "-"}};
  CheckReport report = report_with(Severity::kWarning);
  report.settings_file = "settings";
  report.plugin = PluginReport{"plugin", "orvik", "orvik-spool/work"};
  report.configuration.emplace(PluginOptions{"settings", {}, "plugin"}, constants);
  report.key = KeyReport{"AB", worker_settings::decode_server_key("AB"), false};
  report.spool = SpoolReport{"orvik-spool/work", "orvik-spool", "disabled"};
  report.disk = DiskReport{2048.0, 10, 500, 204, 213909504, 10, 10485760};
  report.agent_id = AgentIdReport{"file", "orvik/agent.id", "x\xff\n", "read"};
  report.tried = std::vector<TriedEndpoint>{
      {report.configuration->endpoints()[0],
       {false, "connect-refused", "refused", "start the collector", 0.25}}};
  return report;
}

}  // namespace

TEST(CheckReport, NotesAloneAreAllWell) {
  EXPECT_TRUE(all_well(CheckReport()));
  EXPECT_TRUE(all_well(report_with(Severity::kNote)));
  EXPECT_FALSE(all_well(report_with(Severity::kWarning)));
  EXPECT_FALSE(all_well(report_with(Severity::kError)));
  EXPECT_THAT(report_as_text(report_with(Severity::kNote)),
              HasSubstr("All well: 0 errors, 0 warnings, 1 note\n"));
}

TEST(CheckReport, RootAndRotationAreNotedAndLibzmqWithoutCurveIsAnError) {
  Findings findings;
  check_environment({"4.3.4", true}, false, false, &findings);
  EXPECT_THAT(ids(findings), ElementsAre());
  check_environment({"4.3.4", false}, true, true, &findings);
  ASSERT_THAT(ids(findings),
              testing::UnorderedElementsAre("libzmq-without-curve", "checked-as-root", "rotation"));
  for (const Finding& finding : findings) {
    EXPECT_EQ(finding.severity == Severity::kError, finding.id == "libzmq-without-curve");
    EXPECT_EQ(finding.severity == Severity::kNote, finding.id != "libzmq-without-curve");
    if (finding.id == "rotation") {
      EXPECT_THAT(finding.remedy, HasSubstr("$interv=0secs"));
    }
  }
}

TEST(CheckReport, FailedConnectionsAreErrorsButThoseNotTriedAreNot) {
  const Endpoint endpoint = {"secondary server 2", "a", "tcp://a:5555"};
  Findings findings;
  check_connections({{endpoint, {true, "connected", "", "", 0}},
                     {endpoint, {false, kNotTried, "not tried", "", 0}},
                     {endpoint, {false, "connect-refused", "refused", "start it", 0}}},
                    &findings);
  ASSERT_THAT(ids(findings), ElementsAre("connect-refused"));
  EXPECT_EQ(findings[0].severity, Severity::kError);
  EXPECT_EQ(findings[0].text, "secondary server 2 'tcp://a:5555': refused");
  EXPECT_EQ(findings[0].remedy, "start it");
}

TEST(CheckReport, TextHasEveryFigureAndTheFindingsAtTheEnd) {
  const std::string text = report_as_text(full_report());
  std::size_t at = 0;
  for (const char* part :
       {"zmq.server", "LogZMQ::zmq_agent_id", "tcp://a:1", "AB (1 byte)", "orvik-spool/work",
        "disabled", "orvik/agent.id", "204 MB", "213909504 bytes", "connect-refused",
        "something is so [some-id]", "do this", "0 errors, 1 warning, 0 notes"}) {
    const std::size_t found = text.find(part, at);
    ASSERT_NE(found, std::string::npos) << part << " is missing, or too early, in\n" << text;
    at = found;
  }
}

TEST(CheckReport, ControlCharactersOfValuesNeverReachTheTerminal) {
  CheckReport report = full_report();
  report.settings_file = "s\x1b[2J";
  report.agent_id->value =
      "csi \x9b"
      "31m, \xc2\x9b"
      "31m, \xe2\x80\xa8, K\xc3\xb6ln, \xc3";
  report.findings[0].text =
      "odd \x1b[31m \x9b"
      "31m \xc2\x9b"
      "31m K\xc3\xb6ln";
  const std::string text = report_as_text(report);
  EXPECT_THAT(text, HasSubstr("\"x\\ny\""));
  EXPECT_THAT(text, HasSubstr("\"\\\"\""));
  EXPECT_THAT(text, HasSubstr("Settings (s?[2J)"));
  EXPECT_THAT(text,
              HasSubstr("\"csi \\x9B31m, \\xC2\\x9B31m, \\xE2\\x80\\xA8, K\xc3\xb6ln, \\xC3\""));
  EXPECT_THAT(text, HasSubstr("odd ?[31m ?31m ??31m K\xc3\xb6ln"));
}

TEST(CheckReport, ErrorsComeBeforeWarningsAndNotes) {
  CheckReport report = report_with(Severity::kNote);
  report.findings.push_back({"w", Severity::kWarning, "second", ""});
  report.findings.push_back({"e", Severity::kError, "first", ""});
  const std::string text = report_as_text(report);
  EXPECT_LT(text.find("first"), text.find("second"));
  EXPECT_LT(text.find("second"), text.find("something is so"));
}

// The other fields check_test.py asks for.
TEST(CheckReport, JsonHasTheKeyTheDiskAndTheFindingsAsTheyAre) {
  const auto json = nlohmann::json::parse(report_as_json(full_report()));
  EXPECT_EQ(json["ok"], false);
  EXPECT_EQ(json["settings"][0]["constant"], "LogZMQ::zmq_primary_server");
  EXPECT_EQ(json["key"]["decoded"], "AB");
  EXPECT_EQ(json["key"]["bytes"], 1);
  EXPECT_EQ(json["key"]["accepted"], false);
  EXPECT_EQ(json["disk"]["chunk_bytes"], 10485760);
  EXPECT_EQ(json["agent_id"]["hex"], "78FF0A");
  EXPECT_EQ(json["findings"][0]["id"], "some-id");
  EXPECT_EQ(json["findings"][0]["severity"], "warning");
  EXPECT_EQ(json["findings"][0]["text"], "something is so");
  EXPECT_EQ(json["findings"][0]["what_to_do"], "do this");
}

TEST(CheckReport, JsonOfWhatCouldNotBeLookedAtIsNull) {
  const auto json = nlohmann::json::parse(report_as_json(report_with(Severity::kError)));
  for (const char* part :
       {"plugin", "settings", "endpoints", "key", "spool", "disk", "agent_id", "connect"})
    EXPECT_TRUE(json.at(part).is_null()) << part;
}
