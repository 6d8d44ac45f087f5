#include "Commands.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "Check.h"
#include "OptionChecks.h"
#include "PluginUse.h"

namespace zmqwriter {

void add_check_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("check", "Look over a configuration before it is used");
  command->footer(
      "Shows every setting with where it comes from, the endpoints and the server key as\n"
      "the plug-in will use them, its spool folder, disk limits and agent identifier, and\n"
      "what is wrong with them. Nothing is created or changed, and no event is sent. What\n"
      "your site scripts redef is not seen: give it with --set. Run it as the user, and in\n"
      "the folder, that the host runs as and in.\n"
      "Exit status 0 means no errors and no warnings; notes do not count.");
  const auto options = std::make_shared<CheckOptions>();
  add_plugin_options(command, options.get());
  command->get_option("--settings")->required()->check(not_empty("it must name a file"));
  command->add_flag("--connect", options->connect,
                    "Connect to each endpoint, and say what happens; sends no event");
  command
      ->add_option("--timeout", options->timeout_s,
                   "Wait so long for each endpoint's name to be resolved, and as long for its "
                   "connection; finding out why it failed may take a second more")
      ->type_name("SECONDS")
      ->check(positive_number())
      ->capture_default_str();
  command->add_flag("--json", options->json, "Print one JSON object");

  command->callback([=] {
    if (options->plugin_folder.empty())
      options->plugin_folder = default_plugin_folder();
    *exit_code = check(*options);
  });
}

}  // namespace zmqwriter
