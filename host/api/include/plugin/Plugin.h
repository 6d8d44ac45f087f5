// The base class of plug-ins. All of it belongs to the main thread.
#pragma once

#include <list>
#include <string>
#include <utility>

#include "bro-config.h"
#include "plugin/Component.h"
#include "plugin/ComponentManager.h"
#include "plugin/TaggedComponent.h"

#ifndef BRO_PLUGIN_API_VERSION
#define BRO_PLUGIN_API_VERSION 4
#endif

class Connection;
class Event;
class Frame;
class Func;

namespace plugin {

class Component;
class Manager;
class Plugin;

/// Hooks. The stand-in calls none.
enum HookType {
  HOOK_LOAD_FILE,
  HOOK_CALL_FUNCTION,
  HOOK_QUEUE_EVENT,
  HOOK_DRAIN_EVENTS,
  HOOK_UPDATE_NETWORK_TIME,
  HOOK_BRO_OBJ_DTOR,
  HOOK_SETUP_ANALYZER_TREE,
  META_HOOK_PRE,
  META_HOOK_POST,
  NUM_HOOKS
};

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

/// An argument of a hook call. There is nothing in it, as the stand-in makes no such call.
class HookArgument {};

typedef std::list<HookArgument> HookArgumentList;

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

  virtual int HookLoadFile(const std::string& file, const std::string& ext);
  virtual std::pair<bool, Val*> HookCallFunction(const Func* func, Frame* parent, val_list* args);
  virtual bool HookQueueEvent(Event* event);
  virtual void HookDrainEvents();
  virtual void HookUpdateNetworkTime(double network_time);
  virtual void HookSetupAnalyzerTree(Connection* conn);
  virtual void HookBroObjDtor(void* obj);
  virtual void MetaHookPre(HookType hook, const HookArgumentList& args);
  virtual void MetaHookPost(HookType hook, const HookArgumentList& args, HookArgument result);

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
