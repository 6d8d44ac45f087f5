// The greeting of the program that listens at an endpoint, fetched without libzmq.
//
// libzmq's monitor reports neither why a connection failed nor the security mechanism of a server
// that closes the connection. Only the start of ZeroMQ's greeting is sent here. It names no
// mechanism, so the server has nothing to refuse.
#pragma once

#include <chrono>
#include <string>

namespace zmqwriter {

struct PeerGreeting {
  std::string connect_problem;  ///< empty: connected
  bool refused = false;         ///< no program listens there
  bool any_byte = false;        ///< something was received
  /// "CURVE", "NULL", "PLAIN", ...; empty if it was no greeting of ZeroMQ 4.
  std::string mechanism;
};

/// For ipc:// and for tcp:// with an IPv4 address as its host: no name is resolved. Takes at most
/// `timeout`.
PeerGreeting fetch_greeting(const std::string& uri, std::chrono::milliseconds timeout);

/// The host of a tcp:// endpoint.
std::string host_of(const std::string& uri);

/// The endpoint with another host.
std::string with_host(const std::string& uri, const std::string& host);

struct Resolved {
  std::string address;  ///< the first one, which libzmq would use
  std::string problem;  ///< why there is none
};

/// The IPv4 address of a host. Waits for the name service.
Resolved resolve_ipv4(const std::string& host);

}  // namespace zmqwriter
