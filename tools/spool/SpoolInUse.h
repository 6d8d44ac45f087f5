// Whether a running process has a spool's files open.
#pragma once

#include <string>
#include <vector>

namespace zmqwriter {

struct SpoolUsers {
  std::vector<long> processes;  // ids of the processes that have one of the files open
  /// Why the list may be incomplete; empty when it is complete.
  std::string doubt;
};

/// Searches the open files of all processes: in /proc where it exists, with lsof elsewhere. Does
/// not find an agent whose head file is closed at the moment: one that has stored nothing yet, or
/// has just begun a new head.
SpoolUsers find_spool_users(const std::vector<std::string>& paths);

/// The processes other than this one that have files of a spool's folder open, as far as this user
/// may see. Throws std::runtime_error that names the folder when it cannot be read.
std::vector<long> other_spool_processes(const std::string& folder);

/// The same in words: "process 12, 13". Empty if there is none.
std::string other_spool_users(const std::string& folder);

}  // namespace zmqwriter
