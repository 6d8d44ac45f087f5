// Looks over a configuration before it is used: loads the plug-in into the stand-in host, as replay
// does, but makes no writer, so that nothing is sent and nothing is created.
#pragma once

#include "SettingOrigin.h"

namespace zmqwriter {

struct CheckOptions : PluginOptions {
  bool connect = false;
  double timeout_s = 3;
  bool json = false;
};

/// Prints the report on standard output. Returns the exit status: 0 all well, 1 with findings.
/// Throws std::runtime_error when the report cannot be made or written.
int check(const CheckOptions& options);

}  // namespace zmqwriter
