// What a spool's folder holds, file by file, and what the plug-in's next start makes of it. Nothing
// is changed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zmqwriter {

struct SurveyedFile {
  std::string path;
  std::string name;          // the path without its folder
  std::uint64_t size;        // bytes
  std::uint64_t live_bytes;  // of these, what the records use
  std::uint32_t counted;     // records by the header
  std::size_t records;       // records that there are
  bool in_sequence;          // whether a start finds the file
  std::string damage;        // in words; empty if a start finds all of the file's records
  bool repairable;           // whether `spool repair` mends the damage, or there is none
};

struct SpoolSurvey {
  std::vector<SurveyedFile> files;  // by their numbers, then those that were set aside
  std::size_t records = 0;          // in all of them
  std::size_t next_start = 0;       // of these, what the next start finds
  bool damaged = false;             // whether any file is
};

/// Throws std::runtime_error that names the folder when it cannot be read.
SpoolSurvey survey_spool(const std::string& folder);

/// "; the next start finds 2 of 5 records, ..."; empty if it finds all.
std::string records_at_stake(const SpoolSurvey& survey);
/// What an operator has to do about a damaged spool before the next start.
std::string repair_advice(const std::string& folder, const SpoolSurvey& survey);

}  // namespace zmqwriter
