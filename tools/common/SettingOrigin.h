// Where a setting of the plug-in is set.
#pragma once

#include <string>
#include <vector>

namespace zmqwriter {

/// Which plug-in, and how it is configured.
struct PluginOptions {
  std::string settings_file;
  std::vector<std::string> redefs;  ///< LogZMQ::NAME=VALUE
  std::string plugin_folder;        ///< empty: default_plugin_folder()
};

/// Where a setting is set: in the settings file, else as a script constant on the command line,
/// else nowhere. The global `settings` must have been loaded from the file.
struct SettingOrigin {
  SettingOrigin(const PluginOptions& options, const std::string& key, const std::string& constant);

  enum Place { kNowhere, kScriptConstant, kSettingsFile };
  Place place = kNowhere;
  std::string name;   ///< "FILE: key" or "LogZMQ::constant"; empty for kNowhere
  std::string value;  ///< as written there
};

}  // namespace zmqwriter
