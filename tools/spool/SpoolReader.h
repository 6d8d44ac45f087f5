// Reading of a spool's chunk files, without ever writing to them.
//
// Two ways lead through a file's records. The counted walk takes as many as the header promises,
// by their lengths, as the plug-in does when it opens the file. The linked walk asks nothing of
// the header: it goes on for as long as each record names the length of the one before it, and
// ends at what cannot be a live record. Where the two agree the file is healthy; after an unclean
// stop they differ. docs/spool-format.md describes the files and how the two are weighed.
//
// One thread. Whatever is in the files: bounded work, no crash, and only bytes that they have.
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

/// Why a walk went no further.
enum class WalkEnd {
  kCounted,      // it has all the records that the header promises
  kEndOfFile,    // the last record ends where the file does
  kTakenRecord,  // a length of 0 marks a record that was taken; remains follow
  kBrokenLink,   // bytes that do not name the length of the record before them
  kCutRecord,    // a record that would reach past the end of the file
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
  /// Goes on behind `known` (from the file's header on when that is empty) by lengths and links.
  Walk LinkedWalk(std::vector<SpoolRecord> known = {}) const;
  /// Payload of a record; shorter than its length where the file is.
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

/// What a file holds, and what its header says that it holds.
struct Diagnosis {
  std::vector<SpoolRecord> counted;  // what the plug-in finds by the header, oldest first
  std::vector<SpoolRecord> found;    // what there is, oldest first
  std::string damage;                // in words; empty for a healthy file
  bool repairable = false;           // a header that counts `found` would mend it
};

/// `is_event` tells payloads that the spool may hold from other bytes: where a file has such
/// payloads, uncounted records at its end that are none are remains of old records.
Diagnosis diagnose(const ChunkFile& file,
                   const std::function<bool(const std::string& payload)>& is_event);

/// Numbers of the chunk files in a folder, ascending, whatever gaps there are. False with
/// `problem` set when the folder cannot be read.
bool find_chunks(const std::string& folder, std::vector<std::uint32_t>* numbers,
                 std::string* problem);

/// Paths of the head files that the plug-in has set aside because it could not open them, in the
/// order in which it did. None when the folder cannot be read.
std::vector<std::string> find_set_aside(const std::string& folder);

/// How many of `numbers`, as find_chunks gives them for `folder`, a start of the plug-in finds:
/// 0, 1, 2, ... up to the first gap, or to what is no regular file.
std::size_t count_in_sequence(const std::string& folder, const std::vector<std::uint32_t>& numbers);

}  // namespace zmqwriter
