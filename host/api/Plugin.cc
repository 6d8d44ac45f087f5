#include "plugin/Plugin.h"

#include "Desc.h"
#include "HostReporter.h"
#include "plugin/Manager.h"

namespace plugin {

const char* hook_name(HookType h) {
  static const char* const names[NUM_HOOKS] = {
      "LoadFile",   "CallFunction",      "QueueEvent",  "DrainEvents", "UpdateNetworkTime",
      "BroObjDtor", "SetupAnalyzerTree", "MetaHookPre", "MetaHookPost"};
  return names[h];
}

BifItem::BifItem(const std::string& arg_id, Type arg_type) : id(arg_id), type(arg_type) {}

BifItem::BifItem(const BifItem& other) = default;

BifItem& BifItem::operator=(const BifItem& other) = default;

BifItem::~BifItem() {}

Plugin::Plugin() : dynamic(false) {
  Manager::RegisterPlugin(this);
}

// Only this class's Done: the derived part is gone.
Plugin::~Plugin() {
  Plugin::Done();
}

const std::string& Plugin::Name() const {
  return config.name;
}

const std::string& Plugin::Description() const {
  return config.description;
}

VersionNumber Plugin::Version() const {
  return config.version;
}

int Plugin::APIVersion() const {
  return config.api_version;
}

bool Plugin::DynamicPlugin() const {
  return dynamic;
}

const std::string& Plugin::PluginDirectory() const {
  return base_dir;
}

const std::string& Plugin::PluginPath() const {
  return sopath;
}

Plugin::component_list Plugin::Components() const {
  return components;
}

Plugin::bif_item_list Plugin::BifItems() const {
  return bif_items;
}

void Plugin::AddBifItem(const std::string& name, BifItem::Type type) {
  bif_items.push_back(BifItem(name, type));
}

bool Plugin::LoadBroFile(const std::string& file) {
  plugin_mgr->RequestScript(file);
  return true;
}

void Plugin::AddComponent(Component* c) {
  components.push_back(c);
  components.sort([](Component* a, Component* b) { return a->Name() < b->Name(); });
}

void Plugin::EnableHook(HookType hook, int priority) {
  plugin_mgr->EnableHook(hook, this, priority);
}

void Plugin::DisableHook(HookType hook) {
  plugin_mgr->DisableHook(hook, this);
}

Plugin::hook_list Plugin::EnabledHooks() const {
  return plugin_mgr->EnabledHooks(this);
}

void Plugin::InitPreScript() {}

void Plugin::InitPostScript() {}

void Plugin::Done() {
  for (Component* c : components)
    delete c;
  components.clear();
}

int Plugin::HookLoadFile(const std::string&, const std::string&) {
  return -1;
}

std::pair<bool, Val*> Plugin::HookCallFunction(const Func*, Frame*, val_list*) {
  return std::pair<bool, Val*>(false, nullptr);
}

bool Plugin::HookQueueEvent(Event*) {
  return false;
}

void Plugin::HookDrainEvents() {}

void Plugin::HookUpdateNetworkTime(double) {}

void Plugin::HookSetupAnalyzerTree(Connection*) {}

void Plugin::HookBroObjDtor(void*) {}

void Plugin::MetaHookPre(HookType, const HookArgumentList&) {}

void Plugin::MetaHookPost(HookType, const HookArgumentList&, HookArgument) {}

void Plugin::DoConfigure() {
  config = Configure();
}

void Plugin::SetPluginLocation(const std::string& dir, const std::string& arg_sopath) {
  base_dir = dir;
  sopath = arg_sopath;
}

void Plugin::SetDynamic(bool is_dynamic) {
  dynamic = is_dynamic;
}

namespace {

const char* kind_name(BifItem::Type type) {
  switch (type) {
    case BifItem::FUNCTION:
      return "Function";
    case BifItem::EVENT:
      return "Event";
    case BifItem::CONSTANT:
      return "Constant";
    case BifItem::GLOBAL:
      return "Global";
    case BifItem::TYPE:
      return "Type";
  }
  return "<unknown>";
}

}  // namespace

void Plugin::Describe(ODesc* d) const {
  d->Add(config.name);
  if (!config.description.empty())
    d->Add(" - " + config.description);
  if (!dynamic)
    d->Add(" (built-in)");
  else if (config.version)
    d->Add(" (dynamic, version " + std::to_string(config.version.major) + "." +
           std::to_string(config.version.minor) + ")");
  else
    d->Add(" (dynamic, no version information)");
  d->NL();
  if (d->IsShort())
    return;
  for (const Component* c : components) {
    c->Describe(d);
    d->NL();
  }
  for (const BifItem& item : bif_items)
    d->Add(std::string("    [") + kind_name(item.GetType()) + "] " + item.GetID() + "\n");
  for (const auto& hook : EnabledHooks())
    d->Add(std::string("    Implements ") + hook_name(hook.first) + " (priority " +
           std::to_string(hook.second) + ")\n");
}

}  // namespace plugin
