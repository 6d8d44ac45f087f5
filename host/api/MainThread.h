// Who the host's main thread is.
//
// The host allows most of its interface on its main thread only. Whoever makes a process of the
// stand-in says which thread that is; until then no thread is, and nothing is checked.
#pragma once

namespace host {

/// Makes the calling thread the main thread.
void set_main_thread();
/// From now on there is no main thread.
void forget_main_thread();
/// Whether the caller is the main thread, or there is none.
bool on_main_thread();
/// Ends the process ("... belongs to the host's main thread") unless on_main_thread().
void require_main_thread(const char* what);

}  // namespace host
