#include "StatsPrinter.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "ProgressLine.h"
#include "StopSignals.h"
#include "Text.h"

namespace zmqwriter {

namespace {

using Named = std::pair<std::string, Tally>;

// A year. Much longer times would overflow the clock.
constexpr double kLongestWait = 365.0 * 24 * 3600;

// On a narrower terminal, the table has the rate of events only, so that the names have room.
constexpr std::size_t kWideTable = 72;

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

/// How much the tallies have grown; all of them, or those that have.
template <typename Counted>
std::vector<Named> grown(const std::map<std::string, Counted>& before,
                         const std::map<std::string, Counted>& after, bool all = false) {
  std::vector<Named> result;
  for (const auto& [name, tally] : after) {
    const auto old = before.find(name);
    // An agent that made room for another and came back counts anew.
    const bool anew = old == before.end() || tally.events < old->second.events;
    const Tally more = difference(tally, anew ? Counted() : old->second);
    if (all || more.events > 0)
      result.emplace_back(name, more);
  }
  return result;
}

void sort_by_events(std::vector<Named>* agents) {
  std::stable_sort(agents->begin(), agents->end(), [](const Named& a, const Named& b) {
    return a.second.events > b.second.events;
  });
}

std::string cut(const std::string& line, std::size_t columns) {
  std::size_t at = 0;
  while (at < line.size() && columns-- > 0)
    at += utf8_length(reinterpret_cast<const unsigned char*>(line.data()) + at, line.size() - at);
  return line.substr(0, at);
}

/// Rows and columns of the terminal.
std::pair<std::size_t, std::size_t> terminal_size() {
  winsize size = {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
    return {24, 80};
  return {std::max<std::size_t>(size.ws_row, 2), size.ws_col};
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
  sort_by_events(&agents);
  const std::size_t shown = std::min(agents.size(), StatsPrinter::kMostAgents);
  for (std::size_t i = 0; i < shown; ++i)
    text += "[stats]   agent " + agents[i].first + ": " + rates(agents[i].second, seconds) + '\n';
  if (shown < agents.size())
    text += "[stats]   and " + std::to_string(agents.size() - shown) + " agents more\n";
  return text;
}

std::vector<std::string> stats_table(const CollectCounts& before, const CollectCounts& after,
                                     double seconds, std::size_t rows, std::size_t columns) {
  const bool narrow = columns < kWideTable;
  const auto row = [&](const std::string& name, const Tally& more, std::uint64_t events) {
    std::string line = formatted("%12.1f", static_cast<double>(more.events) / seconds);
    if (!narrow)
      line += formatted("%14.0f", static_cast<double>(more.bytes) / seconds) +
              formatted("%15.0f", static_cast<double>(events));
    return line + "  " + name;
  };
  std::vector<Named> agents = grown(before.by_agent, after.by_agent, true);
  sort_by_events(&agents);
  const std::uint64_t bad = after.messages() - after.all.events;
  std::vector<std::string> lines = {
      "", std::string("    events/s") + (narrow ? "" : "       bytes/s         events") + "  agent",
      row("all: " + counted(agents.size(), "agent") + ", " + counted(bad, "bad message"),
          difference(after.all, before.all), after.all.events)};
  const std::size_t room = rows - std::min(rows, lines.size());
  const std::size_t shown =
      agents.size() <= room ? agents.size() : std::max<std::size_t>(room, 1) - 1;
  for (std::size_t i = 0; i < shown; ++i)
    lines.push_back(
        row(agents[i].first, agents[i].second, after.by_agent.at(agents[i].first).events));
  if (shown < agents.size())
    lines.push_back("and " + counted(agents.size() - shown, "agent") + " more");
  lines.resize(std::min(lines.size(), rows));
  for (std::string& line : lines)
    line = cut(line, columns);
  return lines;
}

StatsPrinter::StatsPrinter(const CollectStats& stats, double interval_s, bool draws)
    : stats_(stats),
      interval_(std::min(interval_s, kLongestWait)),
      draws_(draws && can_overwrite_lines()),
      reported_at_(Clock::now()) {
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
  Report(true);
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
    Report(false);
  }
}

/// Writes a report in one call, so that no other line gets in between.
void StatsPrinter::Report(bool last) {
  CollectCounts counts = stats_.Counts();
  const auto now = Clock::now();
  const double seconds = std::max(std::chrono::duration<double>(now - reported_at_).count(), 1e-6);
  std::string text;
  if (draws_) {
    const auto [rows, columns] = terminal_size();
    // One row is left for the cursor, which goes back to the first line.
    const auto lines = stats_table(reported_, counts, seconds, rows - 1, columns);
    text = "\r\033[J\033[?7l";  // clear the rest; no line wraps, whatever its letters' width
    for (const std::string& line : lines)
      text += line + '\n';
    text += "\033[?7h";
    if (!last)
      text += "\033[" + std::to_string(lines.size()) + 'A';
  } else {
    text = stats_report(reported_, counts, seconds);
  }
  std::fwrite(text.data(), 1, text.size(), stderr);
  reported_ = std::move(counts);
  reported_at_ = now;
}

}  // namespace zmqwriter
