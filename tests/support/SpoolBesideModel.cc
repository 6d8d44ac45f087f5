#include "SpoolBesideModel.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "CallLog.h"
#include "Paths.h"
#include "PersistentQueue.h"

namespace test {

namespace {

// In one go: this is done after every operation, where byte by byte would take most of the time.
std::string content_of(const std::filesystem::path& path) {
  std::string content(std::filesystem::file_size(path), '\0');
  std::ifstream in(path, std::ios::binary);
  in.read(&content[0], static_cast<std::streamsize>(content.size()));
  content.resize(static_cast<std::size_t>(in.gcount()));
  return content;
}

}  // namespace

std::map<std::string, std::string> files_of(const std::string& folder) {
  std::map<std::string, std::string> files;
  std::error_code missing;
  for (const auto& entry : std::filesystem::directory_iterator(folder, missing))
    if (entry.is_regular_file())
      files[entry.path().filename().string()] = content_of(entry.path());
  return files;
}

void crash(std::unique_ptr<PersistentQueue> spool) {
  FILE* stream = spool->head_file;
  spool->head_file = nullptr;
  spool.reset();
  if (stream)
    fclose(stream);
}

SpoolBesideModel::SpoolBesideModel() {
  model_.files = files_of(paths::kSpoolFolder);
  Start();
}

SpoolBesideModel::~SpoolBesideModel() = default;

void SpoolBesideModel::Start() {
  CallLog::instance().clear();
  spool_ = std::make_unique<PersistentQueue>();
  model_.Start();
}

void SpoolBesideModel::Store(const std::string& payload) {
  spool_->Store(static_cast<std::uint16_t>(payload.size()),
                payload.empty() ? nullptr : payload.data());
  model_.Store(payload);
}

void SpoolBesideModel::Take() {
  std::uint16_t length = 4711;
  void* payload = spool_->Get(&length);
  const std::optional<std::string> expected = model_.Get();
  if (!payload && length != 0)
    answer_difference_ = "null with length " + std::to_string(length);
  else if (!payload && expected)
    answer_difference_ = "null for " + std::to_string(expected->size()) + " bytes";
  else if (payload && !expected)
    answer_difference_ = std::to_string(length) + " bytes for null";
  else if (payload && std::string(static_cast<char*>(payload), length) != *expected)
    answer_difference_ = std::to_string(length) + " bytes that are not the " +
                         std::to_string(expected->size()) + " expected ones";
  free(payload);
}

void SpoolBesideModel::SetLimits(std::int32_t chunk_limit_bytes, std::int32_t total_limit_bytes) {
  spool_->SetLimits(chunk_limit_bytes, total_limit_bytes);
  model_.SetChunkLimit(chunk_limit_bytes);
}

void SpoolBesideModel::Restart() {
  spool_.reset();
  model_.Stop();
  Start();
}

void SpoolBesideModel::CrashAndStart() {
  crash(std::move(spool_));
  model_.Crash();
  Start();
}

std::size_t SpoolBesideModel::BytesOnDisk() const {
  std::size_t size = 0;
  for (const auto& file : model_.files)
    size += file.second.size();
  return size;
}

std::string SpoolBesideModel::Difference() {
  std::ostringstream out;
  if (!answer_difference_.empty())
    out << "Get gave " << answer_difference_ << "\n";
  answer_difference_.clear();

  const auto number = [&out](const char* name, std::int64_t is, std::int64_t expected) {
    if (is != expected)
      out << name << " is " << is << " and should be " << expected << "\n";
  };
  number("IsEmpty", spool_->IsEmpty(), model_.IsEmpty());
  number("head_records", spool_->head_records, model_.head_records);
  number("head_bytes", spool_->head_bytes, model_.head_bytes);
  number("total_bytes", spool_->total_bytes, model_.total_bytes);
  number("file_count", spool_->file_count, model_.file_count);
  number("top_length", spool_->top_length, model_.top_length);

  std::vector<std::string> warnings;
  for (const SpoolModel::Warning& warning : model_.warnings)
    warnings.push_back("warning: Corrupted queue file " + std::string(paths::kSpoolFolder) + "/" +
                       warning.file + warning.reason);
  const std::vector<std::string> given = CallLog::instance().starting_with("warning: ");
  if (given != warnings) {
    out << "the warnings are\n";
    for (const std::string& line : given)
      out << "  " << line << "\n";
    out << "and should be\n";
    for (const std::string& line : warnings)
      out << "  " << line << "\n";
  }

  const auto files = files_of(paths::kSpoolFolder);
  for (const auto& expected : model_.files) {
    const auto found = files.find(expected.first);
    if (found == files.end()) {
      out << expected.first << " is missing\n";
    } else if (found->second != expected.second) {
      std::size_t at = 0;
      while (at < found->second.size() && at < expected.second.size() &&
             found->second[at] == expected.second[at])
        ++at;
      out << expected.first << " differs at offset " << at << "; it has " << found->second.size()
          << " bytes, and should have " << expected.second.size() << "\n";
    }
  }
  for (const auto& file : files)
    if (!model_.files.count(file.first))
      out << file.first << " should not be there\n";
  return out.str();
}

}  // namespace test
