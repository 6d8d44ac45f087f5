#include "Commands.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "EventJson.h"
#include "JetStreamOptions.h"
#include "NatsFlags.h"
#include "OptionChecks.h"
#include "Output.h"
#include "RawEvents.h"
#include "StreamReader.h"

namespace zmqwriter {

namespace {

/// Prints every event of a stream; returns whether all of it could be read and decoded.
bool decode_stream(std::FILE* stream, const std::string& name, JsonBytes bytes, Output* out) {
  RawEventReader reader(stream);
  bool good = true;
  const auto report = [&](const std::string& problem) {
    out->Note(name + ": offset " + std::to_string(reader.offset()) + ": " + problem);
    good = false;
  };
  std::string message;
  while (!out->failed() && reader.Next(&message)) {
    std::string problem;
    const std::string json = event_to_json(message.data(), message.size(), &problem, bytes);
    if (problem.empty())
      out->WriteLine(json);
    else
      report(problem);
  }
  if (!reader.problem().empty())
    report(reader.problem());
  return good;
}

bool decode_file(const std::string& file, JsonBytes bytes, Output* out) {
  if (file == "-")
    return decode_stream(stdin, "standard input", bytes, out);
  std::FILE* const stream = std::fopen(file.c_str(), "rb");
  if (!stream) {
    std::fprintf(stderr, "%s: cannot be opened: %s\n", file.c_str(), std::strerror(errno));
    return false;
  }
  const bool good = decode_stream(stream, file, bytes, out);
  std::fclose(stream);
  return good;
}

int decode_files(std::vector<std::string> files, JsonBytes bytes) {
  if (files.empty())
    files.push_back("-");
  Output out;
  bool good = true;
  for (const std::string& file : files)
    good = decode_file(file, bytes, &out) && good;
  out.Finish();
  return good ? 0 : 1;
}

CLI::Option* add_read_options(CLI::App* command, ReadOptions* options) {
  CLI::Option* const from = add_nats_options(
      command, "--from",
      "Read the stream of a JetStream engine: the servers of a cluster, any of which will do",
      &options->engine);
  command
      ->add_option("--subject", options->subject,
                   "Only events of these subjects, e.g. 'zmqwriter.HttpData.>' (default: PREFIX.>)")
      ->type_name("FILTER")
      ->needs(from)
      ->check(not_empty("the subject is empty"));
  command
      ->add_option("--durable", options->durable,
                   "Name of a consumer that the engine remembers: the next run goes on where this "
                   "one ends, and several at a time share the events")
      ->type_name("NAME")
      ->needs(from)
      ->check(option_check([](const std::string& name) -> std::string {
        const bool good = !name.empty() && name.find_first_of(".*>/\\ \t\r\n") == std::string::npos;
        return good ? "" : "'" + name + "' must be a word without . * > / \\ and spaces";
      }));
  add_parsed_option(
      command, "--since",
      [options](const std::string& text) { options->since_ns = start_time(text); },
      "Only events that the engine has got since then: a time like 2026-11-22T07:35:58Z "
      "(without Z or +HH:MM in this machine's zone), or how long ago, like 2h or 7d")
      ->type_name("TIME")
      ->needs(from);
  command->add_flag("--follow", options->follow, "Go on with new events")->needs(from);
  command
      ->add_option("--format", options->format,
                   "json: one object per line. text: one line to read. raw: each message after its "
                   "length, a 32-bit little-endian number")
      ->check(CLI::IsMember({"json", "text", "raw"}))
      ->type_name("")
      ->needs(from)
      ->capture_default_str();
  return from;
}

}  // namespace

void add_decode_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("decode", "Print raw event messages as JSON, one object per line");
  command->footer(
      "A file holds messages as 'collect --format raw' writes them, each after its length\n"
      "as a 32-bit little-endian number, or one message and nothing else. A message that is\n"
      "not an event is reported with file and offset; the others are decoded. A length of\n"
      "more than 64 MiB ends the file.\n"
      "\n"
      "--from reads what was in the stream at the start. Events that were published as JSON\n"
      "are printed as they are. With --durable an event is acknowledged when it is written:\n"
      "none is lost when a process is killed. What it had in hand, up to 256 events, is\n"
      "delivered again after 30 s, perhaps a second time; so is what waits longer for standard\n"
      "output. The end is when all processes that share the name have acknowledged all. A\n"
      "message that is no event is reported with its number in the stream and acknowledged.\n"
      "While the engine is away, decode waits. SIGINT and SIGTERM end it cleanly, a second\n"
      "one of the same kind at once.");
  const auto files = std::make_shared<std::vector<std::string>>();
  CLI::Option* const names =
      command
          ->add_option("FILE", *files,
                       "Files of raw messages; standard input without any, and for -")
          ->type_name("");
  const auto stream = std::make_shared<ReadOptions>();
  CLI::Option* const from = add_read_options(command, stream.get())->excludes(names);
  add_json_bytes_option(command, &stream->json_bytes);
  command->callback([=] {
    *exit_code = from->empty() ? decode_files(*files, stream->json_bytes) : read_stream(*stream);
  });
}

}  // namespace zmqwriter
