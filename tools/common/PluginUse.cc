#include "PluginUse.h"

#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif
#include <limits.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <filesystem>

#include "OptionChecks.h"
#include "standin/Host.h"

#include "BroString.h"
#include "Val.h"
#include "Var.h"

namespace zmqwriter {

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

/// Whether a text has the form Module::name=value.
std::string check_redef(const std::string& text) {
  const auto colons = text.find("::");
  const auto equals = text.find('=');
  const bool good = colons != std::string::npos && colons > 0 && equals != std::string::npos &&
                    equals > colons + 2;
  return good ? "" : "'" + text + "' must have the form LogZMQ::NAME=VALUE";
}

}  // namespace

std::string default_plugin_folder() {
  const std::filesystem::path prefix =
      std::filesystem::path(executable_path()).parent_path().parent_path();
  const std::filesystem::path installed = prefix / "lib/zmqwriter/plugin";
  std::error_code error;
  return (std::filesystem::is_directory(installed, error) ? installed : prefix / "plugin").string();
}

void add_plugin_options(CLI::App* command, PluginOptions* options) {
  command
      ->add_option("--settings", options->settings_file,
                   "The host's settings file: lines 'key = value', e.g. zmq.server and "
                   "zmq.public_key")
      ->type_name("FILE");
  command
      ->add_option("--set", options->redefs,
                   "Set a script constant, e.g. LogZMQ::zmq_agent_id=agent-7; may be given "
                   "several times")
      ->type_name("LogZMQ::NAME=VALUE")
      ->allow_extra_args(false)
      ->check(option_check(check_redef));
  command
      ->add_option("--plugin", options->plugin_folder,
                   "Folder of the plug-in (default: the one built or installed with the program)")
      ->type_name("DIR");
}

ConstantValues script_constants() {
  ConstantValues values;
  for (const char* name : {"zmq_primary_server", "zmq_secondary_server", "zmq_public_key",
                           "zmq_agent_id", "set_separator", "empty_field", "unset_field"}) {
    const BroString* const text =
        internal_const_val(("LogZMQ::" + std::string(name)).c_str())->AsString();
    values[name].assign(reinterpret_cast<const char*>(text->Bytes()),
                        static_cast<std::size_t>(text->Len()));
  }
  return values;
}

StatusFunction plugin_status_function(const standin::Host& host) {
  const auto function =
      reinterpret_cast<StatusFunction>(host.PluginSymbol("dravenholt_zmqwriter_status"));
  if (!function)
    throw standin::HostError(
        "the plug-in does not export dravenholt_zmqwriter_status: it is not the one that belongs "
        "to this program");
  return function;
}

}  // namespace zmqwriter
