#include "LogFeed.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "Text.h"
#include "logging/WriterFrontend.h"

namespace zmqwriter {

namespace {

constexpr std::uint64_t kReportedBrokenLines = 20;

}  // namespace

std::string WriterPaths::Unique(const std::string& path) {
  const auto [last, is_new] = last_number_.try_emplace(path, 1);
  std::string candidate = path;
  for (bool found = is_new; !found; found = last_number_.try_emplace(candidate, 1).second)
    candidate = path + "-" + std::to_string(++last->second);
  return candidate;
}

LogFeed::LogFeed(const std::string& file) : log_(file) {
  std::error_code no_size;
  bytes_total_ = std::filesystem::file_size(file, no_size);
  if (no_size)
    bytes_total_ = 0;
}

void LogFeed::Connect(standin::Host* host, WriterPaths* paths) {
  host_ = host;
  paths_ = paths;
  MakeWriter();
}

void LogFeed::MakeWriter() {
  if (mapping_ && log_.path() == mapped_path_ && log_.columns() == mapped_columns_)
    return;
  Flush();
  mapped_path_ = log_.path();
  mapped_columns_ = log_.columns();
  mapping_ = std::make_unique<RecordMapping>(mapped_path_, mapped_columns_);
  writer_ = NewWriter(mapping_->fields());
  writer_without_uid_ = nullptr;
}

logging::WriterFrontend* LogFeed::NewWriter(const std::vector<threading::Field>& fields) {
  writers_.push_back(host_->CreateWriter("ZMQ", paths_->Unique(mapped_path_), fields));
  return writers_.back();
}

/// A writer's records all have the same columns.
void LogFeed::WriteRecord() {
  const bool lacks_uid = mapping_->LacksUid(log_);
  const auto& fields = lacks_uid ? mapping_->fields_without_uid() : mapping_->fields();
  if (lacks_uid && !writer_without_uid_)
    writer_without_uid_ = NewWriter(fields);
  (lacks_uid ? writer_without_uid_ : writer_)
      ->Write(static_cast<int>(fields.size()), mapping_->Map(&log_));
  ++records_;
}

LogFeed::Step LogFeed::Feed() {
  switch (NextStep()) {
    case AsciiLog::Step::kRecord:
      WriteRecord();
      return Step::kRecord;
    case AsciiLog::Step::kHeader:
      MakeWriter();
      return Step::kOther;
    case AsciiLog::Step::kBroken:
      ReportBroken();
      return Step::kOther;
    case AsciiLog::Step::kEnd:
      break;
  }
  ended_ = true;
  return Step::kEnd;
}

AsciiLog::Step LogFeed::NextStep() {
  try {
    return log_.Next();
  } catch (const AsciiLogError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    unreadable_ = true;
    return AsciiLog::Step::kEnd;
  }
}

void LogFeed::ReportBroken() {
  ++broken_;
  if (broken_ <= kReportedBrokenLines)
    std::fprintf(stderr, "%s%s\n", log_.problem().c_str(),
                 broken_ == kReportedBrokenLines
                     ? " (further broken lines of this log are only counted)"
                     : "");
}

void LogFeed::Flush() {
  for (logging::WriterFrontend* const writer : {writer_, writer_without_uid_}) {
    if (writer)
      writer->FlushWriteBuffer();
  }
}

void LogFeed::NoteFailure() {
  writer_failed_ = std::any_of(writers_.begin(), writers_.end(),
                               [](logging::WriterFrontend* writer) { return writer->Disabled(); });
}

std::string LogFeed::Account() const {
  std::string text = log_.file() + ": " + counted(records_, "record");
  if (broken_ > 0)
    text += ", " + counted(broken_, "broken line");
  if (writer_failed_)
    text += ", its writer failed";
  if (unreadable_)
    text += ", could not be read to its end";
  else if (!ended_)
    text += ", not read to its end";
  return text;
}

}  // namespace zmqwriter
