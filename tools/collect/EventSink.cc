#include "EventSink.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "EventJson.h"
#include "Files.h"
#include "Output.h"
#include "RawEvents.h"

namespace zmqwriter {

namespace {

constexpr std::size_t kBufferBytes = 65536;

bool is_writable(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  return flags >= 0 && (flags & O_ACCMODE) != O_RDONLY;
}

}  // namespace

EventSink::EventSink(const SinkOptions& options)
    : options_(options), rotate_at_(options.rotate_size) {
  if (!options.path.empty())
    file_ =
        std::make_unique<RotatingFile>(options.path, options.rotate_keep, options.rotate_size > 0);
  else if (!is_writable(STDOUT_FILENO))
    throw std::runtime_error("standard output is closed; name a file with --output");
}

void EventSink::Begin() {
  if (file_)
    file_->Begin();
}

std::string_view EventSink::Formatted(const EventMessage& event, std::string_view raw) {
  formatted_.clear();
  if (options_.format == "raw") {
    append_raw_event(&formatted_, raw);
  } else {
    formatted_ = options_.format == "text" ? event.Text() : event.Json();
    formatted_ += '\n';
  }
  return formatted_;
}

void EventSink::Write(const EventMessage& event, std::string_view raw) {
  const std::string_view text = Formatted(event, raw);
  RotateIfFull(text.size());
  if (failed()) {
    ++lost_events_;
    return;
  }
  buffer_.append(text);
  ends_.push_back(buffer_.size());
  if (buffer_.size() >= kBufferBytes)
    Flush();
}

void EventSink::RotateIfFull(std::size_t next) {
  if (rotate_at_ == 0 || file_->size() + buffer_.size() == 0 ||
      file_->size() + buffer_.size() + next <= rotate_at_)
    return;
  Flush();
  if (failed())
    return;
  const std::string problem = file_->Rotate();
  rotate_at_ = options_.rotate_size;
  if (problem.empty())
    return;
  // A file that is too long is better than lost events. The next attempt follows at double the
  // size.
  std::fprintf(stderr, "warning: %s; the file continues to grow\n", problem.c_str());
  rotate_at_ += file_->size();
}

void EventSink::Flush() {
  if (failed() || buffer_.empty())
    return;
  const std::size_t written = file_ ? file_->Append(buffer_) : write_fully(STDOUT_FILENO, buffer_);
  written_bytes_ += written;
  if (written < buffer_.size())
    Fail(written);
  buffer_.clear();
  ends_.clear();
}

void EventSink::Fail(std::size_t written) {
  problem_ = output_problem(errno);
  const auto first_lost = std::upper_bound(ends_.begin(), ends_.end(), written);
  lost_events_ += static_cast<std::uint64_t>(ends_.end() - first_lost);
  const std::size_t whole = first_lost == ends_.begin() ? 0 : *(first_lost - 1);
  if (file_) {
    file_->CutLastAppend(whole);
    written_bytes_ -= written - whole;
  }
}

}  // namespace zmqwriter
