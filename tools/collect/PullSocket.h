// A PULL socket that agents connect to as CURVE clients.
//
// Memory is bounded, so that a slow output does not exhaust it: for each connection at most
// kReceiveHighWater messages wait inside libzmq, and the sender of a message of more than
// kLargestMessage bytes is disconnected. So at most 256 MiB wait, and with events of 1 KiB about
// 64 KiB. The other messages wait at the agents, whose sends then block. libzmq counts a message of
// several parts as a single one and limits only each part; agents send none, and ConnectionMonitor
// bounds the memory. One thread.
#pragma once

#include <cstddef>
#include <string>

#include <zmq.h>

#include "CurveKey.h"
#include "Zmq.h"

namespace zmqwriter {

/// Empty if the text is tcp://HOST:PORT, with * for a port that the system chooses, or ipc://PATH;
/// else what is wrong. libzmq accepts more, such as port 99999, and then uses another port. Whether
/// this machine has such a host is checked by binding.
std::string bind_endpoint_problem(const std::string& endpoint);

class PullSocket {
 public:
  static constexpr int kReceiveHighWater = 64;
  /// Clients that may wait to be accepted. All agents connect at once when a collector comes back;
  /// one that finds no room tries again after a second and later. The system may allow fewer.
  static constexpr int kBacklog = 1024;
  /// Then a client that has not finished its handshake is cut off.
  static constexpr int kHandshakeMs = 10000;
  /// No event of an agent is nearly as long.
  static constexpr std::size_t kLargestMessage = std::size_t{4} << 20;

  /// `ask_gate`: a ClientGate of this context decides which clients may connect.
  PullSocket(ZmqContext* context, const CurveKey& secret_key, bool ask_gate);

  /// Returns the endpoint with the port that the system chose for "*". Throws std::runtime_error
  /// that names the endpoint; for ipc:// also when there is a file that is not a socket.
  std::string Bind(const std::string& endpoint);

  /// Closes the endpoint and its connections. Received messages can still be taken.
  void Unbind(const std::string& endpoint) { zmq_unbind(socket_.get(), endpoint.c_str()); }

  /// For libzmq's monitor.
  void* get() const { return socket_.get(); }

  /// Waits for a message, at most `timeout_ms`. A signal does not end the wait.
  bool Wait(int timeout_ms);

  /// Takes the next part; false when there is none.
  bool Receive(zmq_msg_t* part);

 private:
  ZmqSocket socket_;
};

}  // namespace zmqwriter
