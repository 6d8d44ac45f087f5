// The plug-in object: what the host finds when it loads the shared object.
//
// Exactly one instance exists, plugin::Dravenholt_ZMQWriter::plugin. Its constructor registers it
// with the host while the shared object is loaded; the host then calls Configure once and owns the
// component from there on. Everything runs on the host's main thread. The plug-in hooks nothing.
//
// The name here, the name in the magic file and the -p argument of bifcl must agree, or the host
// never binds the script interface.
#pragma once

#include "plugin/Plugin.h"

namespace plugin {
namespace Dravenholt_ZMQWriter {

class Plugin : public ::plugin::Plugin {
 public:
  ~Plugin() override;

 protected:
  /// Registers the writer component "ZMQ" and returns name, description and API version; the
  /// version of the plug-in is left unset, which is required.
  ::plugin::Configuration Configure() override;
};

extern Plugin plugin;

}  // namespace Dravenholt_ZMQWriter
}  // namespace plugin
