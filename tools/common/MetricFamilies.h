// Figures in Prometheus' text format.
#pragma once

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zmqwriter {

class MetricFamilies {
 public:
  /// `prefix` begins the names of counters and gauges.
  explicit MetricFamilies(std::string prefix) : prefix_(std::move(prefix)) {}

  /// Without the prefix.
  void Add(const std::string& name, const std::string& help, prometheus::MetricType type) {
    prometheus::MetricFamily& family = families_.emplace_back();
    family.name = name;
    family.help = help;
    family.type = type;
  }
  void Counter(const std::string& name, const std::string& help) {
    Add(prefix_ + name, help, prometheus::MetricType::Counter);
  }
  void Gauge(const std::string& name, const std::string& help) {
    Add(prefix_ + name, help, prometheus::MetricType::Gauge);
  }

  /// A value of the family that was added last.
  template <typename Number>
  void Value(Number number, const char* label = nullptr, const std::string& value = "") {
    prometheus::ClientMetric& metric = families_.back().metric.emplace_back();
    metric.counter.value = metric.gauge.value = static_cast<double>(number);
    if (label) {
      metric.label.resize(1);
      metric.label[0].name = label;
      metric.label[0].value = value;
    }
  }

  template <typename Tallies, typename Tally>
  void Values(const char* label, const Tallies& tallies, std::uint64_t Tally::*figure) {
    for (const auto& [name, tally] : tallies)
      Value(tally.*figure, label, name);
  }

  std::string Text() const { return prometheus::TextSerializer().Serialize(families_); }

 private:
  std::string prefix_;
  std::vector<prometheus::MetricFamily> families_;
};

}  // namespace zmqwriter
