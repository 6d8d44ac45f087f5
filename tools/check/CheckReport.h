// All that `zmqwriter check` has to say, and the two forms in which it says it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Configuration.h"
#include "Connection.h"
#include "Finding.h"
#include "PathChecks.h"

namespace zmqwriter {

class Output;

struct PluginReport {
  std::string folder;
  std::string install_prefix;
  std::string spool_folder;
};

struct LibzmqReport {
  std::string version;
  bool curve;
};

struct TriedEndpoint {
  Endpoint endpoint;
  ConnectResult result;
};

/// What could not be looked at, as the host would not even start, is not there.
struct CheckReport {
  std::string settings_file;
  LibzmqReport libzmq;
  std::optional<PluginReport> plugin;
  std::optional<Configuration> configuration;
  std::optional<KeyReport> key;
  std::optional<SpoolReport> spool;
  std::optional<DiskReport> disk;
  std::optional<AgentIdReport> agent_id;
  std::optional<std::vector<TriedEndpoint>> tried;  ///< with --connect
  Findings findings;
};

/// Errors and warnings; notes do not count.
bool all_well(const CheckReport& report);

/// Adds a finding for each endpoint that could not be connected.
void check_connections(const std::vector<TriedEndpoint>& tried, Findings* findings);

/// Adds what is to be said about libzmq, the user who checks, and rotation.
void check_environment(const LibzmqReport& libzmq, bool is_root, Findings* findings);

/// For the eye: tables, then the findings with what to do.
std::string report_as_text(const CheckReport& report);

/// One JSON object and a line end. Bytes that are not valid UTF-8 are replaced; where they matter,
/// hexadecimal digits stand beside.
std::string report_as_json(const CheckReport& report);

}  // namespace zmqwriter
