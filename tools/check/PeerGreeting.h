// A look at who listens at an endpoint, past libzmq: what the system says to a plain connection,
// and what the other side says first.
//
// libzmq's monitor tells neither why a connection did not come about nor which mechanism a server
// speaks that hangs up. Here only the start of ZeroMQ's greeting is sent, which names no mechanism,
// so the other side has nothing to refuse.
#pragma once

#include <chrono>
#include <string>

namespace zmqwriter {

struct PeerGreeting {
  std::string connect_problem;  ///< empty: the connection came about
  bool refused = false;         ///< nobody listens there
  bool any_byte = false;        ///< it said something
  /// Of the greeting, if it was one of ZeroMQ 4's: "CURVE", "NULL", "PLAIN", ...
  std::string mechanism;
};

/// Works for ipc:// and for tcp:// with an IPv4 address as its host: no name is resolved. Takes no
/// longer than `timeout`.
PeerGreeting fetch_greeting(const std::string& uri, std::chrono::milliseconds timeout);

/// The host of a tcp:// endpoint.
std::string host_of(const std::string& uri);

/// The endpoint with another host.
std::string with_host(const std::string& uri, const std::string& host);

struct Resolved {
  std::string address;  ///< the first, which libzmq would take
  std::string problem;  ///< why there is none; empty when there is
};

/// The IPv4 address of a host. May take as long as the name service takes.
Resolved resolve_ipv4(const std::string& host);

}  // namespace zmqwriter
