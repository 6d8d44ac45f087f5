// State of the packet loop.
#pragma once

#include "util.h"

/// The host is ending. Main thread only.
extern bool terminating;
extern int reading_live;
extern int reading_traces;
