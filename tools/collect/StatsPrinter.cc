#include "StatsPrinter.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "StopSignals.h"
#include "Text.h"

namespace zmqwriter {

namespace {

using Named = std::pair<std::string, Tally>;

// A year. Much longer times would overflow the clock.
constexpr double kLongestWait = 365.0 * 24 * 3600;

std::string rate(std::uint64_t count, const char* what, double seconds, const char* format) {
  return std::to_string(count) + ' ' + what + " (" +
         formatted(format, static_cast<double>(count) / seconds) + "/s)";
}

std::string rates(const Tally& tally, double seconds) {
  return rate(tally.events, "events", seconds, "%.1f") + ", " +
         rate(tally.bytes, "bytes", seconds, "%.0f");
}

Tally difference(const Tally& after, const Tally& before) {
  return {after.events - before.events, after.bytes - before.bytes};
}

/// The tallies that have grown, and by how much.
template <typename Counted>
std::vector<Named> grown(const std::map<std::string, Counted>& before,
                         const std::map<std::string, Counted>& after) {
  std::vector<Named> result;
  for (const auto& [name, tally] : after) {
    const auto old = before.find(name);
    // An agent that made room for another and came back counts anew.
    const bool anew = old == before.end() || tally.events < old->second.events;
    const Tally more = difference(tally, anew ? Counted() : old->second);
    if (more.events > 0)
      result.emplace_back(name, more);
  }
  return result;
}

}  // namespace

std::string stats_report(const CollectCounts& before, const CollectCounts& after, double seconds) {
  const auto counted = [seconds](std::uint64_t now, std::uint64_t then, const char* what) {
    return ", " + rate(now - then, what, seconds, "%.1f");
  };
  std::string text = "[stats] " + formatted("%.1f", seconds) +
                     " s: " + rates(difference(after.all, before.all), seconds) +
                     counted(after.empty, before.empty, "empty") +
                     counted(after.malformed, before.malformed, "malformed") +
                     counted(after.multi_part, before.multi_part, "multi-part") + '\n';
  for (const auto& [type, tally] : grown(before.by_type, after.by_type))
    text += "[stats]   " + type + ": " + rates(tally, seconds) + '\n';

  std::vector<Named> agents = grown(before.by_agent, after.by_agent);
  std::stable_sort(agents.begin(), agents.end(), [](const Named& a, const Named& b) {
    return a.second.events > b.second.events;
  });
  const std::size_t shown = std::min(agents.size(), StatsPrinter::kMostAgents);
  for (std::size_t i = 0; i < shown; ++i)
    text += "[stats]   agent " + agents[i].first + ": " + rates(agents[i].second, seconds) + '\n';
  if (shown < agents.size())
    text += "[stats]   and " + std::to_string(agents.size() - shown) + " agents more\n";
  return text;
}

StatsPrinter::StatsPrinter(const CollectStats& stats, double interval_s)
    : stats_(stats), interval_(std::min(interval_s, kLongestWait)), reported_at_(Clock::now()) {
  const SignalsHeldBack held_back;
  thread_ = std::thread(&StatsPrinter::Run, this);
}

StatsPrinter::~StatsPrinter() {
  Finish();
}

void StatsPrinter::Finish() {
  if (!thread_.joinable())
    return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    end_ = true;
  }
  ended_.notify_all();
  thread_.join();
  Report();
}

void StatsPrinter::Run() {
  auto due = Clock::now();
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    // After a report that was late, because standard error blocked, the others follow in their
    // time.
    due = std::max(due + std::chrono::duration_cast<Clock::duration>(interval_), Clock::now());
    if (ended_.wait_until(lock, due, [this] { return end_; }))
      return;
    Report();
  }
}

/// Writes a report in one call, so that no other line gets in between.
void StatsPrinter::Report() {
  CollectCounts counts = stats_.Counts();
  const auto now = Clock::now();
  const double seconds = std::max(std::chrono::duration<double>(now - reported_at_).count(), 1e-6);
  const std::string text = stats_report(reported_, counts, seconds);
  std::fwrite(text.data(), 1, text.size(), stderr);
  reported_ = std::move(counts);
  reported_at_ = now;
}

}  // namespace zmqwriter
