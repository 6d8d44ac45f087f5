// Making records countable again that an unclean stop left behind.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "SpoolReader.h"

namespace zmqwriter {

/// What would make the next start of the plug-in find all records of a file.
struct HeaderRepair {
  std::string path;
  std::uint32_t used_size;
  std::uint32_t record_count;
  std::size_t records_before;  // that the plug-in found without the repair
};

/// A file that no start finds, because its number follows a gap or because the plug-in set it
/// aside, and the name that it should have.
struct Renaming {
  std::string from;
  std::string to;
};

struct RepairPlan {
  std::vector<HeaderRepair> headers;
  std::vector<Renaming> renamings;   // in the order in which none overwrites another
  std::vector<std::string> refused;  // "FILE: what is wrong", for damage that is left as it is
};

/// Looks at the files `numbers` of `folder` and changes nothing.
RepairPlan plan_repair(const std::string& folder, const std::vector<std::uint32_t>& numbers,
                       const std::function<bool(const std::string& payload)>& is_event);

/// Copies the file to a new name beside it that no start looks at, then replaces its 12 header
/// bytes. Returns the copy's path. Throws std::runtime_error; the header is untouched unless the
/// copy is whole and on disk.
std::string repair_header(const HeaderRepair& repair);

/// Throws std::runtime_error, also when the new name is taken.
void rename_chunk(const Renaming& renaming);

}  // namespace zmqwriter
