// The base class of plug-ins. All of it belongs to the main thread.
#pragma once

#include <list>
#include <string>

#include "bro-config.h"
#include "plugin/Component.h"
#include "plugin/ComponentManager.h"
#include "plugin/TaggedComponent.h"

#ifndef BRO_PLUGIN_API_VERSION
#define BRO_PLUGIN_API_VERSION 4
#endif

namespace plugin {

class Component;
class Manager;
class Plugin;

struct VersionNumber {
  int major;
  int minor;

  /// Unset: both -1.
  VersionNumber() : major(-1), minor(-1) {}
  operator bool() const { return major >= 0 && minor >= 0; }
};

/// What a plug-in says about itself.
class Configuration {
 public:
  std::string name;         ///< NS::NAME
  std::string description;  ///< one line
  VersionNumber version;

  // Inlined always, so that the number is the one that the plug-in was compiled with.
  Configuration() __attribute__((always_inline)) { api_version = BRO_PLUGIN_API_VERSION; }

 private:
  friend class Plugin;
  int api_version;
};

/// A script item that a .bif file defines; informational.
class BifItem {
 public:
  enum Type { FUNCTION = 1, EVENT = 2, CONSTANT = 3, GLOBAL = 4, TYPE = 5 };

  BifItem(const std::string& arg_id, Type arg_type) : id(arg_id), type(arg_type) {}

  const std::string& GetID() const { return id; }
  Type GetType() const { return type; }

 private:
  std::string id;
  Type type;
};

/// Without the host's hooks, which are for plug-ins of other kinds.
class Plugin {
 public:
  typedef std::list<Component*> component_list;
  typedef std::list<BifItem> bif_item_list;

  /// Registers itself with Manager.
  Plugin();
  virtual ~Plugin();

  const std::string& Name() const { return config.name; }
  const std::string& Description() const { return config.description; }
  VersionNumber Version() const { return config.version; }
  int APIVersion() const { return config.api_version; }

  /// Path of the shared object.
  const std::string& PluginPath() const { return sopath; }

  component_list Components() const { return components; }
  bif_item_list BifItems() const { return bif_items; }

  /// Called by the initialisers that .bif files generate.
  void AddBifItem(const std::string& name, BifItem::Type type);

 protected:
  friend class Manager;

  virtual void InitPreScript();
  virtual void InitPostScript();
  /// Deletes all components. Overriders must call it.
  virtual void Done();

  /// Takes ownership.
  void AddComponent(Component* c);

 private:
  virtual Configuration Configure() = 0;

  void DoConfigure() { config = Configure(); }

  Configuration config;
  std::string sopath;
  component_list components;
  bif_item_list bif_items;
};

}  // namespace plugin
