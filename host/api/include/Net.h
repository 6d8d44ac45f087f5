// State of the packet loop.
#pragma once

/// The host is ending. Main thread only.
extern bool terminating;
