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
      "Each log has a writer of its own, and a second one for records without a uid. Logs\n"
      "of the paths conn, http, ftp, smtp, ldap, smb, tds, dce_rpc and tn5250 become events\n"
      "of their own kind, others key/value pairs; a log with a column ptype, extra_fields or\n"
      "cpu_usage is passed on unchanged. Reading pauses while 400 records are not yet sent.\n"
      "A spool that needs a repair or that another process uses is refused. Standard error\n"
      "reports what was read, sent, failed, left on disk and lost. Exit status 0 means that\n"
      "every line was read and every record was sent whole. A signal stops it; a second one\n"
      "ends it within a second. Standard output belongs to the plug-in.");
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
          "Give up when nothing was sent for this time, at the end or in a pause; stopping "
          "the plug-in then, or after a signal, takes at most as long again")
      ->type_name("SECONDS")
      ->check(positive_number(true))
      ->capture_default_str();
  command->add_flag(
      "--no-pace", *no_pace,
      "Read as fast as possible; records that do not fit into memory go to disk, where "
      "events of 64 KiB and more are cut");
  command->add_flag("--ignore-spool", options->ignore_spool,
                    "Start although the spool is damaged or another process uses it; events on "
                    "disk may be lost");
  CLI::Option* const describe = command->add_flag(
      "-N", "Print the host's description of the plug-in, and end; -NN for details");
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
