#include <dlfcn.h>
#include <glob.h>
#include <sys/utsname.h>

#include <algorithm>
#include <string>
#include <vector>

#include "HostReporter.h"
#include "plugin/Manager.h"
#include "standin/Host.h"
#include "util.h"

plugin::Manager* plugin_mgr = nullptr;

namespace plugin {

namespace {

typedef std::list<Manager::bif_init_func> BifInits;

// What one shared object (or the program itself) has registered. Shared objects are never
// unloaded and their static constructors run once, so a second Host finds their plug-in here.
struct Registration {
  Plugin* plugin = nullptr;                   // the last one that registered
  std::map<std::string, BifInits> bif_inits;  // by lower-cased plug-in name
};

struct Registry {
  Registration program;
  std::list<Plugin*> static_plugins;
  std::map<void*, Registration> objects;  // by handle of dlopen
  Registration* current = &program;       // who is registering
};

// Never destroyed: plug-ins are destroyed when the process ends, in an order of their own.
Registry& registry() {
  static Registry* instance = new Registry;
  return *instance;
}

// Registrations go to `target` while it exists.
class RegisteringInto {
 public:
  explicit RegisteringInto(Registration* target) { registry().current = target; }
  ~RegisteringInto() { registry().current = &registry().program; }
};

std::string host_architecture() {
  struct utsname names;
  if (uname(&names) != 0)
    return HOST_ARCHITECTURE;
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

}  // namespace

void Manager::RegisterPlugin(Plugin* plugin) {
  Registry& r = registry();
  r.current->plugin = plugin;
  if (r.current == &r.program)
    r.static_plugins.push_back(plugin);
}

void Manager::RegisterBifFile(const char* plugin, bif_init_func c) {
  registry().current->bif_inits[strtolower(plugin)].push_back(c);
}

Manager::Manager() {}

Manager::~Manager() {
  FinishPlugins();
}

void Manager::InitPreScript() {
  for (Plugin* plugin : registry().static_plugins) {
    active.push_back({plugin, &registry().program, false, false});
    plugin->DoConfigure();
    plugin->InitPreScript();
  }
  SortByName();
}

std::list<void*> Manager::LoadObjects(const std::string& folder, const std::string& name) {
  std::list<void*> handles;
  for (const std::string& path : find_objects(folder))
    handles.push_back(Load(folder, path, name));
  return handles;
}

void* Manager::Load(const std::string& folder, const std::string& path, const std::string& name) {
  Registration fresh;
  void* handle = nullptr;
  {
    RegisteringInto here(&fresh);
    handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL);
  }
  if (!handle) {
    const char* why = dlerror();
    fail("cannot load plugin library " + path + ": " + (why ? why : "unknown error"));
  }
  Registration& known = registry().objects[handle];
  if (fresh.plugin || !fresh.bif_inits.empty())
    known = fresh;
  if (!known.plugin)
    fail("load plugin library " + path + " did not instantiate a plugin");
  known.plugin->SetPluginLocation(folder + "/", path);
  Activate(known.plugin, &known, name);
  return handle;
}

void Manager::Activate(Plugin* plugin, const void* registration, const std::string& name) {
  active.push_back({plugin, registration, false, false});
  plugin->bif_items.clear();
  plugin->SetDynamic(true);
  plugin->DoConfigure();
  if (plugin->APIVersion() != BRO_PLUGIN_API_VERSION)
    fail("plugin's API version does not match Bro (expected " +
         std::to_string(BRO_PLUGIN_API_VERSION) + ", got " + std::to_string(plugin->APIVersion()) +
         " in " + plugin->PluginPath() + ")");
  plugin->InitPreScript();
  if (strtolower(plugin->Name()) != strtolower(name))
    fail("inconsistent plugin name: " + plugin->Name() + " vs " + name);
  SortByName();
}

void Manager::SortByName() {
  active.sort([](const Active& a, const Active& b) {
    return strtolower(a.plugin->Name()) < strtolower(b.plugin->Name());
  });
}

void Manager::InitBifs() {
  for (Active& a : active) {
    if (a.bifs_initialised)
      continue;
    a.bifs_initialised = true;
    const Registration* registered = static_cast<const Registration*>(a.registration);
    auto found = registered->bif_inits.find(strtolower(a.plugin->Name()));
    if (found == registered->bif_inits.end())
      continue;
    for (const bif_init_func init : found->second)
      init(a.plugin);
  }
}

void Manager::InitPostScript() {
  for (Active& a : active) {
    if (a.scripts_done)
      continue;
    a.scripts_done = true;
    a.plugin->InitPostScript();
  }
}

void Manager::FinishPlugins() {
  for (const Active& a : active)
    a.plugin->Done();
  active.clear();
  hooks.clear();
}

Manager::plugin_list Manager::ActivePlugins() const {
  plugin_list plugins;
  for (const Active& a : active)
    plugins.push_back(a.plugin);
  return plugins;
}

std::list<std::string> Manager::TakeRequestedScripts() {
  std::list<std::string> scripts;
  scripts.swap(requested_scripts);
  return scripts;
}

void Manager::RequestScript(const std::string& file) {
  requested_scripts.push_back(file);
}

void Manager::EnableHook(HookType hook, Plugin* plugin, int priority) {
  Plugin::hook_list& enabled = hooks[plugin];
  for (const auto& known : enabled) {
    if (known.first == hook)
      return;  // the first priority stays
  }
  enabled.push_back({hook, priority});
}

void Manager::DisableHook(HookType hook, Plugin* plugin) {
  hooks[plugin].remove_if([hook](const std::pair<HookType, int>& h) { return h.first == hook; });
}

Plugin::hook_list Manager::EnabledHooks(const Plugin* plugin) const {
  auto found = hooks.find(plugin);
  return found == hooks.end() ? Plugin::hook_list() : found->second;
}

}  // namespace plugin
