#include "EndWatch.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>

#include "ProgressLine.h"
#include "SpoolRepair.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

constexpr auto kPoll = std::chrono::milliseconds(10);
constexpr auto kAfterSecondSignal = std::chrono::seconds(1);
// The clock cannot add much longer times.
constexpr double kLongest_s = 1e9;

}  // namespace

EndWatch::EndWatch(double longest_s, const SpoolAccount& spool)
    : longest_s_(std::min(longest_s, kLongest_s)), spool_(spool) {
  const SignalsHeldBack held_back;
  thread_ = std::thread(&EndWatch::Watch, this);
}

EndWatch::~EndWatch() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void EndWatch::Begin() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto longest = std::chrono::duration<double>(longest_s_);
  deadline_ = std::min(deadline_, Clock::now() + std::chrono::ceil<Clock::duration>(longest));
}

void EndWatch::Watch() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!changed_.wait_for(lock, kPoll, [this] { return done_; })) {
    lock.unlock();
    AnswerSignals();
    lock.lock();
    if (!done_ && Clock::now() >= deadline_)
      EndProcess();
  }
}

void EndWatch::AnswerSignals() {
  // Over the line with the progress, if there is one.
  const char* const new_line = can_overwrite_lines() ? "\r\033[K" : "";
  const int signals = stop_signals();
  if (signals > 0 && answered_ == 0) {
    Begin();
    std::fprintf(
        stderr,
        "%sstopping: no more is read, and what was read is sent if a server takes it; "
        "this takes at most %g seconds, and a second signal closes the spool and ends it\n",
        new_line, longest_s_);
  }
  if (signals > 1 && answered_ < 2) {
    const std::lock_guard<std::mutex> lock(mutex_);
    deadline_ = std::min(deadline_, Clock::now() + kAfterSecondSignal);
    std::fprintf(stderr, "%sclosing the spool\n", new_line);
  }
  answered_ = signals;
}

void EndWatch::EndProcess() {
  std::fprintf(stderr, "the plug-in has not stopped in time; what it held in memory is %s\n",
               spool_.read_again() ? "read again by the next start" : "lost");
  try {
    close_spool(spool_.folder());
    spool_.EndWithoutStop(unsent_, repeated_);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
  }
  _exit(1);
}

}  // namespace zmqwriter
