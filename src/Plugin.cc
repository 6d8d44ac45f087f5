#include "ZMQ.h"

// The host's headers, and with them Plugin.h, come last: they define macros and open namespace std.
#include "Plugin.h"
#include "logging/Component.h"

namespace plugin {
namespace Dravenholt_ZMQWriter {

Plugin plugin;

Plugin::~Plugin() {}

::plugin::Configuration Plugin::Configure() {
  AddComponent(new ::logging::Component("ZMQ", ::logging::writer::ZMQ::Instantiate));

  ::plugin::Configuration config;
  config.name = "Dravenholt::ZMQWriter";
  config.description = "ZeroMQ log writer";
  return config;
}

}  // namespace Dravenholt_ZMQWriter
}  // namespace plugin
