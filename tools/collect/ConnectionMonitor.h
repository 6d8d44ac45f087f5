// Watches who connects to a collector's socket, and counts and reports the connections that are
// refused: without that, an agent with a wrong key leaves no trace on the server.
//
// libzmq does not say which connection has finished its handshake. The newest one whose outcome is
// not known is taken for it; so the counts are right, and the address in a report may be that of
// another client that connected at the same moment.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <thread>

#include "CollectStats.h"
#include "PullSocket.h"
#include "Zmq.h"

namespace zmqwriter {

class ConnectionMonitor {
 public:
  static constexpr int kReported = 10;  // further refusals are only counted

  /// Reports on standard error unless `quiet`. `socket` and `stats` must outlive this. Call it
  /// before the socket is bound. Throws std::runtime_error.
  ConnectionMonitor(const ZmqContext& context, PullSocket* socket, CollectStats* stats, bool quiet);
  ~ConnectionMonitor();
  ConnectionMonitor(const ConnectionMonitor&) = delete;
  ConnectionMonitor& operator=(const ConnectionMonitor&) = delete;

 private:
  struct Connection {
    std::string peer;
    std::uint64_t number;  // counted from the first
    bool connected;        // as far as is known
  };
  using Connections = std::map<std::int64_t, Connection>;  // by descriptor

  void Run();
  void Note(std::uint16_t event, std::uint32_t value);
  Connections::iterator NewestUnknown();
  void End(Connections::iterator connection);
  void Report(const Connection& connection, Refusal reason);

  PullSocket* const socket_;
  CollectStats* const stats_;
  const bool quiet_;
  ZmqSocket events_;
  // Used by thread_ alone.
  Connections connections_;
  std::uint64_t accepted_ = 0;
  std::uint64_t connected_ = 0;
  std::uint64_t refused_ = 0;
  std::uint32_t failure_ = 0;  // of the connection that ends next: a code of libzmq's, or errno
  bool denied_ = false;        // by the gate, which counts it
  std::thread thread_;
};

}  // namespace zmqwriter
