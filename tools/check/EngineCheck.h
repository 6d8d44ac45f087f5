// Checks the JetStream engine that collectors hand events on to. Stores and changes nothing there.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Finding.h"
#include "NatsOptions.h"

namespace zmqwriter {

struct TriedServer {
  std::string url;
  std::string problem;  // empty: connected
  double seconds;
};

struct StreamReport {
  std::string name;
  std::int64_t replicas = 1;
  std::string leader;  // empty: none, or a single server
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;
  // 0: no limit.
  std::int64_t max_messages = 0;
  std::int64_t max_bytes = 0;
  std::int64_t max_age_s = 0;
  std::int64_t duplicates_s = 0;  // how long the id of an event is remembered
  bool ages_first = false;        // events leave by age before it is full, at the rate so far
  std::optional<double> full_in_s;
};

struct EngineReport {
  std::vector<TriedServer> servers;
  std::string subjects;
  std::int64_t largest_message = 0;    // bytes
  std::optional<StreamReport> stream;  // empty: there is none, or it is not known
  std::optional<bool> may_publish;     // empty: not known
};

/// Throws std::runtime_error where the program was built without libnats.
EngineReport check_engine(const NatsOptions& options, Findings* findings);

}  // namespace zmqwriter
