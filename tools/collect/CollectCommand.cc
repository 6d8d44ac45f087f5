#include "Commands.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "Collector.h"
#include "Files.h"
#include "NatsFlags.h"
#include "OptionChecks.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

constexpr double kShortestInterval = 0.01;
constexpr double kLongestDrain = 1e9;  // what a clock can hold

constexpr const char* kFooter =
    R"(The bound endpoint is printed on standard error ('listening on ...'), totals at the end.
Empty, malformed and multi-part messages are counted; the collector goes on.

While the output accepts nothing (a full disk, a slow reader), receiving pauses: the collector
keeps what it has, leaves the connections open and tries again every second. An agent then
sends until the buffers on the way are full, and uses another server or its disk. With
--exit-on-full the collector ends instead (exit status 1) while 64 MiB and 8 MiB for each
connection are still free, after it has written all that has left the agents.

For each connection at most 64 messages wait in the collector. A message of more than 4 MiB is
refused: libzmq ends the connection without a report. So at most 256 MiB wait for each
connection. Messages of several parts count as one; agents send none. At --max-memory the
connections that have received most without the end of a message are ended, until half of
it is free. While that is not enough, new connections are refused. An agent takes 15 KiB,
100 KiB while events of 300 bytes wait, so the default is enough for 10,000.

SIGINT and SIGTERM end the collector cleanly: it writes all that has left the agents. When the
output accepts nothing for 30 s, it gives up and counts what is lost. Without --to, a second
signal of the same kind ends it at once. Of an agent that sends without a pause, one event
may be lost, and up to 8 KiB of events where the collector is slower than the agent.

--to: each event is published as one message, with the subject PREFIX.<data_type>.<agent>. It
is held until the engine has acknowledged it; when as many wait as --window says, the collector
receives nothing more, for as long as it takes, and tries again. So it does when the engine is
away at the start; what waiting does not mend ends it there: a server that refuses it, or a
missing stream. At the end it waits --drain seconds for acknowledgements, or until a second
signal; what is left then goes to the file of --unsent, which the next start publishes first.
No secret belongs on the command line: see --nats-user and others.

--output: the current file has the name given; finished files are FILE.000001 (the oldest),
FILE.000002 and so on. A run never appends to the file of a former run, it moves it aside.
No event is split between files. Data is written at once, but not forced to disk. When the
file was moved or removed, the collector opens a new one and reports that; SIGHUP is not
necessary.

--allow: one public key per line, 64 hexadecimal digits of either case; '#' starts a comment.
SIGHUP reads the file again, for new connections. The option is for clients that keep their
keys, such as forwarding collectors. Agents of this plug-in cannot connect, because they
make a new key pair for each connection.

--metrics serves a page for a person at http://HOST:PORT/, the same as JSON at /status.json,
counts for Prometheus at /metrics, and /healthz, whose status is 503 while the output accepts
nothing. Anyone who reaches the port can read them.

--metrics and --stats tell --most-agents agents apart. Where another one comes, the one that
was not seen for longest makes room; its counts go to '(others)'.)";

void warn_if_readable_by_others(const std::string& file) {
  struct stat status;
  if (stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 077) != 0)
    std::fprintf(stderr, "warning: others may read this secret: chmod 600 %s\n", file.c_str());
}

bool same_path(const std::string& one, const std::string& other) {
  const auto path = [](const std::string& name) {
    std::error_code ignored;
    return std::filesystem::weakly_canonical(std::filesystem::absolute(name, ignored), ignored);
  };
  return path(one) == path(other);
}

int collect(const CollectOptions& options) {
  options.stream ? count_stop_signals() : catch_stop_signals();
  if (!options.output.path.empty() || !options.allow_file.empty())
    catch_reload_signal();
  else if (!options.stream)
    catch_hangup_as_stop();
  raise_open_files();  // each connection takes one
  warn_if_readable_by_others(options.secret_key_file);
  if (options.stream) {
    const NatsOptions& engine = options.stream->engine;
    for (const std::string& file : {engine.user, engine.token, engine.credentials, engine.key})
      warn_if_readable_by_others(file);
  }
  return Collector(options).Run();
}

/// Seconds between reports. With shorter times the collector would only print.
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
                   "Accept only clients whose public keys are in this file; agents of this plug-in "
                   "cannot connect then (see below)")
      ->type_name("FILE")
      ->check(not_empty());
}

/// N or N,BYTES. Throws std::invalid_argument.
void set_window(const std::string& text, JetStreamOptions* options) {
  const std::size_t comma = text.find(',');
  const auto events = number_in<std::uint64_t>(text.substr(0, comma));
  std::string bytes = comma == std::string::npos ? "16M" : text.substr(comma + 1);
  if (!events || *events == 0 || !byte_size()(bytes).empty())
    throw std::invalid_argument("'" + text + "' must be like 4096 or 4096,16M");
  options->window_events = *events;
  options->window_bytes = *number_in<std::uint64_t>(bytes);
}

