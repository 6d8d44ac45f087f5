#include "StopSignals.h"

#include <signal.h>

#include <atomic>

namespace {

std::atomic<bool> requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler stores to it");

void request_stop(int) {
  requested.store(true);
}

void handle_stop_signals(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

void catch_stop_signals() {
  handle_stop_signals(request_stop);
}

void release_stop_signals() {
  handle_stop_signals(SIG_DFL);
}

bool stop_requested() {
  return requested.load();
}
