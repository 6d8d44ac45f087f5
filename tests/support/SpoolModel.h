// The spool as its format says it is, in memory: a map of file names to bytes, and the counts.
//
// Written from the format's rules and not from the implementation: it shares no code with it and
// works on whole strings instead of streams. A test runs both side by side and compares answers,
// counts and bytes.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace test {

class SpoolModel {
 public:
  /// File name without its folder -> content.
  using Files = std::map<std::string, std::string>;

  Files files;

  // What the implementation's members of the same names must be.
  std::int32_t head_records = 0;
  std::int32_t head_bytes = 0;
  std::int32_t total_bytes = 0;
  std::int32_t file_count = 0;
  std::uint16_t top_length = 0;

  struct Warning {
    std::string file;    // name without its folder
    std::string reason;  // what the text says behind it
  };
  /// What the latest Start warned of, in the order of the files.
  std::vector<Warning> warnings;

  /// A new process: scans `files`.
  void Start();
  /// Ends the process properly.
  void Stop();
  /// Ends the process uncleanly.
  void Crash();

  void SetChunkLimit(std::int32_t bytes) { chunk_limit_ = bytes; }
  void Store(const std::string& payload);
  /// No value where the spool gives null.
  std::optional<std::string> Get();
  bool IsEmpty() const;

 private:
  void Open();
  void Close();
  void Roll();
  void DropHead();
  std::uint64_t CountOnDisk();
  std::size_t Find(std::uint64_t record);
  std::string TakeAt(std::size_t start);

  bool open_ = false;
  std::size_t top_ = 0;     // offset just past the newest record of the open head
  bool top_known_ = false;  // whether top_ may be stepped back from
  std::int32_t chunk_limit_ = 10485760;
};

}  // namespace test
