#include "ReplayCommand.h"

#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif
#include <limits.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <string>

#include "OptionChecks.h"
#include "Replay.h"

namespace {

std::string executable_path() {
#ifdef __APPLE__
  char path[PATH_MAX];
  uint32_t size = sizeof path;
  return _NSGetExecutablePath(path, &size) == 0 ? std::filesystem::canonical(path) : "";
#else
  return std::filesystem::read_symlink("/proc/self/exe");
#endif
}

/// The build leaves the plug-in's folder beside the folder of the program.
std::string default_plugin_folder() {
  const std::filesystem::path program = executable_path();
  return (program.parent_path().parent_path() / "plugin").string();
}

/// Whether a text has the form Module::name=value.
std::string check_redef(const std::string& text) {
  const auto colons = text.find("::");
  const auto equals = text.find('=');
  const bool good = colons != std::string::npos && colons > 0 && equals != std::string::npos &&
                    equals > colons + 2;
  return good ? "" : "'" + text + "' must have the form LogZMQ::NAME=VALUE";
}

}  // namespace

void add_replay_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("replay", "Feed Bro's ASCII logs through the plug-in, as the host would");
  command->footer(
      "Each log gets a writer of its own. Logs of the paths conn, http, ftp, smtp, ldap, smb, "
      "tds,\n"
      "dce_rpc and tn5250 become events of their own kind, others key/value pairs; a log with a\n"
      "column ptype, extra_fields or cpu_usage is passed on as it is.\n"
      "Reading pauses while 400 records are on their way. Exit status 0 means that every line was\n"
      "read and every record handed over whole; standard error tells what was read, sent, failed "
      "and\n"
      "left on disk. Standard output belongs to the plug-in.");
  const auto options = std::make_shared<ReplayOptions>();
  const auto no_pace = std::make_shared<bool>(false);
  command
      ->add_option("--settings", options->settings_file,
                   "The host's settings file: lines 'key = value', e.g. zmq.server and "
                   "zmq.public_key")
      ->type_name("FILE");
  command
      ->add_option("--set", options->redefs,
                   "Sets a script constant, e.g. LogZMQ::zmq_agent_id=agent-7; may be given "
                   "several times")
      ->type_name("LogZMQ::NAME=VALUE")
      ->allow_extra_args(false)
      ->check(CLI::Validator(check_redef, ""));
  command->add_option("--rate", options->rate, "Records per second, all logs together")
      ->type_name("R")
      ->check(positive_number());
  command
      ->add_option("--drain", options->drain_s,
                   "Give up when nothing was sent for so many seconds, at the end or in a pause")
      ->type_name("SECONDS")
      ->check(positive_number(true))
      ->capture_default_str();
  command->add_flag("--no-pace", *no_pace,
                    "Read on as fast as possible; what finds no room in memory goes to disk, where "
                    "events of 64 KiB and more are cut");
  command
      ->add_option("--plugin", options->plugin_folder,
                   "Folder of the plug-in (default: plugin beside the program's folder)")
      ->type_name("DIR");
  CLI::Option* const describe = command->add_flag(
      "-N", "Print what the host knows about the plug-in, and end; -NN for more of it");
  command->add_option("LOG", options->logs, "Logs to replay")->type_name("");

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
    *exit_code = replay(*options);
  });
}
