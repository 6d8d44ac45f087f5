// Checks a configuration before it is used: loads the plug-in into the stand-in host, as replay
// does, but creates no writer, so nothing is sent and no file is created.
#pragma once

#include "NatsOptions.h"
#include "PluginUse.h"

namespace zmqwriter {

struct CheckOptions : PluginOptions {
  bool connect = false;
  double timeout_s = 3;
  bool json = false;
  NatsOptions engine;  // with servers: checks these and nothing else
};

/// Prints the report on standard output. Returns the exit status: 1 with errors or warnings, else
/// 0. Throws std::runtime_error when the report cannot be written.
int check(const CheckOptions& options);

}  // namespace zmqwriter
