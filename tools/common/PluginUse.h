// What the subcommands that load the plug-in share: their options, its constants and its status.
#pragma once

#include <map>
#include <string>
#include <vector>

struct DravenholtZmqWriterStatus;

namespace CLI {
class App;
}
namespace standin {
class Host;
}

namespace zmqwriter {

/// Which plug-in, and how it is configured.
struct PluginOptions {
  std::string settings_file;
  std::vector<std::string> redefs;  ///< LogZMQ::NAME=VALUE
  std::string plugin_folder;        ///< empty: default_plugin_folder()
};

/// Adds --settings, --set and --plugin. `options` must live as long as the command.
void add_plugin_options(CLI::App* command, PluginOptions* options);

/// The plug-in that was built or installed with this program: in lib/zmqwriter/plugin of the prefix
/// if that is there, else in plugin next to the program's folder.
std::string default_plugin_folder();

/// The function of the loaded plug-in that fills in its status. Throws standin::HostError when
/// there is none.
using StatusFunction = void (*)(DravenholtZmqWriterStatus*);
StatusFunction plugin_status_function(const standin::Host& host);

/// Values of the script constants, by their names in the module LogZMQ.
using ConstantValues = std::map<std::string, std::string>;

/// As the loaded plug-in's scripts and the command line set them.
ConstantValues script_constants();

}  // namespace zmqwriter
