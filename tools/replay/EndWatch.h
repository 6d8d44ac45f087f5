// Watches over the end of a replay in a thread of its own, so that it answers whatever the main
// thread is waiting for, e.g. the plug-in's stop, which takes 3 seconds for each event in memory
// while no server answers.
//
// The first stop signal is answered at once with what happens and how long it takes at most. From
// then on, or from Begin on, the end has `longest_s`; a second signal leaves it one second. If it
// takes longer, the watch closes the spool in the plug-in's place, and ends the process.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "SpoolAccount.h"

namespace zmqwriter {

class EndWatch {
 public:
  /// `spool` must outlive the watch.
  EndWatch(double longest_s, const SpoolAccount& spool);
  /// Does not return while the watch is ending the process.
  ~EndWatch();
  EndWatch(const EndWatch&) = delete;
  EndWatch& operator=(const EndWatch&) = delete;

  /// Begins the end, unless a signal has.
  void Begin();

  /// Records that were read and not delivered so far, and those that the next start sends again.
  void SetUnsent(std::int64_t unsent, std::uint64_t repeated) {
    unsent_ = unsent;
    repeated_ = repeated;
  }

 private:
  using Clock = std::chrono::steady_clock;

  void Watch();
  void AnswerSignals();
  [[noreturn]] void EndProcess();

  const double longest_s_;
  const SpoolAccount& spool_;
  std::atomic<std::int64_t> unsent_{0};
  std::atomic<std::uint64_t> repeated_{0};
  int answered_ = 0;  // signals; of the watch's thread

  std::mutex mutex_;
  // Guarded by mutex_.
  std::condition_variable changed_;
  bool done_ = false;
  Clock::time_point deadline_ = Clock::time_point::max();

  std::thread thread_;
};

}  // namespace zmqwriter
