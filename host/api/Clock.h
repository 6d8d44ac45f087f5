// The host's pseudo-realtime mode, in which a trace is replayed as if it happened now.
#pragma once

#include <atomic>

namespace host {

/// What current_time(false) gives, in seconds since 1970; 0: the wall clock. Any thread.
extern std::atomic<double> pseudo_time;

}  // namespace host
