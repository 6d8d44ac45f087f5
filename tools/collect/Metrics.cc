#include "Metrics.h"

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

#include "ClientGate.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;

// Clients that keep their connection open block a thread each, until their time limit.
constexpr const char* kServerThreads = "4";
constexpr const char* kRequestTimeoutMs = "2000";

class Counts : public prometheus::Collectable {
 public:
  Counts(const CollectStats& stats, const ClientGate* gate) : stats_(stats), gate_(gate) {}

  std::vector<MetricFamily> Collect() const override {
    const CollectCounts counts = stats_.Counts();
    std::vector<MetricFamily> families = {
        Tallies("events_total", "Events received, by payload type.", "type", counts.by_type,
                &Tally::events),
        Tallies("event_bytes_total", "Bytes of these events.", "type", counts.by_type,
                &Tally::bytes),
        Tallies("agent_events_total", "Events received, by agent.", "agent", counts.by_agent,
                &Tally::events),
        Tallies("agent_event_bytes_total", "Bytes of these events.", "agent", counts.by_agent,
                &Tally::bytes),
        BadMessages(counts),
        Single("output_bytes_total", "Bytes written to the output.", counts.written_bytes),
        Single("output_files_finished_total", "Output files moved aside by rotation.",
               counts.finished_files),
        Stalled(counts)};
    if (gate_)
      families.push_back(Clients());
    return families;
  }

 private:
  static MetricFamily Family(const std::string& name, const std::string& help) {
    MetricFamily family;
    family.name = "zmqwriter_collect_" + name;
    family.help = help;
    family.type = prometheus::MetricType::Counter;
    return family;
  }

  static ClientMetric Counter(std::uint64_t value) {
    ClientMetric metric;
    metric.counter.value = static_cast<double>(value);
    return metric;
  }

  static ClientMetric Counter(const char* label, const std::string& name, std::uint64_t value) {
    ClientMetric metric = Counter(value);
    ClientMetric::Label named;
    named.name = label;
    named.value = name;
    metric.label.push_back(named);
    return metric;
  }

  static MetricFamily Single(const char* name, const char* help, std::uint64_t value) {
    MetricFamily family = Family(name, help);
    family.metric.push_back(Counter(value));
    return family;
  }

  static MetricFamily Stalled(const CollectCounts& counts) {
    MetricFamily family = Family("output_stalled", "1 while the output accepts nothing.");
    family.type = prometheus::MetricType::Gauge;
    family.metric.emplace_back().gauge.value = counts.stalled ? 1 : 0;
    return family;
  }

  using Figure = std::uint64_t Tally::*;
  static MetricFamily Tallies(const char* name, const char* help, const char* label,
                              const std::map<std::string, Tally>& tallies, Figure figure) {
    MetricFamily family = Family(name, help);
    for (const auto& [key, tally] : tallies)
      family.metric.push_back(Counter(label, key, tally.*figure));
    return family;
  }

  static MetricFamily BadMessages(const CollectCounts& counts) {
    MetricFamily family = Family("bad_messages_total", "Messages that are not events, by reason.");
    family.metric = {Counter("reason", "empty", counts.empty),
                     Counter("reason", "malformed", counts.malformed),
                     Counter("reason", "multi_part", counts.multi_part)};
    return family;
  }

  MetricFamily Clients() const {
    MetricFamily family = Family("clients_total", "Clients that asked to connect, by answer.");
    family.metric = {Counter("answer", "accepted", gate_->accepted()),
                     Counter("answer", "denied", gate_->denied())};
    return family;
  }

  const CollectStats& stats_;
  const ClientGate* const gate_;
};

}  // namespace

Metrics::Metrics(const std::string& address, const CollectStats& stats, const ClientGate* gate)
    : counts_(std::make_shared<Counts>(stats, gate)) {
  const SignalsHeldBack held_back;
  try {
    server_ = std::make_unique<prometheus::Exposer>(
        std::vector<std::string>{"listening_ports", address, "num_threads", kServerThreads,
                                 "request_timeout_ms", kRequestTimeoutMs});
  } catch (const std::exception&) {
    throw std::runtime_error("cannot serve metrics on '" + address +
                             "': not an address of this machine, or in use by another program");
  }
  server_->RegisterCollectable(counts_);
  url_ = "http://" + address.substr(0, address.rfind(':') + 1) +
         std::to_string(server_->GetListeningPorts().at(0)) + "/metrics";
}

Metrics::~Metrics() = default;

}  // namespace zmqwriter
