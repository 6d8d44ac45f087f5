#include "Commands.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "OptionChecks.h"
#include "PluginUse.h"
#include "Replay.h"

namespace zmqwriter {

void add_replay_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("replay", "Feed Bro's ASCII logs through the plug-in, as the host would");
  command->footer(
      "Each log gets a writer of its own, and a second one for records that lack their\n"
      "uid. Logs of the paths conn, http, ftp, smtp, ldap, smb, tds, dce_rpc and tn5250\n"
      "become events of their own kind, others key/value pairs; a log with a column\n"
      "ptype, extra_fields or cpu_usage is passed on as it is.\n"
      "Reading pauses while 400 records are on their way. Exit status 0 means that every\n"
      "line was read and every record handed over whole; standard error tells what was\n"
      "read, sent, failed and left on disk. Standard output belongs to the plug-in.");
  const auto options = std::make_shared<ReplayOptions>();
  const auto no_pace = std::make_shared<bool>(false);
  add_plugin_options(command, options.get());
  command
      ->add_option("--rate", options->rate, "At most so many records per second, all logs together")
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
  CLI::Option* const describe = command->add_flag(
      "-N", "Print what the host knows about the plug-in, and end; -NN for more of it");
  command
      ->add_option("LOG", options->logs, "Bro's ASCII logs to replay; required unless -N is given")
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
    *exit_code = replay(*options);
  });
}

}  // namespace zmqwriter
