// A test connection to one endpoint, made as the plug-in makes it. No message is sent over it.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "Configuration.h"
#include "PeerGreeting.h"

namespace zmqwriter {

struct ConnectResult {
  bool ok;
  std::string id;    ///< a fixed word: "connected", or the id of the finding
  std::string text;  ///< what happened; follows the endpoint's name
  std::string remedy;
  double seconds;
};

/// The id of an endpoint that was not tried, because its text is wrong.
constexpr const char* kNotTried = "not-tried";

/// What libzmq does not do; tests replace it.
struct Network {
  /// Called once, on a thread of its own that is abandoned when it takes too long.
  std::function<Resolved(const std::string& host)> resolve = resolve_ipv4;
  /// Called after some failures.
  std::function<PeerGreeting(const std::string& uri, std::chrono::milliseconds timeout)> greeting =
      fetch_greeting;
};

/// Takes at most `timeout` to resolve the name, at most `timeout` for the connection, and about a
/// second to find out why it failed. Any thread.
ConnectResult try_connection(const std::string& uri, const worker_settings::ServerKey& key,
                             std::chrono::milliseconds timeout, const Network& network = Network());

/// Whether libzmq accepts the bytes as a server key: any 32 bytes, or the 40 characters of a key in
/// Z85, with or without a terminating zero.
bool libzmq_takes_key(const worker_settings::ServerKey& key);

}  // namespace zmqwriter
