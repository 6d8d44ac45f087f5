// SIGINT and SIGTERM as a request to come to a clean end.
//
// The first signal sets a flag and interrupts what blocks (EINTR); the second one of the same kind
// ends the process at once, as it would have without us.
#pragma once

#include <signal.h>

namespace zmqwriter {

/// Installs the handlers. Main thread, before others exist.
void catch_stop_signals();

/// Back to the default: the next one ends the process. Main thread.
void release_stop_signals();

/// Whether one has arrived. Any thread.
bool stop_requested();

/// Takes SIGHUP as a request to read configuration again, instead of ending the process. Main
/// thread, before others exist.
void catch_reload_signal();

/// Whether one has arrived since the last call. One thread.
bool take_reload_request();

/// Keeps signals away from threads that are started while it lives: they are the main thread's.
class SignalsHeldBack {
 public:
  SignalsHeldBack();
  ~SignalsHeldBack();
  SignalsHeldBack(const SignalsHeldBack&) = delete;
  SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;

 private:
  sigset_t previous_;
};

}  // namespace zmqwriter
