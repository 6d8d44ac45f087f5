// The script constants of LogZMQ for tests of the writer: linked in place of the generated glue,
// which would bring the probes along.
#pragma once

#include <string>

#include "zmq.bif.h"

namespace test {

/// Gives every constant of LogZMQ a value while it exists: an agent identifier of "agent-7", the
/// connection constants "primary", "key" and "secondary", the separators ",", "-" and "(empty)".
/// One at a time, on one thread.
class ScriptConstants {
 public:
  ScriptConstants();
  ~ScriptConstants();
  ScriptConstants(const ScriptConstants&) = delete;
  ScriptConstants& operator=(const ScriptConstants&) = delete;

  /// Replaces a value: set(BifConst::LogZMQ::zmq_agent_id, "x").
  static void set(StringVal*& constant, const std::string& value);
};

}  // namespace test
