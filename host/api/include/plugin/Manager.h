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

  ~Manager();

  // Called while a shared object is loaded, so they need no Manager.
  static void RegisterPlugin(Plugin* plugin);
  static void RegisterBifFile(const char* plugin, bif_init_func c);

  /// Finds the plug-in in the folder `dir`, which must be absolute and end without a '/'.
  void SearchDynamicPlugins(const std::string& dir);
  /// Loads every shared object of the plug-in `name` (lib/*.<architecture>.so); then configures,
  /// checks the API version, calls InitPreScript and compares the names. False if none was found.
  bool ActivateDynamicPlugin(const std::string& name);

  // Each plug-in is served once, however often these are called.
  void InitBifs();
  void InitPostScript();

  /// Done() of every plug-in; they are forgotten afterwards.
  void FinishPlugins();

  /// In order of activation.
  plugin_list ActivePlugins() const;

 private:
  struct Active {
    Plugin* plugin;
    std::list<bif_init_func> bif_inits;  // that still have to be called
    bool scripts_done;
  };

  void Load(const std::string& path, const std::string& name);

  std::map<std::string, std::string> folders;  // by lower-case name
  std::list<Active> active;
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
