// The reporter, also where the global one is null (before a Host exists and after its end).
#pragma once

#include "Reporter.h"

namespace standin {

/// `*reporter`, or a reporter of last resort. Any thread; never destroyed before the process ends.
Reporter& host_reporter();

}  // namespace standin
