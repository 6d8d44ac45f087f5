// Log records of every kind for the benchmarks, each with its floor: the same message built by the
// generated functions from values at hand, with no column name looked at and no host value read.
//
//     for (const auto& sample : bench::samples("connection", 64))
//       ... sample->record, sample->build(builder) ...
//
// The columns are in the order in which the plug-in's scripts give them. The values vary by sample
// and are the same in each run. Nothing is changed after construction, so any threads may use them.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <flatbuffers/flatbuffers.h>

#include "RecordBuilder.h"

namespace bench {

/// What every sample is converted with.
extern const std::string kAgentId;

struct Sample {
  test::RecordBuilder record;

  /// Builds and finishes the message of `record` in a fresh builder: byte for byte what the
  /// conversion makes of it.
  std::function<void(flatbuffers::FlatBufferBuilder&)> build;
};

using Samples = std::vector<std::unique_ptr<Sample>>;

/// The kinds of samples: "connection" (22 columns), "http", ...
std::vector<std::string> kinds();

/// `count` records of a kind.
Samples samples(const std::string& kind, std::size_t count);

/// The message of a record, as the plug-in converts it.
std::string message(test::RecordBuilder& record, const std::string& agent);

std::string agent_name(std::size_t number);
/// A connection's for each of so many agents.
std::vector<std::string> messages(std::size_t agents);

/// Connection records of `columns` columns, 22 or more: behind those of a connection such as no
/// message carries.
Samples wide_samples(int columns, std::size_t count);

/// Key/value records of `pairs` pairs.
Samples pair_samples(int pairs, std::size_t count);

}  // namespace bench
