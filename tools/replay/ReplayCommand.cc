#include "Commands.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "OptionChecks.h"
#include "PluginUse.h"
#include "Replay.h"
#include "Text.h"

namespace zmqwriter {

namespace {

/// Why a log cannot be followed; "" if it can.
std::string follow_problem(const std::string& log) {
  if (log == "-")
    return "standard input cannot be followed: leave --follow out, it is read as it comes";
  std::error_code ignored;
  const auto status = std::filesystem::status(log, ignored);
  if (is_directory(status))
    return log + ": this is a folder, not a log";
  if (exists(status) && !is_regular_file(status))
    return log + ": is not a regular file: it cannot be followed";
  const std::string path = std::filesystem::absolute(log, ignored).string();
  for (std::size_t at = 0, size; at < path.size(); at += size) {
    size = utf8_length(reinterpret_cast<const unsigned char*>(&path[at]), path.size() - at);
    if (size == 0)
      return log + ": its name is not UTF-8, so --state cannot hold it: rename it";
  }
  char start[2] = {};
  std::ifstream(log, std::ios::binary).read(start, sizeof start);
  if (std::filesystem::path(log).extension() == ".gz" || (start[0] == '\x1f' && start[1] == '\x8b'))
    return log + ": a compressed log does not grow: replay it without --follow";
  return "";
}

void check_followed(const std::vector<std::string>& logs) {
  std::set<std::string> seen;
  for (const std::string& log : logs) {
    std::error_code ignored;
    std::string problem = follow_problem(log);
    if (!seen.insert(std::filesystem::weakly_canonical(log, ignored).string()).second)
      problem = log + ": given twice";
    if (!problem.empty())
      throw CLI::ValidationError("LOG", problem);
  }
}

}  // namespace

void add_replay_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("replay", "Feed the host's logs through the plug-in, as the host would");
  command->footer(
      "Each log has a writer of its own, and a second one for records without a uid. Logs\n"
      "of the paths conn, http, ftp, smtp, ldap, smb, tds, dce_rpc and tn5250 become events\n"
      "of their own kind, others key/value pairs; a log with a column ptype, extra_fields or\n"
      "cpu_usage is passed on unchanged. Reading pauses while 400 records are not yet sent.\n"
      "A spool that needs a repair or that another process uses is refused. Standard error\n"
      "reports what was read, sent, failed, left on disk and lost. Exit status 0 means that\n"
      "every line was read and every record was sent whole. A signal stops it; a second one\n"
      "ends it within a second. Standard output belongs to the plug-in.\n"
      "\n"
      "A LOG is ASCII with its header, or JSON: an object a line, the path from the field\n"
      "_path or the file's name up to its first dot, ts in seconds, milliseconds or as\n"
      "ISO 8601. Both may be compressed by gzip. - is standard input. A line that cannot be\n"
      "read is named, counted and skipped, and so is one of more than 16 MiB; as a first line\n"
      "it ends the log.\n"
      "\n"
      "--follow goes on at the end of the logs, and over rotation to the next file, until a\n"
      "signal. A LOG that is not there yet is waited for, and so is a server. After a signal\n"
      "the state is exact, unless no server took the last records. After SIGKILL or a crash\n"
      "the next start sends at most 2000 records again. None is lost, except that events in\n"
      "libzmq's own memory, of at most some 8 KiB, are lost where a server reads slowly.");
  const auto options = std::make_shared<ReplayOptions>();
  const auto no_pace = std::make_shared<bool>(false);
  add_plugin_options(command, options.get());
  command
      ->add_option("--rate", options->rate, "Read at most R records per second, all logs together")
      ->type_name("R")
      ->check(positive_number());
  command
      ->add_option(
          "--drain", options->drain_s,
          "Give up when nothing was sent for this time, at the end or in a pause (never with "
          "--follow); stopping the plug-in then, or after a signal, takes at most as long again")
      ->type_name("SECONDS")
      ->check(positive_number(true))
      ->capture_default_str();
  CLI::Option* const unpaced = command->add_flag(
      "--no-pace", *no_pace,
      "Read as fast as possible; records that do not fit into memory go to disk, where "
      "events of 64 KiB and more are cut");
  CLI::Option* const follow =
      command->add_flag("--follow", "Ship the logs as they grow and rotate (see below)")
          ->excludes(unpaced);
  follow->needs(
      command
          ->add_option("--state", options->state_file,
                       "Where --follow keeps how far each log was handed over; one file for each "
                       "replay that runs")
          ->type_name("FILE")
          ->check(not_empty())
          ->needs(follow));
  command->add_flag("--ignore-spool", options->ignore_spool,
                    "Start although the spool is damaged or another process uses it; events on "
                    "disk may be lost");
  CLI::Option* const describe = command->add_flag(
      "-N", "Print the host's description of the plug-in, and end; -NN for details");
  command->add_option("LOG", options->logs, "Logs to replay; required unless -N is given")
      ->type_name("");

  command->callback([=] {
    if (options->plugin_folder.empty())
      options->plugin_folder = default_plugin_folder();
    options->pace = !*no_pace;
    if (describe->count() > 0) {
      *exit_code = describe_plugin(*options, describe->count() > 1);
      return;
    }
    if (options->settings_file.empty())
      throw CLI::RequiredError("--settings");
    if (options->logs.empty())
      throw CLI::RequiredError("LOG");
    if (!options->state_file.empty())
      check_followed(options->logs);
    *exit_code = replay(*options);
  });
}

}  // namespace zmqwriter
