#include "CollectStats.h"

#include "EventJson.h"
#include "Text.h"

namespace zmqwriter {

namespace {

using Lock = std::lock_guard<std::mutex>;

void add(Tally* tally, std::size_t size) {
  ++tally->events;
  tally->bytes += size;
}

}  // namespace

std::string agent_label(std::string_view name) {
  const auto escape = [](char c) { return "\\x" + hex_digits(&c, 1, kLowerHex); };
  std::string text;
  for (const char c : name)
    text += c == '\\' || (c == '(' && text.empty()) ? escape(c) : std::string(1, c);
  return printable(text, escape);
}

Tally* CollectStats::AgentTally(std::string_view agent) {
  agent = agent.substr(0, kLongestAgent);
  const auto known = by_agent_.find(agent);
  if (known != by_agent_.end())
    return &known->second;
  if (by_agent_.size() >= kMostAgents)
    return &other_agents_;
  return &by_agent_[std::string(agent)];
}

void CollectStats::CountEvent(const EventMessage& event, std::size_t size) {
  const Lock lock(mutex_);
  add(&counts_.all, size);
  add(&by_type_[event.PayloadNumber()], size);
  add(AgentTally(event.AgentId()), size);
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

void CollectStats::NoteOutput(std::uint64_t written_bytes, std::uint64_t finished_files,
                              bool stalled) {
  const Lock lock(mutex_);
  counts_.written_bytes = written_bytes;
  counts_.finished_files = finished_files;
  counts_.stalled = stalled;
}

CollectCounts CollectStats::Counts() const {
  const Lock lock(mutex_);
  CollectCounts counts = counts_;
  for (unsigned number = 0; number < 256; ++number) {
    if (by_type_[number].events > 0)
      counts.by_type[payload_type_name(static_cast<std::uint8_t>(number))] = by_type_[number];
  }
  for (const auto& [name, tally] : by_agent_)
    counts.by_agent[name.empty() ? kNoAgent : agent_label(name)] = tally;
  if (other_agents_.events > 0)
    counts.by_agent[kOtherAgents] = other_agents_;
  return counts;
}

}  // namespace zmqwriter
