// Events that a collector received and could not hand on before it ended.
//
// The file has the form of 'collect --format raw', so 'zmqwriter decode' reads it. Each event is
// followed by kIdLength characters within its record, which readers of the event do not see: the id
// that it was published under, so that one that is published again is stored once.
#pragma once

#include <string>
#include <vector>

namespace zmqwriter {

constexpr std::size_t kIdLength = 33;

struct UnsentEvent {
  std::string id;
  std::string raw;
};

/// A lock (flock on PATH.lock), as long as the descriptor is open: of two collectors with one file
/// the second would replace the events of the first. Throws std::runtime_error; also where the file
/// could not be written later.
int lock_unsent_file(const std::string& path);

/// Replaces the file, mode 0600; its content and its name are on disk before it returns. Throws
/// std::runtime_error; the former file is then unchanged, except where only the folder could not
/// be forced to disk.
void write_unsent_file(const std::string& path, const std::vector<UnsentEvent>& events);

/// None if there is no such file. Throws std::runtime_error when it cannot be read or is none of
/// these.
std::vector<UnsentEvent> read_unsent_file(const std::string& path);

}  // namespace zmqwriter
