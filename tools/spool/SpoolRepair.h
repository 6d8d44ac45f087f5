// Repair of a spool after an unclean stop, so that the plug-in's next start finds all records.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "SpoolReader.h"

namespace zmqwriter {

/// A new header, with which the plug-in finds all records of a file.
struct HeaderRepair {
  std::string path;
  std::uint32_t used_size;
  std::uint32_t record_count;
  std::size_t records_before;  // that the plug-in finds without the repair
};

/// A file that no start finds, because its number follows a gap or because the plug-in set it
/// aside, and its new name.
struct Renaming {
  std::string from;
  std::string to;
};

struct RepairPlan {
  std::vector<HeaderRepair> headers;
  std::vector<Renaming> renamings;   // in an order in which none overwrites another
  std::vector<std::string> refused;  // "FILE: what is wrong", for files that are left unchanged
};

/// Plans the repair of the files `numbers` of `folder`; changes nothing.
RepairPlan plan_repair(const std::string& folder, const std::vector<std::uint32_t>& numbers,
                       const IsEvent& is_event);

/// Copies the file to a new name that no start uses, in `copy_folder` or, when that is empty, in
/// the file's own folder. Then replaces the file's 12 header bytes. Returns the copy's path. Throws
/// std::runtime_error; the header is not changed before the copy is complete and on disk.
std::string repair_header(const HeaderRepair& repair, const std::string& copy_folder);

/// Sets the head file's header to its records, without a copy, as the plug-in does when it closes
/// its spool. For a process that ends without stopping the plug-in in it: returns once the file is
/// sound and stays so, for the plug-in may still be at work on it. Throws std::runtime_error.
void close_spool(const std::string& folder);

/// Throws std::runtime_error, also when the new name is taken.
void rename_chunk(const Renaming& renaming);

}  // namespace zmqwriter
