// What `zmqwriter check` found, in one form for all that it looks at.
#pragma once

#include <string>
#include <vector>

namespace zmqwriter {

/// A note is worth knowing; warnings and errors make the check fail. An error means that events do
/// not get through, are lost, or carry another name than meant.
enum class Severity { kNote, kWarning, kError };

struct Finding {
  std::string id;  ///< a fixed word for machines
  Severity severity;
  std::string text;    ///< a sentence without full stop
  std::string remedy;  ///< likewise
};

using Findings = std::vector<Finding>;

}  // namespace zmqwriter
