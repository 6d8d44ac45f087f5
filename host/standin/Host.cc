#include "standin/Host.h"

#include <dlfcn.h>

#include <exception>
#include <filesystem>
#include <fstream>

#include "Clock.h"
#include "HostReporter.h"
#include "MainThread.h"
#include "Net.h"
#include "PluginFolder.h"
#include "ScriptReader.h"
#include "SettingsFile.h"
#include "ThreadManager.h"
#include "logging/Manager.h"
#include "logging/WriterFrontend.h"
#include "plugin/Manager.h"
#include "standin/Scripts.h"

namespace standin {

namespace fs = std::filesystem;

namespace {

// The three scripts that the host reads by itself, those that exist.
std::vector<std::string> automatic_scripts(const std::string& folder) {
  std::vector<std::string> scripts;
  for (const char* script :
       {"/scripts/__preload__.bro", "/lib/bif/__load__.bro", "/scripts/__load__.bro"}) {
    if (fs::is_regular_file(folder + script))
      scripts.push_back(folder + script);
  }
  return scripts;
}

std::string known_writers() {
  std::string names;
  for (const plugin::Plugin* p : plugin_mgr->ActivePlugins()) {
    for (const plugin::Component* c : p->Components()) {
      if (c->Type() == plugin::component::WRITER)
        names += (names.empty() ? "" : ", ") + c->Name();
    }
  }
  return names.empty() ? "no plug-in with a writer is loaded" : "there are: " + names;
}

// The compiler for .bif files makes no others.
const char* kind_name(plugin::BifItem::Type type) {
  if (type == plugin::BifItem::FUNCTION)
    return "Function";
  return type == plugin::BifItem::CONSTANT ? "Constant" : "Type";
}

std::string describe(const plugin::Plugin& plugin, bool details) {
  std::string text = plugin.Name() + " - " + plugin.Description() + " (dynamic, ";
  const plugin::VersionNumber version = plugin.Version();
  text += version ? "version " + std::to_string(version.major) + "." + std::to_string(version.minor)
                  : "no version information";
  text += ")\n";
  if (!details)
    return text;
  // Components of other kinds cannot be made here.
  for (const plugin::Component* c : plugin.Components())
    text += "    [Writer] " + c->Name() + " (Log::WRITER_" + c->CanonicalName() + ")\n";
  for (const plugin::BifItem& item : plugin.BifItems())
    text += std::string("    [") + kind_name(item.GetType()) + "] " + item.GetID() + "\n";
  return text + "\n";
}

Host* the_host = nullptr;

}  // namespace

std::string stripped(const std::string& text) {
  static const char blanks[] = " \t\n\v\f\r";
  const size_t begin = text.find_first_not_of(blanks);
  return begin == std::string::npos ? ""
                                    : text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

std::string plugin_name(const std::string& folder) {
  static const std::string magic_file = "__bro_plugin__";
  std::ifstream in(folder + "/" + magic_file);
  if (!in)
    throw HostError(folder + " is no plug-in folder: it has no file " + magic_file +
                    "; give the folder that the build lays out");
  std::string line;
  std::getline(in, line);
  const std::string name = stripped(line);
  if (name.empty())
    throw HostError(folder + "/" + magic_file + " is empty: it must hold the plug-in's name");
  return name;
}

struct Host::Impl {
  Options options;
  bool finished = false;
  double next_beat = 0;
  bool own_reporter = false;
  std::vector<void*> objects;  // handles of the plug-ins
  std::vector<logging::WriterFrontend*> frontends;
};

Host::Host(const Options& options) : impl_(nullptr) {
  if (the_host)
    throw HostError("there is a Host already");
  SettingsFile* loaded = nullptr;
  if (!options.settings_file.empty()) {
    try {
      loaded = new SettingsFile(options.settings_file);
    } catch (const std::exception& e) {
      throw HostError(e.what());
    }
  }
  the_host = this;
  settings = loaded;
  impl_ = new Impl;
  impl_->options = options;
  impl_->own_reporter = !reporter;
  host::set_main_thread();
  network_time = current_time();
  terminating = false;
  if (!reporter)
    reporter = new Reporter;
  thread_mgr = new threading::Manager;
  plugin_mgr = new plugin::Manager;
  log_mgr = new logging::Manager;
}

Host::~Host() {
  Finish();
  forget_scripts();
  delete log_mgr;
  log_mgr = nullptr;
  delete plugin_mgr;
  plugin_mgr = nullptr;
  delete thread_mgr;
  thread_mgr = nullptr;
  if (impl_->own_reporter) {
    delete reporter;
    reporter = nullptr;
  }
  delete settings;
  settings = nullptr;
  terminating = false;
  network_time = 0;
  host::forget_main_thread();
  delete impl_;
  the_host = nullptr;
}

void Host::LoadPlugin(const std::string& folder_given) {
  host::require_main_thread("Host::LoadPlugin");
  // Absolute and without a trailing slash, as a search would have found it.
  std::string folder = fs::absolute(folder_given).lexically_normal().string();
  while (folder.size() > 1 && folder.back() == '/')
    folder.pop_back();
  const std::string name = plugin_name(folder);
  const int errors_before = reporter->Errors();

  plugin_mgr->SearchDynamicPlugins(folder);
  plugin_mgr->ActivateDynamicPlugin(name);
  for (const plugin::Plugin* p : plugin_mgr->ActivePlugins())
    impl_->objects.push_back(dlopen(p->PluginPath().c_str(), RTLD_LAZY | RTLD_NOLOAD));

  ScriptReader scripts({folder + "/scripts"});
  for (const std::string& script : automatic_scripts(folder))
    scripts.Load(script);
  ApplyRedefs();

  plugin_mgr->InitBifs();
  const int errors = reporter->Errors() - errors_before;
  if (errors > 0)
    throw HostError("plug-in " + name + " reported " + std::to_string(errors) +
                    " error(s) while it was loaded; the host would end here");
  plugin_mgr->InitPostScript();
}

void Host::ApplyRedefs() {
  for (const std::string& word : impl_->options.redefs) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos || equals == 0)
      throw HostError("\"" + word + "\" is no NAME=VALUE");
    // As on the host's command line: nothing behind the '=' changes nothing.
    if (equals + 1 < word.size())
      redefine(word.substr(0, equals), word.substr(equals + 1));
  }
}

