// The host's table of plug-ins. All of it belongs to the main thread.
#pragma once

#include <list>
#include <map>
#include <string>

#include "plugin/Component.h"
#include "plugin/Plugin.h"

namespace plugin {

class Manager {
 public:
  typedef void (*bif_init_func)(Plugin*);
  typedef std::list<Plugin*> plugin_list;

  Manager();
  ~Manager();

  // Called while a shared object is loaded (or before main), so they need no Manager.
  static void RegisterPlugin(Plugin* plugin);
  static void RegisterBifFile(const char* plugin, bif_init_func c);

  /// Configures the plug-ins that are linked into the program and calls their InitPreScript.
  void InitPreScript();

  /// Loads every shared object of `folder` (lib/*.<architecture>.so); then configures, checks the
  /// API version, calls InitPreScript and compares the name with `name` ignoring case. `folder`
  /// without trailing '/'. Throws standin::HostError. Returns the handles of the objects.
  std::list<void*> LoadObjects(const std::string& folder, const std::string& name);

  // Each plug-in is served once, however often these are called.
  void InitBifs();
  void InitPostScript();

  /// Done() of every plug-in; they are forgotten afterwards.
  void FinishPlugins();

  /// In order of the lower-cased names.
  plugin_list ActivePlugins() const;

  /// Scripts that plug-ins asked for with LoadBroFile, in that order; empties the list.
  std::list<std::string> TakeRequestedScripts();
  void RequestScript(const std::string& file);

  void EnableHook(HookType hook, Plugin* plugin, int priority);
  void DisableHook(HookType hook, Plugin* plugin);
  Plugin::hook_list EnabledHooks(const Plugin* plugin) const;

 private:
  Manager(const Manager&);
  Manager& operator=(const Manager&);

  struct Active {
    Plugin* plugin;
    const void* registration;  // what its shared object has registered
    bool bifs_initialised;
    bool scripts_done;
  };

  void* Load(const std::string& folder, const std::string& path, const std::string& name);
  void Activate(Plugin* plugin, const void* registration, const std::string& name);
  void SortByName();

  std::list<Active> active;
  std::list<std::string> requested_scripts;
  std::map<const Plugin*, Plugin::hook_list> hooks;
};

/// Registers an initialiser that a .bif file generated; used as a static object.
class __RegisterBif {
 public:
  __RegisterBif(const char* plugin, Manager::bif_init_func init) {
    Manager::RegisterBifFile(plugin, init);
  }
};

}  // namespace plugin

extern plugin::Manager* plugin_mgr;
