// A PULL socket that agents connect to as CURVE clients.
//
// Memory is bounded on purpose: per connection at most kReceiveHighWater messages wait inside
// libzmq, and none of more than kLargestMessage bytes is taken (its sender is disconnected, which
// libzmq does not tell apart from other ends of a connection). So at most 256 MiB wait, and with
// events of 1 KiB some 64 KiB. When nobody receives, the rest stays with the agents, whose sends
// then block. The exception: libzmq counts a message of several parts as one message, and limits
// each part by itself, so that such a message is bounded by its sender alone. No agent sends any.
// One thread.
#pragma once

#include <cstddef>
#include <string>

#include <zmq.h>

#include "CurveKey.h"
#include "Zmq.h"

namespace zmqwriter {

class PullSocket {
 public:
  static constexpr int kReceiveHighWater = 64;
  /// No event of an agent is nearly as long.
  static constexpr std::size_t kLargestMessage = std::size_t{4} << 20;

  /// `ask_gate`: a ClientGate of this context decides about each client.
  PullSocket(ZmqContext* context, const CurveKey& secret_key, bool ask_gate);

  /// Returns the endpoint with the port that the system chose for "*". Throws std::runtime_error
  /// that names the endpoint; for ipc:// also where a file lies that is no socket.
  std::string Bind(const std::string& endpoint);

  /// Ends the endpoint and its connections. What has been received can still be taken.
  void Unbind(const std::string& endpoint) { zmq_unbind(socket_.get(), endpoint.c_str()); }

  /// Waits for a message, at most `timeout_ms`. A signal does not cut that short: what it means is
  /// for the caller to see afterwards.
  bool Wait(int timeout_ms);

  /// Takes the next part if there is one; a signal does not hide it.
  bool Receive(zmq_msg_t* part);

 private:
  ZmqSocket socket_;
};

}  // namespace zmqwriter
