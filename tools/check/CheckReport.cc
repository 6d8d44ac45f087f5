#include "CheckReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Text.h"

namespace zmqwriter {

namespace {

using Json = nlohmann::ordered_json;

const char* name_of(Severity severity) {
  return severity == Severity::kError     ? "error"
         : severity == Severity::kWarning ? "warning"
                                          : "note";
}

const char* name_of(Setting::Place place) {
  return place == Setting::kSettingsFile     ? "settings file"
         : place == Setting::kScriptConstant ? "script constant"
                                             : "default";
}

/// The key in the settings file; without one, the constant.
const std::string& name_of(const Setting& setting) {
  return setting.key.empty() ? setting.constant : setting.key;
}

bool is_number(const Setting& setting) {
  return setting.constant.empty();
}

std::uint64_t count_of(const CheckReport& report, Severity severity) {
  return static_cast<std::uint64_t>(
      std::count_if(report.findings.begin(), report.findings.end(),
                    [&](const Finding& finding) { return finding.severity == severity; }));
}

// -- Text -----------------------------------------------------------------------------------------

constexpr std::size_t kTextWidth = 96;

/// In quotation marks, which make blanks visible; what is not printable is escaped.
std::string shown(const std::string& text) {
  std::string quoted;
  for (const char c : text)
    quoted += (c == '"' || c == '\\' ? "\\" : "") + std::string(1, c);
  return "\"" +
         printable(quoted,
                   [](char c) {
                     return c == '\n'   ? "\\n"
                            : c == '\r' ? "\\r"
                            : c == '\t' ? "\\t"
                                        : "\\x" + hex_digits(&c, 1);
                   }) +
         "\"";
}

std::string for_terminal(const std::string& text) {
  return printable(text, [](char) { return std::string("?"); });
}

/// A title, and below it rows whose columns are aligned.
class Table {
 public:
  explicit Table(const std::string& title) : text_(title + "\n") {}

  void Row(const std::vector<std::string>& cells) { rows_.push_back(cells); }

