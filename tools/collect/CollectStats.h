// What a collector has received so far, by payload type and by agent.
//
// An agent's name may be any bytes that a client sends. The first kMostAgents agents are counted by
// name, cut at kLongestAgent bytes; all others count as kOtherAgents. In labels, names are valid
// UTF-8 without control characters: other bytes, backslashes and a '(' at the start are written
// \xNN, so that no two names share a label and no name equals "(others)".
//
// All methods may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace zmqwriter {

class EventMessage;

struct Tally {
  std::uint64_t events = 0;
  std::uint64_t bytes = 0;
};

/// A consistent view of the counts.
struct CollectCounts {
  Tally all;
  std::map<std::string, Tally> by_type;   // by PayloadType
  std::map<std::string, Tally> by_agent;  // by agent_label, or kNoAgent, kOtherAgents
  std::uint64_t empty = 0;
  std::uint64_t malformed = 0;
  std::uint64_t multi_part = 0;
  std::uint64_t written_bytes = 0;
  std::uint64_t finished_files = 0;
  bool stalled = false;  // the output accepts nothing

  std::uint64_t messages() const { return all.events + empty + malformed + multi_part; }
};

constexpr const char* kNoAgent = "(none)";
constexpr const char* kOtherAgents = "(others)";

class CollectStats {
 public:
  static constexpr std::size_t kMostAgents = 100;
  static constexpr std::size_t kLongestAgent = 64;

  CollectStats() = default;
  CollectStats(const CollectStats&) = delete;
  CollectStats& operator=(const CollectStats&) = delete;

  void CountEvent(const EventMessage& event, std::size_t size);
  void CountEmpty();
  void CountMalformed();
  void CountMultiPart();
  /// Bytes written to the output, the number of its finished files, and whether it accepts nothing.
  void NoteOutput(std::uint64_t written_bytes, std::uint64_t finished_files, bool stalled);

  CollectCounts Counts() const;

 private:
  Tally* AgentTally(std::string_view agent);

  mutable std::mutex mutex_;
  // All below guarded by mutex_. The parts of counts_ by type and agent stay empty here.
  CollectCounts counts_;
  Tally by_type_[256];
  std::map<std::string, Tally, std::less<>> by_agent_;  // by name, cut
  Tally other_agents_;
};

/// A name as a label, as described above.
std::string agent_label(std::string_view name);

}  // namespace zmqwriter
