// Checks of the plug-in's two fixed paths, the spool folder and the agent-id file: what the plug-in
// will do with them as they are now. Nothing is created, opened for writing or changed. Write
// access is that of the user who runs the check.
#pragma once

#include <string>

#include "Configuration.h"
#include "Finding.h"

namespace zmqwriter {

struct SpoolReport {
  std::string folder;
  std::string parent;
  /// "ready", "needs repair", "in use", "will be made", "disabled" or "not writable"
  std::string state;
};

SpoolReport check_spool(const std::string& folder, Findings* findings);

/// Checks whether users other than its owner and group reach the folder.
void check_spool_access(const std::string& folder, Findings* findings);

/// Checks what is free on the spool's own disk, which need not be the one that the limit is
/// computed from.
void check_spool_space(const SpoolReport& spool, int limit_mb, Findings* findings);

struct AgentIdReport {
  std::string source;  ///< "script constant", "file", "generated" or "not known"
  std::string path;    ///< of the agent-id file
  std::string value;   ///< the exact bytes; empty when generated, or not known
  std::string state;   ///< e.g. "will be made"
};

/// `constant` is LogZMQ::zmq_agent_id, `prefix` the install prefix.
AgentIdReport check_agent_id(const Setting& constant, const std::string& prefix,
                             Findings* findings);

}  // namespace zmqwriter