std::string Host::DescribePlugins(bool details) const {
  host::require_main_thread("Host::DescribePlugins");
  std::string text;
  for (const plugin::Plugin* p : plugin_mgr->ActivePlugins())
    text += describe(*p, details);
  return text;
}

void* Host::PluginSymbol(const char* name) const {
  for (void* object : impl_->objects) {
    if (void* symbol = dlsym(object, name))
      return symbol;
  }
  return nullptr;
}

logging::WriterFrontend* Host::CreateWriter(const std::string& writer, const std::string& path,
                                            const std::vector<threading::Field>& fields) {
  host::require_main_thread("Host::CreateWriter");
  if (impl_->finished)
    throw HostError("a writer cannot be created any more: the host has finished");
  const logging::Component* component = log_mgr->Lookup(canonify_name(writer));
  if (!component)
    throw HostError("there is no writer " + writer + "; " + known_writers());

  network_time = current_time();
  logging::WriterBackend::WriterInfo info;
  info.path = copy_string(path.c_str());
  info.network_time = network_time;
  EnumVal* writer_val =
      new EnumVal(static_cast<int>(component->Tag().Type()), log_mgr->GetTagType());
  logging::WriterFrontend* frontend =
      new logging::WriterFrontend(info, nullptr, writer_val, true, false);
  Unref(writer_val);
  impl_->frontends.push_back(frontend);

  threading::Field** copies = new threading::Field*[fields.size()];
  for (size_t i = 0; i < fields.size(); ++i)
    copies[i] = new threading::Field(fields[i]);
  frontend->Init(static_cast<int>(fields.size()), copies);
  return frontend;
}

bool Host::Pump() {
  host::require_main_thread("Host::Pump");
  if (impl_->finished)
    return false;
  network_time = current_time();
  const bool handled = thread_mgr->Process();
  const double interval = impl_->options.heartbeat_seconds;
  if (interval <= 0 || network_time <= impl_->next_beat)
    return handled;
  impl_->next_beat = network_time + interval;
  thread_mgr->SendHeartbeats();
  // A writer's heartbeat asks for what waits here, so these records come after it.
  for (logging::WriterFrontend* frontend : impl_->frontends)
    frontend->FlushWriteBuffer();
  return true;
}

std::size_t Host::PendingInput() const {
  host::require_main_thread("Host::PendingInput");
  return static_cast<std::size_t>(thread_mgr->PendingIn());
}

void Host::Finish() {
  host::require_main_thread("Host::Finish");
  if (impl_->finished)
    return;
  impl_->finished = true;
  network_time = current_time();
  terminating = true;
  for (logging::WriterFrontend* frontend : impl_->frontends)
    frontend->Stop();
  thread_mgr->Terminate();
  for (logging::WriterFrontend* frontend : impl_->frontends)
    delete frontend;
  impl_->frontends.clear();
  plugin_mgr->FinishPlugins();
}

void set_pseudo_time(double seconds) {
  host::pseudo_time = seconds;
}

}  // namespace standin
