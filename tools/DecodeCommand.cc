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
#include "OptionChecks.h"
#include "Output.h"
#include "RawEvents.h"

namespace zmqwriter {

namespace {

/// Prints every event of a stream; returns whether all of it could be read and decoded.
bool decode_stream(std::FILE* stream, const std::string& name, JsonBytes bytes, Output* out) {
  RawEventReader reader(stream);
  bool good = true;
  const auto report = [&](const std::string& problem) {
    out->Flush();  // keeps the order when both streams go to the same file
    std::fprintf(stderr, "%s: offset %llu: %s\n", name.c_str(),
                 static_cast<unsigned long long>(reader.offset()), problem.c_str());
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

}  // namespace

void add_decode_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("decode", "Print raw event messages as JSON, one object per line");
  command->footer(
      "A file holds messages as 'collect --format raw' writes them, each after its length\n"
      "as a 32-bit little-endian number, or one message and nothing else. A message that is\n"
      "not an event is reported with file and offset; the others are decoded. A length of\n"
      "more than 64 MiB ends the file.");
  const auto files = std::make_shared<std::vector<std::string>>();
  command
      ->add_option("FILE", *files, "Files of raw messages; standard input without any, and for -")
      ->type_name("");
  const auto bytes = std::make_shared<JsonBytes>(JsonBytes::kSurrogate);
  add_json_bytes_option(command, bytes.get());
  command->callback([=] { *exit_code = decode_files(*files, *bytes); });
}

}  // namespace zmqwriter
