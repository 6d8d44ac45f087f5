// The base class of plug-ins. All of it belongs to the main thread.
#pragma once

#include <list>
#include <string>
#include <utility>

#include "EventHandler.h"
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
class ODesc;

namespace plugin {

class Component;
class Manager;
class Plugin;

/// Hooks. The stand-in notes which ones a plug-in enables and calls none.
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

/// E.g. "LoadFile".
const char* hook_name(HookType h);

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

  BifItem(const std::string& id, Type type);
  BifItem(const BifItem& other);
  BifItem& operator=(const BifItem& other);
  ~BifItem();

  const std::string& GetID() const { return id; }
  Type GetType() const { return type; }

 private:
  std::string id;
  Type type;
};

/// An argument of a hook call.
class HookArgument {
 public:
  enum Type {
    BOOL,
    DOUBLE,
    EVENT,
    FRAME,
    FUNC,
    FUNC_RESULT,
    INT,
    STRING,
    VAL,
    VAL_LIST,
    VOID,
    VOIDP
  };

  HookArgument() : type(VOID) { arg.voidp = 0; }
  explicit HookArgument(bool a) : type(BOOL) { arg.bool_ = a; }
  explicit HookArgument(double a) : type(DOUBLE) { arg.double_ = a; }
  explicit HookArgument(int a) : type(INT) { arg.int_ = a; }
  explicit HookArgument(const std::string& a) : type(STRING), text(a) { arg.voidp = 0; }
  explicit HookArgument(void* a) : type(VOIDP) { arg.voidp = a; }

  bool AsBool() const { return arg.bool_; }
  double AsDouble() const { return arg.double_; }
  int AsInt() const { return arg.int_; }
  const std::string& AsString() const { return text; }
  const void* AsVoidPtr() const { return arg.voidp; }
  Type GetType() const { return type; }

 private:
  Type type;
  union {
    bool bool_;
    double double_;
    int int_;
    void* voidp;
  } arg;
  std::string text;
};

typedef std::list<HookArgument> HookArgumentList;

class Plugin {
 public:
  typedef std::list<Component*> component_list;
  typedef std::list<BifItem> bif_item_list;
  typedef std::list<std::pair<HookType, int>> hook_list;

  /// Registers itself with Manager.
  Plugin();
  virtual ~Plugin();

  const std::string& Name() const;
  const std::string& Description() const;
  VersionNumber Version() const;
  int APIVersion() const;

  /// Whether it came out of a shared object.
  bool DynamicPlugin() const;
  /// Dynamic plug-ins: the folder, with a trailing '/'. Else empty.
  const std::string& PluginDirectory() const;
  /// Dynamic plug-ins: path of the shared object. Else empty.
  const std::string& PluginPath() const;

  component_list Components() const;
  bif_item_list BifItems() const;

  /// Text of -N, or of -NN unless `d` is short.
  void Describe(ODesc* d) const;

  /// Called by the initialisers that .bif files generate.
  void AddBifItem(const std::string& name, BifItem::Type type);

  /// Reads the script like one of the plug-in's own. Always true.
  bool LoadBroFile(const std::string& file);

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

  void EnableHook(HookType hook, int priority = 0);
  void DisableHook(HookType hook);
  hook_list EnabledHooks() const;

 private:
  virtual Configuration Configure() = 0;

  void DoConfigure();
  void SetPluginLocation(const std::string& dir, const std::string& sopath);
  void SetDynamic(bool is_dynamic);

  Configuration config;
  std::string base_dir;
  std::string sopath;
  bool dynamic;
  component_list components;
  bif_item_list bif_items;
};

}  // namespace plugin
