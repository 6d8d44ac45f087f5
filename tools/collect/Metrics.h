// The counts of a collector for Prometheus, over HTTP.
//
// The server, its threads and the text format are prometheus-cpp's. Counts are taken at each
// scrape; CollectStats limits the number of labels. The server also answers while the output
// blocks. A client that does not finish its request is disconnected after 2 s.
#pragma once

#include <memory>
#include <string>

#include "CollectStats.h"

namespace prometheus {
class Collectable;
class Exposer;
}  // namespace prometheus

namespace zmqwriter {

class ClientGate;

class Metrics {
 public:
  /// Listens on `address`, HOST:PORT; port 0 lets the system choose. `gate` may be null. Both must
  /// outlive this. Throws std::runtime_error that names the address.
  Metrics(const std::string& address, const CollectStats& stats, const ClientGate* gate);
  /// Waits for unfinished requests, at most about 2 s.
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  /// "http://127.0.0.1:9100/metrics", with the port that the system chose.
  const std::string& url() const { return url_; }

 private:
  std::shared_ptr<prometheus::Collectable> counts_;
  std::unique_ptr<prometheus::Exposer> server_;
  std::string url_;
};

}  // namespace zmqwriter