  std::string Text() const {
    std::vector<std::size_t> widths;
    for (const auto& row : rows_) {
      widths.resize(std::max(widths.size(), row.size()));
      for (std::size_t i = 0; i + 1 < row.size(); ++i)
        widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text = text_;
    for (const auto& row : rows_) {
      std::string line = " ";
      for (std::size_t i = 0; i < row.size(); ++i) {
        line += " " + row[i];
        if (i + 1 < row.size())
          line.append(widths[i] - row[i].size() + 1, ' ');
      }
      text += line + "\n";
    }
    return text + "\n";
  }

 private:
  std::string text_;
  std::vector<std::vector<std::string>> rows_;
};

std::string settings_table(const Configuration& configuration, const std::string& file) {
  Table table("Settings (" + for_terminal(file) + ")");
  for (const Setting& setting : configuration.settings_in_order()) {
    const std::string source = setting.place == Setting::kScriptConstant && !setting.key.empty()
                                   ? name_of(setting.place) + (" " + setting.constant)
                                   : name_of(setting.place);
    table.Row(
        {name_of(setting), is_number(setting) ? setting.value : shown(setting.value), source});
  }
  return table.Text();
}

std::string endpoints_table(const Configuration& configuration) {
  Table table("Endpoints, as the plug-in uses them");
  for (const Endpoint& endpoint : configuration.endpoints())
    table.Row({endpoint.role, for_terminal(endpoint.uri), "from " + shown(endpoint.configured)});
  if (configuration.endpoints().size() == 1)
    table.Row({"secondary servers", "none"});
  return table.Text();
}

std::string key_table(const KeyReport& key) {
  Table table("Server key, as the plug-in decodes it");
  table.Row({"text", shown(key.text)});
  table.Row({"decoded", hex_digits(key.decoded.bytes, key.decoded.length) + " (" +
                            counted(key.decoded.length, "byte") + ")"});
  table.Row({"libzmq", key.accepted ? "accepts it as a key" : "does not accept it as a key"});
  return table.Text();
}

std::string paths_table(const CheckReport& report) {
  Table table("Paths");
  table.Row({"plug-in", for_terminal(report.plugin->folder)});
  table.Row({"spool folder", report.spool->folder, "spool " + report.spool->state});
  table.Row({"its parent", report.spool->parent});
  table.Row({"agent-id file", report.agent_id->path, report.agent_id->state});
  return table.Text();
}

std::string agent_table(const AgentIdReport& agent) {
  Table table("Agent identifier");
  if (!agent.value.empty())
    table.Row({"identifier", shown(agent.value)});
  else if (agent.source == "generated")
    table.Row({"identifier", "a new one, generated"});
  table.Row({"from", agent.source});
  return table.Text();
}

std::string disk_table(const DiskReport& disk) {
  Table table("Disk limits, as the plug-in computes them (it enforces none but the chunk size)");
  table.Row({"working directory's disk", formatted("%.2f MB", disk.disk_mb)});
  table.Row({"spool limit", std::to_string(disk.limit_mb) + " MB",
             std::to_string(disk.limit_bytes) + " bytes, the smaller of " +
                 std::to_string(disk.relative) + " % and " + std::to_string(disk.absolute_mb) +
                 " MB"});
  table.Row({"chunk size", std::to_string(disk.chunk_mb) + " MB",
             std::to_string(disk.chunk_bytes) + " bytes"});
  return table.Text();
}

std::string connect_table(const std::vector<TriedEndpoint>& tried) {
  Table table("Connections");
  for (const TriedEndpoint& one : tried) {
    table.Row({one.endpoint.role, for_terminal(one.endpoint.uri), one.result.ok ? "ok" : "failed",
               formatted("%.2f s", one.result.seconds),
               one.result.ok ? one.result.text : one.result.id});
  }
  return table.Text();
}

std::string limit_text(std::int64_t limit, const std::string& unit) {
  return limit > 0 ? "at most " + std::to_string(limit) + unit : "no limit";
}

std::string duration_text(double seconds) {
  return seconds >= 2 * 86400 ? formatted("%.0f days", seconds / 86400)
                              : formatted("%.1f hours", seconds / 3600);
}

std::string engine_tables(const EngineReport& engine) {
  Table servers("Servers");
  for (const TriedServer& server : engine.servers)
    servers.Row({for_terminal(server.url), server.problem.empty() ? "ok" : "failed",
                 formatted("%.2f s", server.seconds)});
  if (!engine.stream)
    return servers.Text();
  const StreamReport& stream = *engine.stream;
  Table table("Stream of the subjects " + for_terminal(engine.subjects));
  table.Row({"name", for_terminal(stream.name)});
  table.Row({"replicas", std::to_string(stream.replicas),
             stream.leader.empty() ? "" : "led by " + for_terminal(stream.leader)});
  table.Row({"events", std::to_string(stream.messages), limit_text(stream.max_messages, "")});
  table.Row({"bytes", std::to_string(stream.bytes), limit_text(stream.max_bytes, "")});
  table.Row({"age", "", limit_text(stream.max_age_s, " s")});
  table.Row({"full in",
             stream.full_in_s    ? duration_text(*stream.full_in_s)
             : stream.ages_first ? "never"
                                 : "not known",
             stream.full_in_s || stream.ages_first ? "at the rate of the events in it" : ""});
  table.Row({"ids are remembered", std::to_string(stream.duplicates_s) + " s"});
  table.Row({"largest event", std::to_string(engine.largest_message) + " bytes"});
  table.Row({"may publish", !engine.may_publish   ? "not known"
                            : *engine.may_publish ? "yes"
                                                  : "no"});
  return servers.Text() + table.Text();
}

std::string findings_text(const CheckReport& report) {
  constexpr std::size_t kIndent = 11;
  std::string text = "Findings\n";
  for (const Severity severity : {Severity::kError, Severity::kWarning, Severity::kNote}) {
    for (const Finding& finding : report.findings) {
      if (finding.severity != severity)
        continue;
      std::string words = for_terminal(finding.text) + " [" + finding.id + "]";
      if (!finding.remedy.empty())
        words += "\nTo do: " + finding.remedy;
      std::string start = std::string("  ") + name_of(severity);
      start.resize(kIndent, ' ');
      text += start + wrapped(words, kIndent, kTextWidth) + "\n";
    }
  }
  const std::uint64_t errors = count_of(report, Severity::kError);
  const std::uint64_t warnings = count_of(report, Severity::kWarning);
  return text + "\n" + (errors + warnings == 0 ? "All well: " : "") + counted(errors, "error") +
         ", " + counted(warnings, "warning") + ", " +
         counted(count_of(report, Severity::kNote), "note") + "\n";
}

// -- JSON -----------------------------------------------------------------------------------------

Json settings_json(const Configuration& configuration) {
  Json list = Json::array();
  for (const Setting& setting : configuration.settings_in_order()) {
    Json one;
    one["name"] = name_of(setting);
    one["constant"] = setting.constant.empty() ? Json() : Json(setting.constant);
    one["value"] = is_number(setting) ? Json(std::stoi(setting.value)) : Json(setting.value);
    one["source"] = name_of(setting.place);
    list.push_back(one);
  }
  return list;
}

Json endpoints_json(const Configuration& configuration) {
  Json list = Json::array();
  for (const Endpoint& endpoint : configuration.endpoints())
    list.push_back(
        {{"role", endpoint.role}, {"configured", endpoint.configured}, {"uri", endpoint.uri}});
  return list;
}

Json connect_json(const std::vector<TriedEndpoint>& tried) {
  Json list = Json::array();
  for (const TriedEndpoint& one : tried)
    list.push_back({{"role", one.endpoint.role},
                    {"uri", one.endpoint.uri},
                    {"ok", one.result.ok},
                    {"outcome", one.result.id},
                    {"text", one.result.text},
                    {"what_to_do", one.result.remedy},
                    {"seconds", one.result.seconds}});
  return list;
}

Json engine_json(const EngineReport& engine) {
  Json json;
  json["servers"] = Json::array();
  for (const TriedServer& server : engine.servers)
    json["servers"].push_back({{"url", server.url},
                               {"ok", server.problem.empty()},
                               {"text", server.problem},
                               {"seconds", server.seconds}});
  json["subjects"] = engine.subjects;
  json["largest_message"] = engine.largest_message;
  json["may_publish"] = engine.may_publish ? Json(*engine.may_publish) : Json();
  json["stream"] = nullptr;
  if (const auto& stream = engine.stream)
    json["stream"] = {{"name", stream->name},
                      {"replicas", stream->replicas},
                      {"leader", stream->leader},
                      {"messages", stream->messages},
                      {"bytes", stream->bytes},
                      {"max_messages", stream->max_messages},
                      {"max_bytes", stream->max_bytes},
                      {"max_age_s", stream->max_age_s},
                      {"duplicates_s", stream->duplicates_s},
                      {"ages_first", stream->ages_first},
                      {"full_in_s", stream->full_in_s ? Json(*stream->full_in_s) : Json()}};
  return json;
}

Json findings_json(const Findings& findings) {
  Json list = Json::array();
  for (const Finding& finding : findings)
    list.push_back({{"id", finding.id},
                    {"severity", name_of(finding.severity)},
                    {"text", finding.text},
                    {"what_to_do", finding.remedy}});
  return list;
}

}  // namespace

bool all_well(const CheckReport& report) {
  return count_of(report, Severity::kError) + count_of(report, Severity::kWarning) == 0;
}

void check_connections(const std::vector<TriedEndpoint>& tried, Findings* findings) {
  for (const TriedEndpoint& one : tried) {
    if (!one.result.ok && one.result.id != kNotTried)
      add_error(findings, one.result.id,
                one.endpoint.role + " '" + one.endpoint.uri + "': " + one.result.text,
                one.result.remedy);
  }
}

void check_environment(const LibzmqReport& libzmq, bool is_root, bool rotates, Findings* findings) {
  if (!libzmq.curve)
    add_error(findings, "libzmq-without-curve",
              "libzmq " + libzmq.version + " has no CURVE security, so the plug-in sends nothing",
              "install a libzmq that was built with it");
  if (is_root)
    add_note(findings, "checked-as-root",
             "write access was checked as root, who may write everywhere",
             "check as the user that the host runs as");
  if (rotates)
    add_note(
        findings, "rotation",
        "log rotation must stay off for this writer: it has nothing to rotate, and the host "
        "aborts when a writer does not report a finished rotation",
        "give filters of this writer $interv=0secs; the plug-in's scripts set other intervals "
        "to 0 when the host starts and print \"the ZeroMQ writer cannot rotate: ...\" for each");
}

std::string report_as_text(const CheckReport& report) {
  if (report.engine)
    return engine_tables(*report.engine) + findings_text(report);
  std::string text;
  if (report.configuration)
    text += settings_table(*report.configuration, report.settings_file) +
            endpoints_table(*report.configuration);
  if (report.key)
    text += key_table(*report.key);
  Table library("libzmq");
  library.Row({"version", report.libzmq.version});
  library.Row({"CURVE", report.libzmq.curve ? "yes" : "no"});
  text += library.Text();
  if (report.plugin && report.spool && report.agent_id)
    text += paths_table(report) + agent_table(*report.agent_id);
  if (report.disk)
    text += disk_table(*report.disk);
  if (report.tried)
    text += connect_table(*report.tried);
  return text + findings_text(report);
}

std::string report_as_json(const CheckReport& report) {
  Json json;
  json["ok"] = all_well(report);
  if (report.engine) {
    json["engine"] = engine_json(*report.engine);
    json["findings"] = findings_json(report.findings);
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  }
  json["settings_file"] = report.settings_file;
  json["libzmq"] = {{"version", report.libzmq.version}, {"curve", report.libzmq.curve}};
  for (const char* part : {"plugin", "settings", "endpoints", "key", "spool", "disk", "agent_id"})
    json[part] = nullptr;
  json["connect"] = report.tried ? connect_json(*report.tried) : Json();
  if (const auto& plugin = report.plugin)
    json["plugin"] = {{"folder", plugin->folder},
                      {"install_prefix", plugin->install_prefix},
                      {"spool_folder", plugin->spool_folder}};
  if (report.configuration) {
    json["settings"] = settings_json(*report.configuration);
    json["endpoints"] = endpoints_json(*report.configuration);
  }
  if (const auto& key = report.key)
    json["key"] = {{"text", key->text},
                   {"decoded", hex_digits(key->decoded.bytes, key->decoded.length)},
                   {"bytes", key->decoded.length},
                   {"accepted", key->accepted}};
  if (const auto& spool = report.spool)
    json["spool"] = {{"folder", spool->folder}, {"parent", spool->parent}, {"state", spool->state}};
  if (const auto& disk = report.disk)
    json["disk"] = {{"disk_mb", disk->disk_mb},         {"relative_percent", disk->relative},
                    {"absolute_mb", disk->absolute_mb}, {"limit_mb", disk->limit_mb},
                    {"limit_bytes", disk->limit_bytes}, {"chunk_mb", disk->chunk_mb},
                    {"chunk_bytes", disk->chunk_bytes}};
  if (const auto& agent = report.agent_id)
    json["agent_id"] = {{"source", agent->source},
                        {"path", agent->path},
                        {"value", agent->value},
                        {"hex", hex_digits(agent->value.data(), agent->value.size())},
                        {"state", agent->state}};
  json["findings"] = findings_json(report.findings);
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace zmqwriter
