#include "SpoolReader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <map>
#include <stdexcept>

#include "ChunkFile.h"
#include "Files.h"
#include "SpoolFormat.h"
#include "Text.h"

namespace zmqwriter {

using spool_format::kHeaderSize;
using spool_format::kRecordHeaderSize;

std::uint64_t SpoolRecord::end() const {
  return offset + kRecordHeaderSize + length;
}

std::string chunk_path(const std::string& folder, std::uint32_t number) {
  char path[spool_format::kPathSize];
  return spool_format::chunk_path(folder.c_str(), number, path);
}

static SpoolRecord record_at(chunk_file::Walk& headers, std::uint64_t offset) {
  const auto header = headers.header_at(static_cast<std::int64_t>(offset));
  return {offset, header.length, header.prev_length};
}

ChunkFile::ChunkFile(const std::string& folder, std::uint32_t number)
    : ChunkFile(chunk_path(folder, number)) {}

ChunkFile::ChunkFile(const std::string& path) : path_(path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    problem_ = std::strerror(errno);
    return;
  }
  if (!S_ISREG(status.st_mode)) {
    problem_ = "not a regular file";
    return;
  }
  file_.reset(chunk_file::open_for_reading(path.c_str()));
  if (!file_) {
    problem_ = std::strerror(errno);
    return;
  }
  size_ = static_cast<std::uint64_t>(status.st_size);
  const std::string bytes = Read(0, kHeaderSize);
  has_header_ = bytes.size() == kHeaderSize;
  if (has_header_) {
    const auto header =
        spool_format::decode_header(reinterpret_cast<const unsigned char*>(bytes.data()));
    has_signature_ = header.has_signature;
    used_size_ = header.used_size;
    record_count_ = header.record_count;
  }
}

std::string ChunkFile::name() const {
  return path_.substr(path_.rfind('/') + 1);
}

std::string ChunkFile::Read(std::uint64_t offset, std::size_t size) const {
  std::string bytes(size, '\0');
  bytes.resize(
      file_ ? chunk_file::read_at(file_.get(), static_cast<std::int64_t>(offset), &bytes[0], size)
            : 0);
  return bytes;
}

std::string ChunkFile::Payload(const SpoolRecord& record) const {
  return Read(record.offset + kRecordHeaderSize, record.length);
}

Walk ChunkFile::CountedWalk() const {
  Walk walk;
  chunk_file::Walk headers(file_.get());
  std::uint64_t offset = kHeaderSize;
  while (walk.records.size() < record_count_) {
    if (offset >= size_) {
      walk.end = WalkEnd::kEndOfFile;
      break;
    }
    const SpoolRecord record = record_at(headers, offset);
    if (record.end() > size_) {
      walk.end = WalkEnd::kCutRecord;
      break;
    }
    walk.records.push_back(record);
    offset = record.end();
  }
  return walk;
}

Walk ChunkFile::LinkedWalk(std::vector<SpoolRecord> known) const {
  Walk walk;
  walk.records = std::move(known);
  chunk_file::Walk headers(file_.get());
  for (;;) {
    const bool first = walk.records.empty();
    const std::uint64_t offset = first ? kHeaderSize : walk.records.back().end();
    if (offset >= size_) {
      walk.end = WalkEnd::kEndOfFile;
      return walk;
    }
    const SpoolRecord record = record_at(headers, offset);
    if (offset + kRecordHeaderSize > size_)
      walk.end = WalkEnd::kCutRecord;
    else if (!first && record.prev_length != walk.records.back().length)
      walk.end = WalkEnd::kBrokenLink;
    else if (record.length == 0)
      walk.end = WalkEnd::kTakenRecord;
    else if (record.end() > size_)
      walk.end = WalkEnd::kCutRecord;
    else {
      walk.records.push_back(record);
      continue;
    }
    return walk;
  }
}

std::uint64_t bytes_used(const std::vector<SpoolRecord>& records) {
  std::uint64_t bytes = kHeaderSize;
  for (const SpoolRecord& record : records)
    bytes += kRecordHeaderSize + record.length;
  return bytes;
}

