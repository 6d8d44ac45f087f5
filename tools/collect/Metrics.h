// What can be seen of a running collector, as metrics for Prometheus and as JSON for the page.
//
// The counts are taken at each call, from any thread. CollectStats limits the number of agents.
#pragma once

#include <cstdint>
#include <string>

#include "CollectStats.h"

namespace zmqwriter {

class ClientGate;

/// A collector as it is seen. What the references and pointers lead to must outlive it.
struct Watched {
  const CollectStats& stats;
  const ClientGate* gate;   // may be null
  bool writes;              // to a file or to standard output
  std::string output_path;  // empty: standard output
  std::string format;
  std::uint64_t max_memory = 0;
  double started = CollectStats::Now();
};

/// Resident memory of this process in bytes, 0 if the system does not tell.
std::uint64_t memory_in_use();

/// In Prometheus' text format.
std::string metrics_text(const Watched& collector);

/// One object: version, started and now (seconds since 1970), endpoints, output (null if there is
/// none), stream (the same), memory, totals,
/// types, bad_messages, connections, clients (null without a gate), agents (with the events of each
/// minute of the last hour), other_agents.
std::string status_json(const Watched& collector);

}  // namespace zmqwriter
