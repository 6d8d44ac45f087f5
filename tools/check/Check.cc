#include "Check.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <zmq.h>

#include "CheckReport.h"
#include "Output.h"
#include "PluginUse.h"
#include "WriterStatus.h"
#include "standin/Host.h"

namespace zmqwriter {

namespace {

// A day. The clock cannot add much longer times.
constexpr double kLongestTimeout_s = 86400;

// A constant of the host itself, which the stand-in does not have.
const char kRotation[] = "Log::default_rotation_interval=";

/// Whether --set gives the filters an interval; the host's default is none.
bool rotates(const std::vector<std::string>& redefs) {
  bool on = false;
  for (const std::string& redef : redefs) {
    if (redef.rfind(kRotation, 0) == 0 && redef != kRotation)
      on = std::strtod(redef.c_str() + std::strlen(kRotation), nullptr) != 0;
  }
  return on;
}

LibzmqReport libzmq_report() {
  int major = 0, minor = 0, patch = 0;
  zmq_version(&major, &minor, &patch);
  return {std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch),
          zmq_has("curve") == 1};
}

/// A problem of a line begins with "FILE:NUMBER".
std::string settings_remedy(const std::string& file, const std::string& problem) {
  const std::size_t digit = file.size() + 1;
  return problem.size() > digit && std::isdigit(static_cast<unsigned char>(problem[digit]))
             ? "correct the settings file: lines 'key = value', each key once"
             : "give a settings file with --settings that you may read";
}

/// Starts the stand-in host with the plug-in; null and a finding when that fails.
std::unique_ptr<standin::Host> start_host(const CheckOptions& options, Findings* findings) {
  standin::Host::Options host_options;
  host_options.settings_file = options.settings_file;
  std::copy_if(options.redefs.begin(), options.redefs.end(),
               std::back_inserter(host_options.redefs),
               [](const std::string& redef) { return redef.rfind(kRotation, 0) != 0; });
  std::unique_ptr<standin::Host> host;
  try {
    host = std::make_unique<standin::Host>(host_options);
  } catch (const standin::HostError& error) {
    add_error(findings, "settings-unreadable", error.what(),
              settings_remedy(options.settings_file, error.what()));
    return nullptr;
  }
  try {
    host->LoadPlugin(options.plugin_folder);
    plugin_status_function(*host);
  } catch (const standin::HostError& error) {
    add_error(findings, "plugin-not-loaded",
              std::string("the plug-in cannot be loaded: ") + error.what(),
              "give its folder with --plugin, and only known script constants with --set");
    return nullptr;
  }
  return host;
}

PluginReport plugin_report(const CheckOptions& options, const standin::Host& host) {
  DravenholtZmqWriterStatus status = {};
  plugin_status_function(host)(&status);
  return {options.plugin_folder, status.install_prefix, status.spool_folder};
}

ConnectResult try_endpoint(const Endpoint& endpoint, const worker_settings::ServerKey& key,
                           std::chrono::milliseconds timeout) {
  Findings findings;
  check_endpoint(endpoint, &findings);
  if (!findings.empty() && findings[0].severity == Severity::kError)
    return {false, kNotTried, "not tried, because its text is wrong", "", 0};
  return try_connection(endpoint.uri, key, timeout);
}

std::vector<TriedEndpoint> try_endpoints(const Configuration& configuration, double timeout_s) {
  const auto timeout = std::chrono::ceil<std::chrono::milliseconds>(
      std::chrono::duration<double>(std::min(timeout_s, kLongestTimeout_s)));
  std::vector<TriedEndpoint> tried;
  for (const Endpoint& endpoint : configuration.endpoints())
    tried.push_back({endpoint, try_endpoint(endpoint, configuration.DecodedKey(), timeout)});
  return tried;
}

void check_configuration(const CheckOptions& options, const standin::Host& host,
                         CheckReport* report) {
  Findings* const findings = &report->findings;
  report->plugin = plugin_report(options, host);
  report->configuration.emplace(options, script_constants());
  const Configuration& configuration = *report->configuration;
  check_names(options.settings_file, findings);
  configuration.CheckNumbers(findings);
  configuration.CheckEndpoints(findings);
  report->key = configuration.CheckKey(libzmq_takes_key(configuration.DecodedKey()), findings);
  report->spool = check_spool(report->plugin->spool_folder, findings);
  check_spool_access(report->plugin->spool_folder, findings);
  report->disk = configuration.CheckDisk(findings);
  check_spool_space(*report->spool, report->disk->limit_mb, findings);
  report->agent_id = check_agent_id(configuration.setting("zmq_agent_id"),
                                    report->plugin->install_prefix, findings);
  if (options.connect && report->libzmq.curve) {
    report->tried = try_endpoints(configuration, options.timeout_s);
    check_connections(*report->tried, findings);
  }
}

}  // namespace

int check(const CheckOptions& options) {
  CheckReport report;
  if (!options.engine.servers.empty()) {
    report.engine = check_engine(options.engine, &report.findings);
  } else {
    report.settings_file = options.settings_file;
    report.libzmq = libzmq_report();
    if (const auto host = start_host(options, &report.findings))
      check_configuration(options, *host, &report);
    check_environment(report.libzmq, geteuid() == 0, rotates(options.redefs), &report.findings);
  }

  Output out;
  out.Write(options.json ? report_as_json(report) : report_as_text(report));
  out.Finish();
  return all_well(report) ? 0 : 1;
}

}  // namespace zmqwriter
