// Shows a collector over HTTP: a page for a person at /, /status.json behind it, /metrics for
// Prometheus, and /healthz, whose status is 503 while the output accepts nothing.
//
// libmicrohttpd serves all connections from one thread of its own, so slow clients do not keep
// others waiting. It also answers while the output blocks.
#pragma once

#include <string>

#include "Metrics.h"

struct MHD_Daemon;

namespace zmqwriter {

/// Empty if the text is HOST:PORT, with a host that is a name, an IPv4 address or an IPv6 address
/// in brackets; else what is wrong.
std::string metrics_address_problem(const std::string& address);

class StatusServer {
 public:
  /// Listens on `address`, HOST:PORT; port 0 lets the system choose. Throws std::runtime_error that
  /// names the address.
  StatusServer(const std::string& address, const Watched& collector);
  /// Ends all connections.
  ~StatusServer();
  StatusServer(const StatusServer&) = delete;
  StatusServer& operator=(const StatusServer&) = delete;

  /// "http://127.0.0.1:9155/", with the port that the system chose.
  const std::string& url() const { return url_; }

 private:
  const Watched collector_;
  std::string url_;
  MHD_Daemon* daemon_;
};

}  // namespace zmqwriter
