// A real connection to one endpoint, made as the plug-in makes it, to see whether it would come
// about. Nothing is sent over it but what libzmq needs for that: a collector sees no event.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "Configuration.h"

struct ConnectResult {
  bool ok;
  std::string id;    ///< a fixed word: "connected", or the id of the finding
  std::string text;  ///< what happened, behind the endpoint's name
  std::string what_to_do;
  double seconds;
};

/// The id of an endpoint that was not tried, as there is an error in its text already.
constexpr const char* kNotTried = "not-tried";

/// Why a host has no IPv4 address, empty when it has. Called on a thread of its own, which is left
/// behind when it takes longer than there is time.
using Resolve = std::function<std::string(const std::string& host)>;

/// Takes `timeout` and about a second at most. Any thread.
ConnectResult try_connection(const std::string& uri, const worker_settings::ServerKey& key,
                             std::chrono::milliseconds timeout, const Resolve& resolve);
ConnectResult try_connection(const std::string& uri, const worker_settings::ServerKey& key,
                             std::chrono::milliseconds timeout);

/// Whether libzmq takes the bytes for a server key: any 32, and 40 or, with a zero behind them, 41
/// that are a key's Z85 text.
bool libzmq_takes_key(const worker_settings::ServerKey& key);
