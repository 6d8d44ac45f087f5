// The reference collector: receives events as a CURVE server, verifies, counts and writes them.
//
// One thread receives and writes in turn. So a slow output slows down the receiving and, by
// libzmq's bounded queues, the agents, and memory stays within PullSocket's limits. At a clean end,
// except after --count, all is written that has left the agents.
#pragma once

#include <zmq.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ClientGate.h"
#include "CollectStats.h"
#include "ConnectionMonitor.h"
#include "Connections.h"
#include "FileSink.h"
#include "JetStreamOptions.h"
#include "PullSocket.h"
#include "StatsPrinter.h"
#include "StatusServer.h"
#include "Zmq.h"

namespace zmqwriter {

struct CollectOptions {
  std::vector<std::string> endpoints;
  std::string secret_key_file;
  std::string allow_file;  // empty: every client may connect
  bool writes = true;      // to `output`
  FileSinkOptions output;
  std::optional<JetStreamOptions> stream;  // to publish to
  std::string metrics_address;             // empty: none
  std::size_t most_agents = CollectStats::kMostAgents;
  std::uint64_t max_memory = std::uint64_t{1} << 30;
  double stats_s = 0;       // 0: none
  std::uint64_t count = 0;  // 0: no limit
  double timeout_s = 0;     // 0: none
  bool quiet = false;
};

class Collector {
 public:
  /// Opens everything and prints on standard error where it listens. Throws std::runtime_error; the
  /// output of a former run is then unchanged.
  explicit Collector(const CollectOptions& options);
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  /// Receives until the count is reached, the time-out has passed, the output fails or a stop
  /// signal arrives. Returns the exit status.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  bool Done() const;
  bool SinkEnds();
  bool TimedOut() const;
  bool HaveRoom();
  bool TakeWaiting();
  bool NextPart();
  void Drain();
  bool HoldWaiting(Connections* connections, Clock::time_point* start);
  void WriteHeld(Clock::time_point* start);
  void TakeMessage();
  void SkipParts();
  void TakeEvent();
  void ReportBad(const std::string& problem);
  void ReloadAllowList();
  void Finish();
  void PrintTotals() const;
  int ExitCode() const;

  const CollectOptions options_;
  CollectStats stats_;
  ZmqContext context_;
  std::unique_ptr<ClientGate> gate_;  // before the sockets that it guards
  // Without a gate: bound at the end to hold up new clients.
  ZmqSocket unanswered_;
  const CurveKey secret_key_;
  PullSocket socket_;
  std::optional<ConnectionMonitor> monitor_;  // not while it ends
  std::unique_ptr<StatusServer> server_;
  std::vector<std::unique_ptr<EventSink>> sinks_;
  std::vector<std::string> bound_;
  std::unique_ptr<StatsPrinter> printer_;
  zmq_msg_t part_;
  std::deque<zmq_msg_t> held_;  // received at the end, not yet written
  std::size_t held_bytes_ = 0;
  std::uint64_t events_ = 0;
  std::uint64_t messages_ = 0;
  std::uint64_t bad_ = 0;
  std::string full_;  // why, when a sink is
  Clock::time_point last_message_;
};

}  // namespace zmqwriter
