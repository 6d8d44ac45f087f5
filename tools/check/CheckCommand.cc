#include "Commands.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "Check.h"
#include "NatsFlags.h"
#include "OptionChecks.h"
#include "PluginUse.h"

namespace zmqwriter {

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
