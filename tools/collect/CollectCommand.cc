#include "Commands.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

#include "Collector.h"
#include "ListenAddress.h"
#include "OptionChecks.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

constexpr double kShortestInterval = 0.01;

constexpr const char* kFooter =
    "The bound endpoint is printed on standard error ('listening on ...'), totals at the end.\n"
    "Empty, malformed and multi-part messages are counted, they do not stop the collector.\n"
    "\n"
    "A slow output slows the agents down: per connection at most 64 messages wait here, the rest\n"
    "waits with the agents. A message of more than 4 MiB is refused: its sender is disconnected,\n"
    "which libzmq does not report. So at most 256 MiB wait for each connection, other than in\n"
    "messages of several parts: these count as one and may be of any length. No agent sends any.\n"
    "\n"
    "SIGINT and SIGTERM end it cleanly: what has arrived is still written, for which a stalled\n"
    "reader of the output is waited; the second one of the same kind ends it at once. What an\n"
    "agent sends while the collector ends may be lost with the connection.\n"
    "\n"
    "--output: the current file has the name given; finished files are FILE.000001 (the oldest),\n"
    "FILE.000002 and so on. A run never appends to a file of a former run, it moves it aside "
    "first.\n"
    "No event is split between files. Data is handed to the system at once but not forced to "
    "disk.\n"
    "\n"
    "--allow: one public key per line, 64 hexadecimal digits of either case; '#' starts a "
    "comment.\n"
    "SIGHUP reads the file again, for new connections. This is for clients that keep their keys,\n"
    "such as forwarding collectors. Agents of this plug-in make a fresh key pair for every\n"
    "connection, so --allow shuts all of them out.\n"
    "\n"
    "--metrics and --stats tell at most 100 agents apart, the rest counts as '(others)'.";

void warn_if_readable_by_others(const std::string& file) {
  struct stat status;
  if (stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 077) != 0)
    std::fprintf(stderr, "warning: others may read the secret key: chmod 600 %s\n", file.c_str());
}

int collect(const CollectOptions& options) {
  catch_stop_signals();
  if (!options.allow_file.empty())
    catch_reload_signal();
  warn_if_readable_by_others(options.secret_key_file);
  return Collector(options).Run();
}

/// Seconds between reports: fewer would do nothing but print.
CLI::Validator interval() {
  return option_check([](const std::string& text) -> std::string {
    double seconds = 0;
    if (CLI::detail::lexical_cast(text, seconds) && seconds >= kShortestInterval)
      return "";
    return "'" + text + "' must be 0.01 or more";
  });
}

void add_input_options(CLI::App* command, CollectOptions* options) {
  command
      ->add_option("--bind", options->endpoints,
                   "Endpoint to listen on, e.g. tcp://127.0.0.1:5555, or tcp://127.0.0.1:* for "
                   "a port that the system chooses. The host is an IPv4 address of this machine, "
                   "an interface's name or *. May be given several times")
      ->type_name("ENDPOINT")
      ->required()
      ->check(option_check(bind_endpoint_problem))
      ->take_all()
      ->allow_extra_args(false);
  command
      ->add_option("--secret-key", options->secret_key_file,
                   "File with the collector's secret key, made by 'zmqwriter keygen'")
      ->type_name("FILE")
      ->required();
  command
      ->add_option("--allow", options->allow_file,
                   "Let in only clients whose public keys this file lists; shuts out the agents "
                   "of this plug-in (see below)")
      ->type_name("FILE")
      ->check(not_empty());
}

void add_output_options(CLI::App* command, SinkOptions* options) {
  command
      ->add_option("--format", options->format,
                   "json: one object per line. text: for the eye. raw: each message as received, "
                   "after its length as 32-bit little-endian number")
      ->check(CLI::IsMember({"json", "text", "raw"}))
      ->type_name("")
      ->capture_default_str();
  CLI::Option* const output =
      command->add_option("--output", options->path, "Write to this file, not to standard output")
          ->type_name("FILE")
          ->check(not_empty());
  CLI::Option* const rotate_size =
      command
          ->add_option("--rotate-size", options->rotate_size,
                       "Begin a new file before one has more than so many bytes")
          ->type_name("BYTES")
          ->check(positive_count())
          ->needs(output);
  command
      ->add_option("--rotate-keep", options->rotate_keep,
                   "Remove the oldest finished files beyond so many; without this, all are kept")
      ->type_name("N")
      ->check(positive_count())
      ->needs(rotate_size);
}

void add_watching_options(CLI::App* command, CollectOptions* options) {
  command
      ->add_option("--stats", options->stats_s,
                   "Print rates on standard error every so many seconds (0.01 or more): events "
                   "and bytes, by "
                   "payload type and agent, and bad messages")
      ->type_name("SECONDS")
      ->check(positive_number())
      ->check(interval());
  command
      ->add_option("--metrics", options->metrics_address,
                   "Serve counts for Prometheus over HTTP, e.g. on 127.0.0.1:9100; port 0 lets the "
                   "system choose. The address is printed ('metrics on http://...')")
      ->type_name("HOST:PORT")
      ->check(option_check(metrics_address_problem));
  command->add_option("--count", options->count, "Stop after so many events")
      ->type_name("N")
      ->check(positive_count());
  command
      ->add_option("--timeout", options->timeout_s,
                   "Stop when nothing has come for so many seconds; a failure (exit status 1) "
                   "if --count was not reached")
      ->type_name("SECONDS")
      ->check(positive_number());
  command->add_flag("--quiet", options->quiet,
                    "Nothing on standard error but the addresses, warnings, failures, and what "
                    "--stats asks for");
}

}  // namespace

void add_collect_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("collect", "Receive events from agents, verify and print them");
  command->footer(kFooter);
  const auto options = std::make_shared<CollectOptions>();
  add_input_options(command, options.get());
  add_output_options(command, &options->sink);
  add_watching_options(command, options.get());
  command->callback([options, exit_code] { *exit_code = collect(*options); });
}

}  // namespace zmqwriter
