#include "StopSignals.h"

#include <atomic>
#include <initializer_list>

namespace zmqwriter {

namespace {

std::atomic<int> requests{0};
std::atomic<bool> reload{false};
bool counts = false;  // set before other threads exist
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "signal handlers store to them");

void request_stop(int) {
  ++requests;
}

void request_reload(int) {
  reload.store(true);
}

void handle(int signal, void (*handler)(int), int flags = 0) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

void handle_hangup(int flags = 0) {
  struct sigaction before;
  if (sigaction(SIGHUP, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
    handle(SIGHUP, request_stop, flags);
}

}  // namespace

void catch_stop_signals() {
  for (const int signal : {SIGINT, SIGTERM})
    handle(signal, request_stop, SA_RESETHAND);
}

void catch_hangup_as_stop() {
  handle_hangup(SA_RESETHAND);
}

void count_stop_signals() {
  counts = true;
  for (const int signal : {SIGINT, SIGTERM})
    handle(signal, request_stop);
  handle_hangup();
}

int stop_signals() {
  return requests.load();
}

bool stop_requested() {
  return stop_signals() > 0;
}

bool stop_urged() {
  return counts && stop_signals() > 1;
}

void catch_reload_signal() {
  handle(SIGHUP, request_reload);
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
