#include "FileSink.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <stdexcept>

#include "EventJson.h"
#include "Files.h"
#include "Output.h"
#include "RawEvents.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBufferBytes = 65536;
// Failed attempts after a stop signal, kPatienceMs apart.
constexpr int kLastWaits = 30;

/// All failures may pass, except that the reader has gone or that this is no output.
bool may_pass(int error) {
  return error != EPIPE && error != ECONNRESET && error != EBADF && error != EINVAL;
}

std::string problem_of(int error) {
  return error == EAGAIN ? "nobody reads the output" : output_problem(error);
}

bool is_writable(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  return flags >= 0 && (flags & O_ACCMODE) != O_RDONLY;
}

}  // namespace

FileSink::FileSink(const FileSinkOptions& options, CollectStats* stats)
    : options_(options), stats_(stats), rotate_at_(options.rotate_size) {
  if (!options.path.empty())
    file_ =
        std::make_unique<RotatingFile>(options.path, options.rotate_keep, options.rotate_size > 0);
  else if (!is_writable(STDOUT_FILENO))
    throw std::runtime_error("standard output is closed; name a file with --output");
  if (const std::string problem = full(); !problem.empty())
    throw std::runtime_error(problem);
}

void FileSink::Begin() {
  if (file_)
    file_->Begin();
}

std::string_view FileSink::Formatted(const EventMessage& event, std::string_view raw) {
  formatted_.clear();
  if (options_.format == "raw") {
    append_raw_event(&formatted_, raw);
  } else {
    formatted_ = options_.format == "text" ? event.Text() : event.Json(options_.json_bytes);
    formatted_ += '\n';
  }
  return formatted_;
}

void FileSink::Write(const EventMessage& event, std::string_view raw) {
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

bool FileSink::IsFull(std::size_t next) const {
  const std::uint64_t size = rotate_at_ == 0 ? 0 : file_->size() + buffer_.size();
  return size > 0 && size + next > rotate_at_;
}

void FileSink::RotateIfFull(std::size_t next) {
  if (!IsFull(next))
    return;
  Flush();
  if (failed() || !IsFull(next))
    return;
  const std::string problem = file_->Rotate();
  rotate_at_ = options_.rotate_size;
  if (problem.empty())
    return;
  // A file that is too long is better than lost events. The next attempt follows after as much
  // again.
  std::fprintf(stderr, "warning: %s; the file continues to grow\n", problem.c_str());
  rotate_at_ += file_->size();
}

void FileSink::Flush() {
  const auto start = Clock::now();
  FollowPath();
  int error = 0;
  while (!failed() && (error = WriteOut()) != 0)
    WaitAfter(error);
  if (stalled_ && !failed()) {
    const std::chrono::duration<double> time = Clock::now() - start;
    std::fprintf(stderr, "the output accepts events again, after %.0f s\n", time.count());
  }
  stalled_ = false;
  NoteOutput();
}

std::uint64_t FileSink::reserve() const {
  return kReserve + stats_->Connections() * kReserveEach;
}

std::string FileSink::full() const {
  if (!options_.exit_on_full || !file_ || file_->Room() >= reserve())
    return "";
  return options_.path + ": less than " + std::to_string(reserve() >> 20) + " MiB are free";
}

/// Opens a new file when the open one was moved or removed.
void FileSink::FollowPath() {
  if (!file_ || file_->IsInPlace()) {
    out_of_place_ = false;
    return;
  }
  const std::string problem = file_->Reopen();
  if (problem.empty()) {
    std::fprintf(stderr, "%s: was moved or removed, opened anew\n", options_.path.c_str());
  } else if (!out_of_place_ && !file_->IsRemoved()) {
    std::fprintf(stderr, "warning: %s; the moved file stays in use\n", problem.c_str());
  }
  out_of_place_ = !problem.empty();
}

/// Returns 0, or the errno of a failure; what was not written then stays in the buffer.
int FileSink::WriteOut() {
  if (buffer_.empty())
    return 0;
  if (out_of_place_ && file_->IsRemoved())
    return ENOENT;
  const std::size_t written =
      file_ ? file_->Append(buffer_) : write_fully(STDOUT_FILENO, buffer_, kPatienceMs);
  if (written == buffer_.size()) {
    Drop(written);
    return 0;
  }
  const int error = errno;
  const auto torn = std::upper_bound(ends_.begin(), ends_.end(), written);
  const std::size_t whole = torn == ends_.begin() ? 0 : *(torn - 1);
  Drop(file_ && file_->CutLastAppend(whole) ? whole : written);
  return error;
}

/// Takes out of the buffer what the output has.
void FileSink::Drop(std::size_t bytes) {
  if (bytes > 0)
    last_waits_ = 0;
  written_bytes_ += bytes;
  buffer_.erase(0, bytes);
  ends_.erase(ends_.begin(), std::upper_bound(ends_.begin(), ends_.end(), bytes));
  for (std::size_t& end : ends_)
    end -= bytes;
}

void FileSink::WaitAfter(int error) {
  const bool give_up = options_.exit_on_full && error != EAGAIN;
  const bool over = stop_urged() || (stop_requested() && ++last_waits_ > kLastWaits);
  if (!may_pass(error) || give_up || over)
    return Fail(error);
  if (stop_requested() && !told_end_) {
    std::fprintf(
        stderr,
        "stopping: the output has %d s more to accept what is received; a second signal of "
        "the same kind loses that at once\n",
        kLastWaits);
    told_end_ = true;
  }
  if (!stalled_)
    std::fprintf(stderr, "warning: %s; receiving pauses until it accepts events again\n",
                 problem_of(error).c_str());
  stalled_ = true;
  NoteOutput();
  if (error != EAGAIN)  // else the time has passed already
    poll(nullptr, 0, kPatienceMs);
  FollowPath();
}

void FileSink::Fail(int error) {
  problem_ = problem_of(error);
  lost_events_ += ends_.size();
  buffer_.clear();
  ends_.clear();
}

void FileSink::NoteOutput() {
  stats_->NoteOutput(written_bytes_, file_ ? file_->finished() : 0, stalled_);
}

}  // namespace zmqwriter
