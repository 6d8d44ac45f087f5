// What a collector has received so far, by payload type and by agent.
//
// An agent's name may be any bytes that a client sends. A limited number of agents are counted by
// name, cut at kLongestAgent bytes. When another one comes, the one that was not seen for longest
// makes room; its counts go to kOtherAgents. In labels, names are valid UTF-8 without control
// characters: other bytes, backslashes and a '(' at the start are written \xNN, so that no two
// names share a label and no name equals "(others)".
//
// All methods may be called from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zmqwriter {

class EventMessage;

struct Tally {
  std::uint64_t events = 0;
  std::uint64_t bytes = 0;
};

/// What came in all, and in each minute of the last hour. Times are in seconds since 1970; one that
/// lies before the last is taken for that.
class Traffic : public Tally {
 public:
  static constexpr int kMinutes = 60;

  void Add(std::uint64_t size, double now);
  /// Of the last event.
  double last() const { return last_; }
  /// Each minute's, the oldest first; that of `now` comes last.
  std::array<Tally, kMinutes> Minutes(double now) const;
  /// Events and bytes a second, over the minute before that of `now` and what has passed of this.
  std::pair<double, double> Rates(double now) const;

 private:
  Tally Minute(std::int64_t minute) const;

  double first_ = 0;
  double last_ = 0;
  std::int64_t minute_ = 0;                   // since 1970, of last_
  std::array<Tally, kMinutes> minutes_ = {};  // by minute modulo kMinutes
};

/// Why a JetStream engine does not take events.
enum class StreamTrouble { kNoStream, kFull, kNotAuthorised, kNoQuorum, kConnectionLost, kOther };
constexpr std::array<const char*, 6> kStreamTroubles = {
    "no_stream", "full", "not_authorised", "no_quorum", "connection_lost", "other"};

/// Why a client's connection was refused.
enum class Refusal { kOtherKey, kNoCurve, kProtocol, kTimedOut, kTooMany };
constexpr std::array<const char*, 5> kRefusals = {"other_key", "no_curve", "protocol", "timed_out",
                                                  "too_many"};

/// Of a JetStreamSink.
struct StreamFigures {
  std::uint64_t acknowledged = 0;
  std::uint64_t stored_before = 0;  // of these: the engine had them from an earlier publication
  std::uint64_t repeated = 0;       // publications of an event that had been published before
  std::uint64_t too_large = 0;      // events that were dropped
  std::array<std::uint64_t, kStreamTroubles.size()> refused = {};  // publications, by StreamTrouble
  std::uint64_t window_events = 0;                                 // not acknowledged
  std::uint64_t window_bytes = 0;
  double oldest_s = 0;   // age of the oldest of these
  double stalled_s = 0;  // time in which nothing was received because the window was full
  std::uint64_t reconnections = 0;
  std::string trouble;                                // now, one of kStreamTroubles; empty: none
  std::vector<std::pair<std::string, bool>> servers;  // true: connected to it
};

/// A consistent view of the counts.
struct CollectCounts {
  Traffic all;
  std::map<std::string, Tally> by_type;     // by PayloadType
  std::map<std::string, Traffic> by_agent;  // by agent_label, or kNoAgent, kOtherAgents
  std::uint64_t empty = 0;
  std::uint64_t malformed = 0;
  std::uint64_t multi_part = 0;
  std::uint64_t written_bytes = 0;
  std::uint64_t finished_files = 0;
  bool stalled = false;  // the output accepts nothing
  std::optional<StreamFigures> stream;
  std::vector<std::string> endpoints;  // that are listened on
  std::uint64_t connections = 0;
  std::array<std::uint64_t, kRefusals.size()> refused = {};  // by Refusal
  std::uint64_t ended_for_memory = 0;                        // connections

  /// Whether a sink takes nothing.
  bool blocked() const { return stalled || (stream && !stream->trouble.empty()); }
  std::uint64_t messages() const { return all.events + empty + malformed + multi_part; }
};

constexpr const char* kNoAgent = "(none)";
constexpr const char* kOtherAgents = "(others)";

class CollectStats {
 public:
  static constexpr std::size_t kMostAgents = 1000;
  static constexpr std::size_t kLongestAgent = 64;

  explicit CollectStats(std::size_t most_agents = kMostAgents) : most_agents_(most_agents) {}
  CollectStats(const CollectStats&) = delete;
  CollectStats& operator=(const CollectStats&) = delete;

  void CountEvent(const EventMessage& event, std::size_t size, double now = Now());
  void CountEmpty();
  void CountMalformed();
  void CountMultiPart();
  void CountRefusal(Refusal reason);
  void CountMemoryLimit();
  void NoteEndpoints(const std::vector<std::string>& bound);
  void NoteConnections(std::uint64_t open);
  /// Bytes written to the output, the number of its finished files, and whether it accepts nothing.
  void NoteOutput(std::uint64_t written_bytes, std::uint64_t finished_files, bool stalled);
  void NoteStream(const StreamFigures& figures);

  CollectCounts Counts() const;
  std::uint64_t Connections() const;
  /// Seconds since 1970.
  static double Now();

 private:
  using Agents = std::map<std::string, Traffic, std::less<>>;

  Traffic* AgentTraffic(std::string_view agent);
  void MakeRoom();

  mutable std::mutex mutex_;
  // All below guarded by mutex_. The parts of counts_ by type and agent stay empty here.
  CollectCounts counts_;
  Tally by_type_[256];
  Agents by_agent_;       // by name, cut
  Traffic other_agents_;  // without their minutes
  // When these agents had been seen last; the oldest comes last. They may have been seen since.
  std::vector<std::pair<double, Agents::iterator>> oldest_;
  const std::size_t most_agents_;
};

/// A name as a label, as described above.
std::string agent_label(std::string_view name);

}  // namespace zmqwriter
