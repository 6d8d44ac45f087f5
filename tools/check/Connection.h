// A real connection to one endpoint, made as the plug-in makes it, to see whether it would come
// about. Nothing is sent over it but what libzmq needs for that: a collector sees no event.
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
  std::string text;  ///< what happened, behind the endpoint's name
  std::string remedy;
  double seconds;
};

/// The id of an endpoint that was not tried, as there is an error in its text already.
constexpr const char* kNotTried = "not-tried";

/// What is asked beside libzmq; a test may answer for it.
struct Network {
  /// Asked once. Called on a thread of its own, which is left behind when it takes longer than
  /// there is time.
  std::function<Resolved(const std::string& host)> resolve = resolve_ipv4;
  /// Asked about some failures.
  std::function<PeerGreeting(const std::string& uri, std::chrono::milliseconds timeout)> greeting =
      fetch_greeting;
};

/// Takes `timeout` at most to resolve the name, as long for the connection, and about a second to
/// find out why it failed. Any thread.
ConnectResult try_connection(const std::string& uri, const worker_settings::ServerKey& key,
                             std::chrono::milliseconds timeout, const Network& network = Network());

/// Whether libzmq takes the bytes for a server key: any 32, and 40 or, with a zero behind them, 41
/// that are a key's Z85 text.
bool libzmq_takes_key(const worker_settings::ServerKey& key);

}  // namespace zmqwriter
