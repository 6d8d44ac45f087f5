// Reading of a spool's chunk files. Nothing is written to them.
//
// There are two walks through a file's records. The counted walk goes by the records' lengths and
// takes as many as the header counts, as the plug-in does when it opens the file. The linked walk
// ignores the header: it continues while each record has the length of the one before it in its
// header, and ends at what cannot be a live record. In a healthy file both give the same records;
// after an unclean stop they differ. docs/spool-format.md describes the files and the diagnosis.
//
// One thread. Any file content means bounded work, no crash, and only bytes that the file has.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zmqwriter {

/// The file of chunk `number`: "queue.dat" for 0, "queue.dat.k" for k.
std::string chunk_path(const std::string& folder, std::uint32_t number);

struct SpoolRecord {
  std::uint64_t offset;  // of the record's header
  std::uint16_t length;
  std::uint16_t prev_length;

  /// Offset just past the payload.
  std::uint64_t end() const;
};

/// Why a walk ended.
enum class WalkEnd {
  kCounted,      // it has all the records that the header counts
  kEndOfFile,    // the last record ends where the file does
  kTakenRecord,  // a length of 0 marks a record that was taken; remains of others follow
  kBrokenLink,   // the next header has another length for the record before it
  kCutRecord,    // the next record would reach past the end of the file
};

struct Walk {
  std::vector<SpoolRecord> records;
  WalkEnd end = WalkEnd::kCounted;
};

/// One chunk file, open for reading.
class ChunkFile {
 public:
  /// As chunk_path names it.
  ChunkFile(const std::string& folder, std::uint32_t number);
  /// A file of any name.
  explicit ChunkFile(const std::string& path);

  const std::string& path() const { return path_; }
  /// The path without its folder.
  std::string name() const;
  /// Empty, or why the file cannot be read; then it has neither size nor records.
  const std::string& problem() const { return problem_; }
  std::uint64_t size() const { return size_; }

  /// Whether the file has a whole header; without one the header's values are 0.
  bool has_header() const { return has_header_; }
  bool has_signature() const { return has_signature_; }
  std::uint32_t used_size() const { return used_size_; }
  std::uint32_t record_count() const { return record_count_; }

  /// The first record_count records by their lengths, fewer where the file is too short for them.
  Walk CountedWalk() const;
  /// Continues after `known` (after the file's header when that is empty) by lengths and links.
  Walk LinkedWalk(std::vector<SpoolRecord> known = {}) const;
  /// The payload of a record; shorter than its length where the file ends.
  std::string Payload(const SpoolRecord& record) const;

 private:
  struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  std::string Read(std::uint64_t offset, std::size_t size) const;

  std::string path_;
  std::string problem_;
  std::unique_ptr<std::FILE, Closer> file_;
  std::uint64_t size_ = 0;
  bool has_header_ = false;
  bool has_signature_ = false;
  std::uint32_t used_size_ = 0;
  std::uint32_t record_count_ = 0;
};

/// used_size of a file with these live records, without the 12 bytes that each reopening adds.
std::uint64_t bytes_used(const std::vector<SpoolRecord>& records);

/// The records of a file, compared with its header.
struct Diagnosis {
  std::vector<SpoolRecord> counted;  // what the plug-in finds by the header, oldest first
  std::vector<SpoolRecord> found;    // what there is, oldest first
  std::string damage;                // in words; empty for a healthy file
  bool repairable = false;           // a header that counts `found` would repair it
};

/// Whether a payload is an event.
using IsEvent = std::function<bool(const std::string& payload)>;

/// In a file with events, uncounted records at its
/// end that are not events are remains of old records.
Diagnosis diagnose(const ChunkFile& file, const IsEvent& is_event);

/// Numbers of the chunk files in a folder, ascending, with gaps. Throws std::runtime_error that
/// names the folder when it cannot be read.
std::vector<std::uint32_t> find_chunks(const std::string& folder);

/// Paths of the head files that the plug-in has set aside because it could not open them, the first
/// one first. None when the folder cannot be read.
std::vector<std::string> find_set_aside(const std::string& folder);

/// How many of `numbers`, as find_chunks gives them for `folder`, a start of the plug-in finds:
/// 0, 1, 2, ... up to the first gap, or to the first that is not a regular file.
std::size_t count_in_sequence(const std::string& folder, const std::vector<std::uint32_t>& numbers);

}  // namespace zmqwriter
