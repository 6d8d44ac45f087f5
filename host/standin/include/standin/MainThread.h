// Who the main thread is.
//
// The host allows most of its interface on its main thread only. The thread that constructs a
// standin::Host is the main thread while it exists; without one no thread is, and nothing is
// checked.
#pragma once

namespace standin {

/// Makes the calling thread the main thread.
void set_main_thread();
/// From now on there is no main thread.
void forget_main_thread();
/// Whether the caller is the main thread, or there is none.
bool on_main_thread();
/// Ends the process ("... was called on thread ...") unless on_main_thread().
void require_main_thread(const char* what);

/// Sets the host's network_time, also for reports from other threads. Main thread.
void set_network_time(double seconds);

}  // namespace standin
