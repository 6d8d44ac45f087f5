// How a collector hands events on to a JetStream engine.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "EventJson.h"
#include "EventSink.h"
#include "NatsOptions.h"

namespace zmqwriter {

class CollectStats;

/// What --create-stream says; 0 is no limit.
struct StreamLimits {
  std::int64_t replicas = 1;
  std::int64_t max_age_s = 0;
  std::int64_t max_bytes = 0;
  std::int64_t max_msgs = 0;
};

/// Of "replicas=3,max-age=7d,max-bytes=10G,max-msgs=1000000", each at most once, or of nothing.
/// Throws std::invalid_argument.
StreamLimits stream_limits(const std::string& text);

/// The time that `text` names, in ns since 1970: e.g. "2026-11-22T07:35:58Z" or "2026-11-22", or
/// how long ago, e.g. "2h". Throws std::invalid_argument.
std::int64_t start_time(const std::string& text);

struct JetStreamOptions {
  NatsOptions engine;
  std::optional<StreamLimits> create;  // of a stream to be made; none: it must exist
  bool json = false;                   // else the bytes as received
  JsonBytes json_bytes = JsonBytes::kSurrogate;
  // Of events that are not acknowledged.
  std::uint64_t window_events = 4096;
  std::uint64_t window_bytes = std::uint64_t{16} << 20;
  double drain_s = 10;
  std::string unsent_file;  // empty: none
};

/// Throws std::runtime_error; also where the program was built without libnats.
std::unique_ptr<EventSink> make_jetstream_sink(const JetStreamOptions& options,
                                               CollectStats* stats);

}  // namespace zmqwriter
