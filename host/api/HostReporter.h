// Where the host's reports go.
#pragma once

#include <string>

#include "Reporter.h"

namespace host {

/// `*reporter`, or a reporter of last resort where that is null (before the process is set up and
/// after its end). Any thread; never destroyed.
Reporter& any_reporter();

/// Gets a report instead of stderr. `prefix` is what stands before the text there ("warning"), ""
/// for an info. Returns false to have it printed, too. Called by one thread at a time.
typedef bool (*ReportSink)(const char* prefix, const std::string& text);

/// Null: reports go to stderr.
void set_report_sink(ReportSink sink);

}  // namespace host
