// SIGINT and SIGTERM as a request to come to a clean end.
//
// The first signal sets a flag and interrupts what blocks (EINTR); the second one of the same kind
// ends the process at once, as it would have without us.
#pragma once

/// Installs the handlers. Main thread, before others exist.
void catch_stop_signals();

/// Back to the default: the next one ends the process. Main thread.
void release_stop_signals();

/// Whether one has arrived. Any thread.
bool stop_requested();
