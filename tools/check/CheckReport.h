// The report of `zmqwriter check`, as text and as JSON.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Configuration.h"
#include "Connection.h"
#include "EngineCheck.h"
#include "Finding.h"
#include "PathChecks.h"

namespace zmqwriter {

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

/// If the host did not start, the optional parts are empty.
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
  std::optional<EngineReport> engine;               ///< with --to; then nothing above
  Findings findings;
};

/// Whether there is no error and no warning.
bool all_well(const CheckReport& report);

/// Adds an error for each endpoint that could not be connected.
void check_connections(const std::vector<TriedEndpoint>& tried, Findings* findings);

/// Adds findings about libzmq, the user who checks, and the rotation of logs.
void check_environment(const LibzmqReport& libzmq, bool is_root, bool rotates, Findings* findings);

/// Tables, then the findings: errors, warnings, notes.
std::string report_as_text(const CheckReport& report);

/// One JSON object and a line end. Bytes that are not valid UTF-8 are replaced; the key and the
/// agent identifier are given in hexadecimal digits too.
std::string report_as_json(const CheckReport& report);

}  // namespace zmqwriter
