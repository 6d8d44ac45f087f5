#include "Net.h"

#include "NetVar.h"

bool terminating = false;
int reading_live = 0;
int reading_traces = 0;

bro_uint_t bits_per_uid = 96;

namespace BifConst {
namespace Threading {
double heartbeat_interval = 1.0;
}
}  // namespace BifConst