namespace {

bool links_hold(const std::vector<SpoolRecord>& records) {
  for (std::size_t i = 1; i < records.size(); ++i)
    if (records[i].prev_length != records[i - 1].length)
      return false;
  return true;
}

// Each reopening adds the size of the header to used_size. Without records any used_size will do.
bool used_size_fits(const ChunkFile& file, const std::vector<SpoolRecord>& records) {
  if (records.empty())
    return true;
  const std::uint64_t used = bytes_used(records);
  return file.used_size() >= used && (file.used_size() - used) % kHeaderSize == 0;
}

void drop_remains(const ChunkFile& file, std::size_t known, const IsEvent& is_event,
                  std::vector<SpoolRecord>* records) {
  const auto is_payload = [&](const SpoolRecord& record) { return is_event(file.Payload(record)); };
  std::vector<SpoolRecord> kept = *records;
  while (kept.size() > known && !is_payload(kept.back()))
    kept.pop_back();
  // In a file without any event the payloads are of another kind, and say nothing.
  if (kept.size() < records->size() && std::any_of(kept.begin(), kept.end(), is_payload))
    *records = std::move(kept);
}

// Whether the record at `index` is no event although others of the file are: bytes that a walk by
// the header takes for a record.
bool is_phantom(const ChunkFile& file, const std::vector<SpoolRecord>& records, std::size_t index,
                const IsEvent& is_event) {
  const auto is_payload = [&](const SpoolRecord& record) { return is_event(file.Payload(record)); };
  return !is_payload(records[index]) && std::any_of(records.begin(), records.end(), is_payload);
}

// Whether an event was taken from that place: its length is 0 now, and its bytes are still there.
// They begin like the header of a record behind one of length 0, so a walk by the header would go
// on through them.
bool is_taken_event(const ChunkFile& file, const SpoolRecord& record, const IsEvent& is_event) {
  return record.length == 0 && is_event(file.Payload({record.offset, UINT16_MAX, 0}));
}

// Whether the header was written for the counted records. A newest record of length 0 is ambiguous:
// either its payload is empty, or it was taken later and its bytes equal those that reopening adds.
// It is then treated as taken, which loses at most an empty payload.
bool is_header_sound(const ChunkFile& file, const std::vector<SpoolRecord>& counted,
                     const IsEvent& is_event) {
  if (counted.size() != file.record_count() || !links_hold(counted) ||
      !used_size_fits(file, counted))
    return false;
  // Of an event of 64 KiB or more only the beginning is stored, so that it is known, when it was
  // taken, by the record only that seems to be behind it.
  std::size_t odd = 0;
  for (std::size_t i = 0; i < counted.size(); ++i) {
    if (is_taken_event(file, counted[i], is_event))
      return false;
    if (i > 0 && counted[i - 1].length == 0 && counted[i].length > 0 &&
        !is_event(file.Payload(counted[i])))
      odd = i;
  }
  if (odd > 0 && is_phantom(file, counted, odd, is_event))
    return false;
  return counted.empty() || counted.back().length > 0 || file.used_size() == bytes_used(counted);
}

// Trusts the counted records as a whole or not at all; all others are found by links.
void diagnose_records(const ChunkFile& file, const std::vector<SpoolRecord>& by_header,
                      const IsEvent& is_event, Diagnosis* diagnosis) {
  const bool sound = is_header_sound(file, by_header, is_event);
  const Walk linked = file.LinkedWalk(sound ? by_header : std::vector<SpoolRecord>());
  diagnosis->found = linked.records;
  drop_remains(file, sound ? by_header.size() : 0, is_event, &diagnosis->found);

  const std::uint64_t promised = file.record_count();
  const std::uint64_t found = diagnosis->found.size();
  if (found > promised) {
    diagnosis->damage =
        counted(found - promised, "record") + " that the header does not count (unclean stop)";
    diagnosis->repairable = true;
  } else if (found + 1 < promised && linked.end == WalkEnd::kBrokenLink &&
             by_header.size() == promised && used_size_fits(file, by_header) &&
             links_hold(
                 {by_header.begin() + static_cast<std::ptrdiff_t>(found), by_header.end()}) &&
             !is_phantom(file, by_header, found, is_event)) {
    // Number and size of the records are right, and so are the links behind it, so the link is
    // wrong. A top that alone is wrong may be the remains of an event that look like one.
    diagnosis->damage =
        "record " + std::to_string(found + 1) + " does not name the length of the one before it";
  } else if (found < promised &&
             (linked.end == WalkEnd::kTakenRecord || linked.end == WalkEnd::kBrokenLink)) {
    diagnosis->damage =
        counted(promised - found, "record") + " counted but no longer there (unclean stop)";
    diagnosis->repairable = true;
  } else if (found < promised) {
    diagnosis->damage = "ends after " + std::to_string(found) + " of the " +
                        counted(promised, "record") + " that the header counts";
    diagnosis->repairable = found > 0;
  } else if (!used_size_fits(file, diagnosis->found)) {
    diagnosis->damage = "used_size is " + std::to_string(file.used_size()) + ", the records use " +
                        std::to_string(bytes_used(diagnosis->found));
    diagnosis->repairable = true;
  }
}

}  // namespace

