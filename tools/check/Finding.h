// What `zmqwriter check` found.
#pragma once

#include <string>
#include <vector>

namespace zmqwriter {

/// Errors and warnings make the check fail, notes do not. An error means that events are not
/// delivered, are lost, or carry another name than intended.
enum class Severity { kNote, kWarning, kError };

struct Finding {
  std::string id;  ///< a fixed word for programs
  Severity severity;
  std::string text;    ///< a sentence without full stop
  std::string remedy;  ///< likewise
};

using Findings = std::vector<Finding>;

inline void add_error(Findings* findings, const std::string& id, const std::string& text,
                      const std::string& remedy) {
  findings->push_back({id, Severity::kError, text, remedy});
}

inline void add_warning(Findings* findings, const std::string& id, const std::string& text,
                        const std::string& remedy) {
  findings->push_back({id, Severity::kWarning, text, remedy});
}

inline void add_note(Findings* findings, const std::string& id, const std::string& text,
                     const std::string& remedy) {
  findings->push_back({id, Severity::kNote, text, remedy});
}

}  // namespace zmqwriter
