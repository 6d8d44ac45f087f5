// Signals as requests to end cleanly. Each interrupts calls that block (EINTR).
#pragma once

#include <signal.h>

namespace zmqwriter {

/// Makes SIGINT and SIGTERM requests to stop; a second one of the same kind ends the process at
/// once. Main thread, before others exist.
void catch_stop_signals();

/// The same for SIGHUP, unless it is ignored.
void catch_hangup_as_stop();

/// Makes SIGINT, SIGTERM and, unless it is ignored, SIGHUP requests to stop, of which none ends the
/// process. Main thread.
void count_stop_signals();

/// How many requests to stop have arrived. Any thread.
int stop_signals();
bool stop_requested();
/// Whether a further one has arrived that count_stop_signals kept from ending the process.
bool stop_urged();

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
