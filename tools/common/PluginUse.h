// What the subcommands that load the plug-in share: their options and the plug-in's status.
#pragma once

#include <string>

#include "SettingOrigin.h"

struct DravenholtZmqWriterStatus;

namespace CLI {
class App;
}
namespace standin {
class Host;
}

namespace zmqwriter {

/// Adds --settings, --set and --plugin. `options` must live as long as the command.
void add_plugin_options(CLI::App* command, PluginOptions* options);

/// The plug-in that was built or installed with this program: in lib/zmqwriter/plugin of the prefix
/// if that is there, else in plugin next to the program's folder.
std::string default_plugin_folder();

/// The function of the loaded plug-in that fills in its status. Throws standin::HostError when
/// there is none.
using StatusFunction = void (*)(DravenholtZmqWriterStatus*);
StatusFunction plugin_status_function(const standin::Host& host);

}  // namespace zmqwriter