CLI::Option* add_stream_options(CLI::App* command, JetStreamOptions* options) {
  CLI::Option* const to = add_nats_options(
      command, "--to",
      "Publish to a JetStream engine: the servers of a cluster, any of which will do",
      &options->engine);
  add_parsed_option(
      command, "--window", [options](const std::string& text) { set_window(text, options); },
      "Events and bytes that may wait for acknowledgement (default: 4096,16M)")
      ->type_name("N[,BYTES]")
      ->needs(to);
  command
      ->add_option("--drain", options->drain_s, "How long to wait for acknowledgements at the end")
      ->type_name("SECONDS")
      ->needs(to)
      ->check(positive_number(true))
      ->capture_default_str();
  command
      ->add_option(
          "--unsent", options->unsent_file,
          "Keep here what is not acknowledged at the end; the next start publishes it first")
      ->type_name("FILE")
      ->needs(to)
      ->check(not_empty());
  add_parsed_option(
      command, "--create-stream",
      [options](const std::string& text) { options->create = stream_limits(text); },
      "Make the stream if there is none, e.g. replicas=3,max-age=7d,max-bytes=100G; an existing "
      "one is not changed")
      ->type_name("LIMITS")
      ->needs(to)
      ->expected(0, 1);
  return to;
}

CLI::Option* add_output_options(CLI::App* command, FileSinkOptions* options) {
  command
      ->add_option("--format", options->format,
                   "json: one object per line. text: one line to read. raw: each message as "
                   "received, after its length, a 32-bit little-endian number")
      ->check(CLI::IsMember({"json", "text", "raw"}))
      ->type_name("")
      ->capture_default_str();
  add_json_bytes_option(command, &options->json_bytes);
  CLI::Option* const output =
      command
          ->add_option("--output", options->path,
                       "Write to this file instead of standard output, which - names too")
          ->type_name("FILE")
          ->check(not_empty());
  CLI::Option* const rotate_size =
      command
          ->add_option("--rotate-size", options->rotate_size,
                       "Begin a new file before the current one gets longer than this, e.g. 10M")
          ->type_name("BYTES")
          ->transform(byte_size())
          ->needs(output);
  command
      ->add_option("--rotate-keep", options->rotate_keep,
                   "Keep only the newest N finished files (default: all)")
      ->type_name("N")
      ->check(positive_count())
      ->needs(rotate_size);
  command
      ->add_flag("--exit-on-full", options->exit_on_full,
                 "End while there is still room for what agents have sent, or when writing fails")
      ->needs(output);
  return output;
}

void add_watching_options(CLI::App* command, CollectOptions* options) {
  command
      ->add_option("--stats", options->stats_s,
                   "Print rates on standard error at this interval (0.01 or more): events and "
                   "bytes, by payload type and agent, and bad messages. On a terminal on which no "
                   "events are printed, as a table of the agents that is drawn in place")
      ->type_name("SECONDS")
      ->check(positive_number())
      ->check(interval());
  command
      ->add_option("--metrics", options->metrics_address,
                   "Show the collector over HTTP, e.g. on 127.0.0.1:9155: a page, and counts for "
                   "Prometheus (see below). With port 0 the system chooses one; the addresses are "
                   "printed")
      ->type_name("HOST:PORT")
      ->check(option_check(metrics_address_problem));
  command->add_option("--most-agents", options->most_agents, "Tell at most N agents apart by name")
      ->type_name("N")
      ->check(positive_count())
      ->capture_default_str();
  command
      ->add_option("--max-memory", options->max_memory,
                   "End the connections that hold most when the collector uses this much memory "
                   "(default: 1G; see below)")
      ->type_name("BYTES")
      ->transform(byte_size());
  command->add_option("--count", options->count, "Stop after N events")
      ->type_name("N")
      ->check(positive_count());
  command
      ->add_option("--timeout", options->timeout_s,
                   "Stop when no message has come for this time; a failure (exit status 1) if "
                   "--count was not reached")
      ->type_name("SECONDS")
      ->check(positive_number());
  command->add_flag("--quiet", options->quiet,
                    "Print only addresses, warnings, failures and the rates of --stats on standard "
                    "error");
}

}  // namespace

void add_collect_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("collect", "Receive events from agents, verify and print them");
  command->footer(kFooter);
  const auto options = std::make_shared<CollectOptions>();
  add_input_options(command, options.get());
  const CLI::Option* const output = add_output_options(command, &options->output);
  const auto stream = std::make_shared<JetStreamOptions>();
  const CLI::Option* const to = add_stream_options(command, stream.get());
  add_watching_options(command, options.get());
  const CLI::Option* const format = command->get_option("--format");
  command->callback([=] {
    if (options->output.path == "-") {
      if (options->output.rotate_size > 0 || options->output.exit_on_full)
        throw CLI::ValidationError(
            "--output", "standard output takes neither --rotate-size nor --exit-on-full");
      options->output.path.clear();
    }
    if (!to->empty()) {
      options->writes = !output->empty();
      stream->json = !format->empty() && options->output.format == "json";
      stream->json_bytes = options->output.json_bytes;
      stream->drain_s = std::min(stream->drain_s, kLongestDrain);
      if (!stream->unsent_file.empty() && same_path(options->output.path, stream->unsent_file))
        throw CLI::ValidationError("--unsent", "the events of --output go to this file");
      if (stream->window_bytes >= options->max_memory)
        throw CLI::ValidationError("--window", "takes more memory than --max-memory lets be used");
      if (options->output.format == "text" && !options->writes)
        throw CLI::ValidationError("--format", "events are published as raw or json");
      options->stream = *stream;
    }
    *exit_code = collect(*options);
  });
}

}  // namespace zmqwriter
