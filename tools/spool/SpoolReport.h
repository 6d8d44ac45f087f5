// What `spool list` prints for programs.
#pragma once

#include <string>

#include "SpoolSurvey.h"

namespace zmqwriter {

/// One JSON object and a line end. Bytes that are not valid UTF-8 are replaced.
std::string spool_as_json(const std::string& folder, const SpoolSurvey& survey);

/// In Prometheus' text format, each figure with the label `folder`.
std::string spool_as_metrics(const std::string& folder, const SpoolSurvey& survey);

}  // namespace zmqwriter
