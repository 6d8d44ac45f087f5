// Rates on standard error, every so many seconds and once more at the end:
//
//     [stats] 5.0 s: 600 events (120.0/s), 172800 bytes (34560/s), 1 empty (0.2/s), ...
//     [stats]   HttpData: 500 events (100.0/s), 144000 bytes (28800/s)
//     [stats]   agent agent-7: 600 events (120.0/s), 172800 bytes (34560/s)
//
// The figures count from the report before, so those of all reports add up to the totals. Types and
// agents without new events are left out. Of the agents only the busiest kMostAgents are named, and
// the number of the others is given. A thread of its own reports even while the output blocks.
//
// On a terminal a table of all agents, the busiest first, is drawn over the one before. The cursor
// stays on its first line, which is empty, so that other messages come to stand above the table.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CollectStats.h"

namespace zmqwriter {

class StatsPrinter {
 public:
  static constexpr std::size_t kMostAgents = 10;

  /// `stats` must outlive this. `draws`: draw the table if standard error is a terminal that can.
  StatsPrinter(const CollectStats& stats, double interval_s, bool draws);
  /// Calls Finish.
  ~StatsPrinter();
  StatsPrinter(const StatsPrinter&) = delete;
  StatsPrinter& operator=(const StatsPrinter&) = delete;

  /// Ends the thread and prints the last report.
  void Finish();

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  void Report(bool last);

  const CollectStats& stats_;
  const std::chrono::duration<double> interval_;
  const bool draws_;
  CollectCounts reported_;         // the thread's; the caller's once it has ended
  Clock::time_point reported_at_;  // as reported_
  std::mutex mutex_;
  std::condition_variable ended_;
  bool end_ = false;  // guarded by mutex_
  std::thread thread_;
};

/// The text of a report: what was counted between the two, in so many seconds.
std::string stats_report(const CollectCounts& before, const CollectCounts& after, double seconds);

/// The lines of the table, at most `rows` of at most `columns` characters.
std::vector<std::string> stats_table(const CollectCounts& before, const CollectCounts& after,
                                     double seconds, std::size_t rows, std::size_t columns);

}  // namespace zmqwriter
