#include "CollectStats.h"

#include <algorithm>
#include <chrono>

#include "EventJson.h"
#include "Text.h"

namespace zmqwriter {

namespace {

using Lock = std::lock_guard<std::mutex>;

void add(Tally* tally, const Tally& more) {
  tally->events += more.events;
  tally->bytes += more.bytes;
}

constexpr double kMinute = 60;

}  // namespace

void Traffic::Add(std::uint64_t size, double now) {
  if (events == 0)
    first_ = last_ = now;
  last_ = std::max(last_, now);
  const auto minute = static_cast<std::int64_t>(last_ / kMinute);
  for (auto passed = std::max(minute_ + 1, minute - kMinutes + 1); passed <= minute; ++passed)
    minutes_[static_cast<std::size_t>(passed % kMinutes)] = {};
  minute_ = minute;
  add(&minutes_[static_cast<std::size_t>(minute % kMinutes)], {1, size});
  add(this, {1, size});
}

Tally Traffic::Minute(std::int64_t minute) const {
  return minute <= minute_ && minute > minute_ - kMinutes
             ? minutes_[static_cast<std::size_t>(minute % kMinutes)]
             : Tally();
}

std::array<Tally, Traffic::kMinutes> Traffic::Minutes(double now) const {
  std::array<Tally, kMinutes> minutes;
  const auto newest = static_cast<std::int64_t>(now / kMinute);
  for (int i = 0; i < kMinutes; ++i)
    minutes[static_cast<std::size_t>(i)] = Minute(newest - kMinutes + 1 + i);
  return minutes;
}

std::pair<double, double> Traffic::Rates(double now) const {
  const auto minute = static_cast<std::int64_t>(now / kMinute);
  Tally recent = Minute(minute - 1);
  add(&recent, Minute(minute));
  const double since = std::max(first_, static_cast<double>(minute - 1) * kMinute);
  const double seconds = std::max(now - since, 1.0);
  return {static_cast<double>(recent.events) / seconds,
          static_cast<double>(recent.bytes) / seconds};
}

std::string agent_label(std::string_view name) {
  const auto escape = [](char c) { return "\\x" + hex_digits(&c, 1, kLowerHex); };
  std::string text;
  for (const char c : name)
    text += c == '\\' || (c == '(' && text.empty()) ? escape(c) : std::string(1, c);
  return printable(text, escape);
}

double CollectStats::Now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

Traffic* CollectStats::AgentTraffic(std::string_view agent) {
  agent = agent.substr(0, kLongestAgent);
  const auto known = by_agent_.find(agent);
  if (known != by_agent_.end())
    return &known->second;
  if (by_agent_.size() >= most_agents_)
    MakeRoom();
  return &by_agent_[std::string(agent)];
}

/// A walk over all agents for each name would cost more than the event, so one fills oldest_:
/// agents that come or are seen later are younger than all in it.
void CollectStats::MakeRoom() {
  for (;;) {
    if (oldest_.empty()) {
      for (auto agent = by_agent_.begin(); agent != by_agent_.end(); ++agent)
        oldest_.emplace_back(agent->second.last(), agent);
      std::sort(oldest_.begin(), oldest_.end(),
                [](const auto& a, const auto& b) { return a.first > b.first; });
    }
    const auto [seen, agent] = oldest_.back();
    oldest_.pop_back();
    if (agent->second.last() > seen)
      continue;
    add(&other_agents_, agent->second);
    by_agent_.erase(agent);
    return;
  }
}

void CollectStats::CountEvent(const EventMessage& event, std::size_t size, double now) {
  const Lock lock(mutex_);
  counts_.all.Add(size, now);
  add(&by_type_[event.PayloadNumber()], {1, size});
  AgentTraffic(event.AgentId())->Add(size, now);
}

void CollectStats::CountEmpty() {
  const Lock lock(mutex_);
  ++counts_.empty;
}

void CollectStats::CountMalformed() {
  const Lock lock(mutex_);
  ++counts_.malformed;
}

void CollectStats::CountMultiPart() {
  const Lock lock(mutex_);
  ++counts_.multi_part;
}

void CollectStats::CountRefusal(Refusal reason) {
  const Lock lock(mutex_);
  ++counts_.refused[static_cast<std::size_t>(reason)];
}

void CollectStats::CountMemoryLimit() {
  const Lock lock(mutex_);
  ++counts_.ended_for_memory;
}

void CollectStats::NoteEndpoints(const std::vector<std::string>& bound) {
  const Lock lock(mutex_);
  counts_.endpoints = bound;
}

void CollectStats::NoteConnections(std::uint64_t open) {
  const Lock lock(mutex_);
  counts_.connections = open;
}

void CollectStats::NoteOutput(std::uint64_t written_bytes, std::uint64_t finished_files,
                              bool stalled) {
  const Lock lock(mutex_);
  counts_.written_bytes = written_bytes;
  counts_.finished_files = finished_files;
  counts_.stalled = stalled;
}

void CollectStats::NoteStream(const StreamFigures& figures) {
  const Lock lock(mutex_);
  counts_.stream = figures;
}

std::uint64_t CollectStats::Connections() const {
  const Lock lock(mutex_);
  return counts_.connections;
}

CollectCounts CollectStats::Counts() const {
  const Lock lock(mutex_);
  CollectCounts counts = counts_;
  for (unsigned number = 0; number < 256; ++number) {
    if (by_type_[number].events > 0)
      counts.by_type[payload_type_name(static_cast<std::uint8_t>(number))] = by_type_[number];
  }
  for (const auto& [name, traffic] : by_agent_)
    counts.by_agent[name.empty() ? kNoAgent : agent_label(name)] = traffic;
  if (other_agents_.events > 0)
    counts.by_agent[kOtherAgents] = other_agents_;
  return counts;
}

}  // namespace zmqwriter
