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

LogFeed::LogFeed(const std::string& file) : own_(open_log(file)), log_(own_.get()) {
  std::error_code no_size;
  bytes_total_ = std::filesystem::file_size(file, no_size);
  if (no_size)
    bytes_total_ = 0;
}

void LogFeed::Connect(standin::Host* host, WriterPaths* paths) {
  host_ = host;
  paths_ = paths;
  if (own_)
    ChooseTarget();
}

/// Sets target_ for what the reader gives.
void LogFeed::ChooseTarget() {
  chosen_for_ = log_;
  const auto found = std::find_if(targets_.begin(), targets_.end(), [this](const auto& target) {
    return target->path == log_->path() && target->columns == log_->columns();
  });
  if (found != targets_.end()) {
    target_ = found->get();
    return;
  }
  Flush();
  RecordMapping mapping(log_->path(), log_->columns());
  target_ =
      targets_.emplace_back(new Target{log_->path(), log_->columns(), mapping, nullptr, nullptr})
          .get();
  target_->writer = NewWriter(mapping.fields());
}

logging::WriterFrontend* LogFeed::NewWriter(const std::vector<threading::Field>& fields) {
  writers_.push_back(host_->CreateWriter("ZMQ", paths_->Unique(target_->path), fields));
  return writers_.back();
}

/// A writer's records all have the same columns.
void LogFeed::WriteRecord() {
  const RecordMapping& mapping = target_->mapping;
  const bool lacks_uid = mapping.LacksUid(*log_);
  const auto& fields = lacks_uid ? mapping.fields_without_uid() : mapping.fields();
  if (lacks_uid && !target_->writer_without_uid)
    target_->writer_without_uid = NewWriter(fields);
  (lacks_uid ? target_->writer_without_uid : target_->writer)
      ->Write(static_cast<int>(fields.size()), mapping.Map(log_));
  ++records_;
}

LogFeed::Step LogFeed::Feed() {
  switch (NextStep()) {
    case LogReader::Step::kRecord:
      if (log_ != chosen_for_)
        ChooseTarget();
      WriteRecord();
      return Step::kRecord;
    case LogReader::Step::kHeader:
      ChooseTarget();
      return Step::kOther;
    case LogReader::Step::kBroken:
      ReportBroken();
      return Step::kOther;
    case LogReader::Step::kEnd:
      break;
  }
  ended_ = unreadable_ ? !followed_ : own_ && !own_->lines().growing();
  return Step::kEnd;
}

LogReader::Step LogFeed::NextStep() {
  try {
    return followed_ ? followed_->Next(&log_) : log_->Next();
  } catch (const LogError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    unreadable_ = true;
    return LogReader::Step::kEnd;
  }
}

void LogFeed::ReportBroken() {
  ++broken_;
  if (broken_ <= kReportedBrokenLines)
    std::fprintf(stderr, "%s%s\n", log_->problem().c_str(),
                 broken_ == kReportedBrokenLines
                     ? " (further broken lines of this log are only counted)"
                     : "");
}

void LogFeed::Flush() {
  for (logging::WriterFrontend* const writer : writers_)
    writer->FlushWriteBuffer();
}

void LogFeed::NoteFailure() {
  writer_failed_ = std::any_of(writers_.begin(), writers_.end(),
                               [](logging::WriterFrontend* writer) { return writer->Disabled(); });
}

std::string LogFeed::Name() const {
  return followed_ ? followed_->path() : own_->lines().name();
}

std::string LogFeed::Account() const {
  std::string text = Name() + ": " + counted(records_, "record");
  if (broken_ > 0)
    text += ", " + counted(broken_, "broken line");
  if (writer_failed_)
    text += ", its writer failed";
  if (unreadable_)
    text += ", could not be read to its end";
  else if (!ended_ && !followed_)
    text += ", not read to its end";
  return text;
}

}  // namespace zmqwriter
