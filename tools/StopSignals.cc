#include "StopSignals.h"

#include <signal.h>

#include <atomic>

namespace {

std::atomic<bool> requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler stores to it");

void request_stop(int) {
  requested.store(true);
}

}  // namespace

void catch_stop_signals() {
  struct sigaction action = {};
  action.sa_handler = request_stop;
  action.sa_flags = SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool stop_requested() {
  return requested.load();
}
