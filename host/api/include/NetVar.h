// Script variables that the host's C++ code knows.
#pragma once

#include "Func.h"
#include "Val.h"

/// Bits of a connection's uid.
extern bro_uint_t bits_per_uid;

namespace BifConst {
namespace Threading {
/// Seconds between heartbeats.
extern double heartbeat_interval;
}  // namespace Threading
}  // namespace BifConst
