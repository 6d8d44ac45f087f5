// Whether a running process has a spool's files open.
#pragma once

#include <string>
#include <vector>

namespace zmqwriter {

struct SpoolUsers {
  std::vector<long> processes;  // ids of the processes that have one of the files open
  /// Empty when every process could be looked into; otherwise why the list may lack some.
  std::string doubt;
};

/// Looks at the open files of all processes: in /proc where there is one, with lsof elsewhere. An
/// agent whose head file is closed at the moment (it has stored nothing yet, or has just rolled it
/// over) is not seen.
SpoolUsers find_spool_users(const std::vector<std::string>& paths);

}  // namespace zmqwriter
