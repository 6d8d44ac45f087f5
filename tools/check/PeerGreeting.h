// A look at who listens at an endpoint, past libzmq: what the system says to a plain connection,
// and what the other side says first.
//
// libzmq's monitor tells neither why a connection did not come about nor which mechanism a server
// speaks that hangs up. Here only the start of ZeroMQ's greeting is sent, which names no mechanism,
// so the other side has nothing to refuse.
#pragma once

#include <chrono>
#include <string>

struct PeerGreeting {
  std::string connect_problem;  ///< empty: the connection came about
  bool refused = false;         ///< nobody listens there
  bool hung_up = false;         ///< the other side closed the connection
  bool any_byte = false;        ///< it said something
  /// Of the greeting, if it was one of ZeroMQ 4's: "CURVE", "NULL", "PLAIN", ...
  std::string mechanism;
};

/// Works for tcp:// (by IPv4, as the plug-in) and ipc://; takes no longer than `timeout`, once the
/// name is resolved.
PeerGreeting fetch_greeting(const std::string& uri, std::chrono::milliseconds timeout);

/// The host of a tcp:// endpoint.
std::string host_of(const std::string& uri);

/// Why a host has no IPv4 address; empty when it has. May take as long as the name service takes.
std::string resolve_ipv4(const std::string& host);
