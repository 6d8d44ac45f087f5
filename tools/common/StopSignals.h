// SIGINT and SIGTERM as a request to end cleanly.
//
// The first signal sets a flag and interrupts calls that block (EINTR). A second one of the same
// kind ends the process at once.
#pragma once

#include <signal.h>

namespace zmqwriter {

/// Installs the handlers. Main thread, before others exist.
void catch_stop_signals();

/// Restores the default: the next one ends the process. Main thread.
void release_stop_signals();

/// Whether one has arrived. Any thread.
bool stop_requested();

/// Makes SIGHUP a request to read configuration again. Main thread, before others exist.
void catch_reload_signal();

/// Whether one has arrived since the last call. One thread.
bool take_reload_request();

/// Blocks the signals in threads that are started while it lives, so the main thread gets them.
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
