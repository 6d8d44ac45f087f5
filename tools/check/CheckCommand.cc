#include "Commands.h"

#include <unistd.h>
#include <zmq.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "CheckReport.h"
#include "NatsFlags.h"
#include "OptionChecks.h"
#include "Output.h"
#include "PluginUse.h"
#include "WriterStatus.h"
#include "standin/Host.h"

namespace zmqwriter {

namespace {

struct CheckOptions : PluginOptions {
  bool connect = false;
  double timeout_s = 3;
  bool json = false;
  NatsOptions engine;  // with servers: checks these and nothing else
};

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

/// Loads the plug-in into the stand-in host, as replay does, but creates no writer, so nothing is
/// sent and no file is created.
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

}  // namespace

void add_check_command(CLI::App& app, int* exit_code) {
  CLI::App* const command = app.add_subcommand("check", "Check a configuration before it is used");
  command->footer(
      "Shows each setting and where it is set, the endpoints, the server key, the spool\n"
      "folder, the disk limits and the agent identifier as the plug-in will use them, and\n"
      "what is wrong with them. Creates and changes nothing, and sends no event. Does not\n"
      "see what your site scripts redef: give it with --set. Run it as the user that the\n"
      "host runs as, and in the same folder.\n"
      "With --to it checks a JetStream engine instead: each server by itself, the stream and\n"
      "its limits, and the right to publish, with a message that the engine refuses to store.\n"
      "Exit status 0 means no errors and no warnings; notes do not count.");
  const auto options = std::make_shared<CheckOptions>();
  add_plugin_options(command, options.get());
  CLI::Option* const settings =
      command->get_option("--settings")->check(not_empty("it must name a file"));
  command->add_flag("--connect", options->connect,
                    "Connect to each endpoint and report the result; sends no event");
  command
      ->add_option("--timeout", options->timeout_s,
                   "Time limit for resolving each endpoint's name, and again for its connection; "
                   "finding out why a connection failed may take a second more")
      ->type_name("SECONDS")
      ->check(positive_number())
      ->capture_default_str();
  command->add_flag("--json", options->json, "Print one JSON object");

  CLI::Option* const to = add_nats_options(
      command, "--to", "Check the JetStream engine that collectors hand events on to",
      &options->engine);
  for (const char* other : {"--settings", "--set", "--plugin", "--connect", "--timeout"})
    to->excludes(command->get_option(other));

  command->callback([=] {
    if (to->empty() && settings->empty())
      throw CLI::RequiredError("--settings or --to");
    if (options->plugin_folder.empty())
      options->plugin_folder = default_plugin_folder();
    *exit_code = check(*options);
  });
}

}  // namespace zmqwriter
