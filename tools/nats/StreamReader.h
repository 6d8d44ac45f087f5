// Reads events back from a JetStream engine.
#pragma once

#include <cstdint>
#include <string>

#include "EventJson.h"
#include "NatsOptions.h"

namespace zmqwriter {

struct ReadOptions {
  NatsOptions engine;
  std::string subject;        // with wildcards; empty: PREFIX.>
  std::string durable;        // of the consumer; empty: one that ends with this process
  std::int64_t since_ns = 0;  // since 1970
  bool follow = false;
  std::string format = "json";  // "text", "raw"
  JsonBytes json_bytes = JsonBytes::kSurrogate;
};

/// Prints the events on standard output. One of a durable consumer is acknowledged when it is
/// written, so that none is lost when a process is killed; what it had in hand is then delivered
/// again. Returns the exit status; throws std::runtime_error. Also throws where the program was
/// built without libnats.
int read_stream(const ReadOptions& options);

}  // namespace zmqwriter