Diagnosis diagnose(const ChunkFile& file, const IsEvent& is_event) {
  Diagnosis diagnosis;
  if (!file.problem().empty()) {
    diagnosis.damage = "cannot be read: " + file.problem();
    return diagnosis;
  }
  if (!file.has_header()) {
    // After an unclean stop just behind the creation; so no record can be missing.
    diagnosis.repairable = file.size() == 0;
    diagnosis.damage = file.size() == 0 ? "empty" : "shorter than its header";
    return diagnosis;
  }
  diagnosis.counted = file.CountedWalk().records;
  if (file.has_signature()) {
    diagnose_records(file, diagnosis.counted, is_event, &diagnosis);
    return diagnosis;
  }
  // It is another program's file, unless it consists of records up to its end or up to a taken
  // record.
  const Walk linked = file.LinkedWalk();
  diagnosis.damage = "invalid signature";
  if (!linked.records.empty() &&
      (linked.end == WalkEnd::kEndOfFile || linked.end == WalkEnd::kTakenRecord)) {
    diagnosis.found = linked.records;
    diagnosis.damage += ", " + counted(linked.records.size(), "record") + " after it";
    diagnosis.repairable = true;
  }
  return diagnosis;
}

namespace {

// The number in "queue.dat" or "queue.dat.k"; false for all other names.
bool parse_chunk_name(const std::string& name, std::uint32_t* number) {
  const auto value = number_in<std::uint32_t>(name.size() > 10 ? name.substr(10) : "0");
  *number = value.value_or(0);
  // No leading zeros and no other start of the name are allowed.
  return value && chunk_path("", *number) == "/" + name;
}

}  // namespace

std::vector<std::uint32_t> find_chunks(const std::string& folder) {
  std::vector<std::uint32_t> numbers;
  std::vector<std::string> names;
  if (!list_folder(folder, &names))
    throw std::runtime_error(folder + ": cannot be read: " + std::strerror(errno));
  std::uint32_t number;
  for (const std::string& name : names)
    if (parse_chunk_name(name, &number))
      numbers.push_back(number);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::vector<std::string> find_set_aside(const std::string& folder) {
  std::vector<std::string> names;
  list_folder(folder, &names);
  std::map<std::uint32_t, std::string> found;
  for (const std::string& name : names) {
    const std::string digits = name.substr(name.rfind('.') + 1);
    const auto attempt = number_in<std::uint32_t>(digits == "unopened" ? "1" : digits);
    char path[spool_format::kPathSize];
    if (attempt && spool_format::unopened_path("", *attempt, path) == "/" + name)
      found[*attempt] = folder + "/" + name;
  }
  std::vector<std::string> paths;
  for (const auto& file : found)
    paths.push_back(file.second);
  return paths;
}

std::size_t count_in_sequence(const std::string& folder,
                              const std::vector<std::uint32_t>& numbers) {
  std::size_t count = 0;
  struct stat status;
  while (count < numbers.size() && numbers[count] == count &&
         stat(chunk_path(folder, numbers[count]).c_str(), &status) == 0 && S_ISREG(status.st_mode))
    ++count;
  return count;
}

}  // namespace zmqwriter
