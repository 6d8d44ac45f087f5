// The host's pseudo-realtime mode, in which a trace is replayed as if it happened now.
#pragma once

namespace standin {

/// From now on current_time(false) gives `seconds` (since 1970), while current_time(true) stays the
/// wall clock; 0 ends it. Any thread.
void set_pseudo_time(double seconds);

}  // namespace standin
