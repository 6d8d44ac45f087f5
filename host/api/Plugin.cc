#include "plugin/Plugin.h"

#include "PluginRegistry.h"
#include "util.h"

host::Registration& host::registration() {
  // Never destroyed: plug-ins are destroyed when the process ends, in an order of their own.
  static Registration* instance = new Registration;
  return *instance;
}

namespace plugin {

void Manager::RegisterPlugin(Plugin* plugin) {
  host::registration().plugin = plugin;
}

void Manager::RegisterBifFile(const char* plugin, bif_init_func c) {
  host::registration().bif_inits[strtolower(plugin)].push_back(c);
}

Plugin::Plugin() {
  Manager::RegisterPlugin(this);
}

// Only this class's Done: the derived part is gone.
Plugin::~Plugin() {
  Plugin::Done();
}

void Plugin::AddBifItem(const std::string& name, BifItem::Type type) {
  bif_items.push_back(BifItem(name, type));
}

void Plugin::AddComponent(Component* c) {
  components.push_back(c);
}

void Plugin::InitPreScript() {}

void Plugin::InitPostScript() {}

void Plugin::Done() {
  for (Component* c : components)
    delete c;
  components.clear();
}

}  // namespace plugin
