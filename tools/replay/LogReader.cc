#include "LogReader.h"

#include "AsciiLog.h"
#include "JsonLog.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

/// Some editors begin a UTF-8 file with a byte order mark.
std::string_view first_character(std::string_view line) {
  const auto start = line.find_first_not_of("\xef\xbb\xbf \t");
  return start == std::string_view::npos ? std::string_view() : line.substr(start, 1);
}

void wait_for_more(const LineReader& lines) {
  constexpr int kPollMs = 100;
  bool more = false;
  while (!more && !stop_requested())
    more = lines.HasMore(kPollMs);
  if (!more)
    throw LogError(lines.name() + ": stopped before its header was read");
}

}  // namespace

std::string LogReader::AtLine(const std::string& reason) const {
  return lines_->name() + ":" + std::to_string(lines_->number()) + ": " + reason;
}

LogReader::Step LogReader::Broken(const std::string& reason) {
  problem_ = AtLine(reason);
  return Step::kBroken;
}

std::string LogReader::LineProblem() const {
  if (lines_->too_long())
    return "the line is longer than " + std::to_string(LineReader::kLongestLine >> 20) + " MiB";
  return lines_->complete() ? "" : "the last line has no line end, so it may be cut";
}

std::unique_ptr<LogReader> make_reader(std::unique_ptr<LineReader>* lines) {
  const bool any = (*lines)->Next();
  if (!any && (*lines)->growing())
    return nullptr;
  const bool json = any && first_character((*lines)->line()) == "{";
  if (any)
    (*lines)->PutBack();
  if (json)
    return std::make_unique<JsonLog>(std::move(*lines));
  return std::make_unique<AsciiLog>(std::move(*lines));
}

std::unique_ptr<LogReader> open_log(const std::string& file) {
  auto lines = std::make_unique<LineReader>(file);
  std::unique_ptr<LogReader> log;
  while (!(log = make_reader(&lines)))
    wait_for_more(*lines);
  while (!log->ReadHeader())
    wait_for_more(log->lines());
  return log;
}

}  // namespace zmqwriter
