#include "StopSignals.h"

#include <atomic>
#include <initializer_list>

namespace zmqwriter {

namespace {

std::atomic<bool> requested{false};
std::atomic<bool> reload{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler stores to it");

void request_stop(int) {
  requested.store(true);
}

void request_reload(int) {
  reload.store(true);
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

void catch_reload_signal() {
  struct sigaction action = {};
  action.sa_handler = request_reload;
  sigemptyset(&action.sa_mask);
  sigaction(SIGHUP, &action, nullptr);
}

bool take_reload_request() {
  return reload.exchange(false);
}

SignalsHeldBack::SignalsHeldBack() {
  sigset_t ours;
  sigemptyset(&ours);
  for (const int number : {SIGINT, SIGTERM, SIGHUP})
    sigaddset(&ours, number);
  pthread_sigmask(SIG_BLOCK, &ours, &previous_);
}

SignalsHeldBack::~SignalsHeldBack() {
  pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

}  // namespace zmqwriter
