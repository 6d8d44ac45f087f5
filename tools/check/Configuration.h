// A configuration as the plug-in will use it, and checks of it.
//
// The rules are the plug-in's own code (WorkerSettings.h). Nothing here uses the network or changes
// anything. The disk's size is that of the working directory's file system, as in the plug-in.
#pragma once

#include <string>
#include <vector>

#include "Finding.h"
#include "PluginUse.h"
#include "WorkerSettings.h"

namespace zmqwriter {

struct Setting {
  enum Place { kNowhere, kScriptConstant, kSettingsFile };

  std::string key;       ///< in the settings file; empty: it cannot be set there
  std::string constant;  ///< with the module's name; empty for a number, which has none
  Place place;
  std::string name;   ///< where it is set, for findings
  std::string value;  ///< as the plug-in will use it
};

struct Endpoint {
  std::string role;        ///< "primary server", "secondary server 1", ...
  std::string configured;  ///< as written
  std::string uri;         ///< as the plug-in passes it to libzmq
};

struct KeyReport {
  std::string text;
  worker_settings::ServerKey decoded;
  bool accepted;  ///< libzmq accepts the decoded bytes as a key
};

struct DiskReport {
  double disk_mb;
  int relative;     ///< per cent
  int absolute_mb;  ///< as configured
  int limit_mb;
  int limit_bytes;
  int chunk_mb;
  int chunk_bytes;
};

class Configuration {
 public:
  /// The global `settings` must have been loaded; `constants` must hold all seven.
  Configuration(const PluginOptions& options, const ConstantValues& constants);

  /// By its key in the settings file, or by the name of its constant without the module.
  const Setting& setting(const std::string& name) const;

  const std::vector<Setting>& settings_in_order() const { return settings_; }
  const std::vector<Endpoint>& endpoints() const { return endpoints_; }

  // Each check adds what it finds.
  void CheckNumbers(Findings* findings) const;
  void CheckEndpoints(Findings* findings) const;
  /// `accepted`: whether libzmq accepts the decoded bytes as a key.
  KeyReport CheckKey(bool accepted, Findings* findings) const;
  DiskReport CheckDisk(Findings* findings) const;

  worker_settings::ServerKey DecodedKey() const;

 private:
  std::string settings_file_;
  std::vector<Setting> settings_;
  std::vector<Endpoint> endpoints_;
};

/// Checks the settings file: names that look like the plug-in's but are not, and notes behind its
/// values. The global `settings` must have been loaded from it.
void check_names(const std::string& settings_file, Findings* findings);

/// Checks the text of one endpoint; adds one finding at most.
void check_endpoint(const Endpoint& endpoint, Findings* findings);

}  // namespace zmqwriter
