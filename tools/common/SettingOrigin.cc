#include "SettingOrigin.h"

#include "SettingsFile.h"

namespace zmqwriter {

SettingOrigin::SettingOrigin(const PluginOptions& options, const std::string& key,
                             const std::string& constant) {
  const std::string start = "LogZMQ::" + constant + "=";
  for (const std::string& redef : options.redefs) {
    if (constant.empty() || redef.compare(0, start.size(), start) != 0)
      continue;
    place = kScriptConstant;
    value = redef.substr(start.size());
    name = "LogZMQ::" + constant;
  }
  if (!key.empty() && settings && settings->has(key.c_str())) {
    place = kSettingsFile;
    value = settings->getStringVal(key.c_str(), "");
    name = options.settings_file + ": " + key;
  }
}

}  // namespace zmqwriter
