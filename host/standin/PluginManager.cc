#include <dlfcn.h>
#include <glob.h>
#include <sys/utsname.h>

#include <string>
#include <vector>

#include "PluginFolder.h"
#include "PluginRegistry.h"
#include "plugin/Manager.h"
#include "standin/Host.h"
#include "util.h"

plugin::Manager* plugin_mgr = nullptr;

namespace plugin {

namespace {

std::string host_architecture() {
  struct utsname names;
  uname(&names);
  return strtolower(names.sysname) + "-" + names.machine;
}

std::vector<std::string> find_objects(const std::string& folder) {
  std::vector<std::string> paths;
  const std::string pattern = folder + "/lib/*." + host_architecture() + DYNAMIC_PLUGIN_SUFFIX;
  glob_t found;
  if (glob(pattern.c_str(), 0, nullptr, &found) == 0)
    paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  globfree(&found);
  return paths;
}

[[noreturn]] void fail(const std::string& text) {
  throw standin::HostError(text);
}

// What a shared object has registered. Objects are never unloaded and their static constructors run
// once, so a second Host finds here what the first one has loaded. Never destroyed.
host::Registration& registered_by(void* handle) {
  static auto* objects = new std::map<void*, host::Registration>;
  return (*objects)[handle];
}

}  // namespace

Manager::~Manager() {
  FinishPlugins();
}

void Manager::SearchDynamicPlugins(const std::string& dir) {
  folders[strtolower(standin::plugin_name(dir))] = dir;
}

bool Manager::ActivateDynamicPlugin(const std::string& name) {
  const auto folder = folders.find(strtolower(name));
  if (folder == folders.end())
    return false;
  for (const std::string& path : find_objects(folder->second))
    Load(path, name);
  return true;
}

void Manager::Load(const std::string& path, const std::string& name) {
  host::registration() = host::Registration();
  void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL);
  if (!handle) {
    const char* why = dlerror();
    fail("cannot load plugin library " + path + ": " + (why ? why : "unknown error"));
  }
  host::Registration& known = registered_by(handle);
  if (host::registration().plugin)
    known = host::registration();
  Plugin* plugin = known.plugin;
  if (!plugin)
    fail("load plugin library " + path + " did not instantiate a plugin");
  active.push_back({plugin, known.bif_inits[strtolower(name)], false});
  plugin->sopath = path;
  plugin->bif_items.clear();
  plugin->DoConfigure();
  if (plugin->APIVersion() != BRO_PLUGIN_API_VERSION)
    fail("plugin's API version does not match Bro (expected " +
         std::to_string(BRO_PLUGIN_API_VERSION) + ", got " + std::to_string(plugin->APIVersion()) +
         " in " + path + ")");
  plugin->InitPreScript();
  if (strtolower(plugin->Name()) != strtolower(name))
    fail("inconsistent plugin name: " + plugin->Name() + " vs " + name);
}

void Manager::InitBifs() {
  for (Active& a : active) {
    for (const bif_init_func init : a.bif_inits)
      init(a.plugin);
    a.bif_inits.clear();
  }
}

void Manager::InitPostScript() {
  for (Active& a : active) {
    if (!a.scripts_done)
      a.plugin->InitPostScript();
    a.scripts_done = true;
  }
}

void Manager::FinishPlugins() {
  for (const Active& a : active)
    a.plugin->Done();
  active.clear();
}

Manager::plugin_list Manager::ActivePlugins() const {
  plugin_list plugins;
  for (const Active& a : active)
    plugins.push_back(a.plugin);
  return plugins;
}

}  // namespace plugin
