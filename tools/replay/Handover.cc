#include "Handover.h"

#include <cstdio>
#include <stdexcept>

namespace zmqwriter {

namespace {

// libzmq's own thread takes an event from its memory at once, unless the machine is busy.
constexpr auto kAfterAcceptance = std::chrono::milliseconds(50);
// Positions change without a record too: by header lines, broken lines and rotation.
constexpr auto kBetweenChecks = std::chrono::seconds(1);

}  // namespace

void Handover::Begin() {
  written_ = positions_();
  const std::string problem = state_->Write(written_, false);
  if (!problem.empty())
    throw std::runtime_error(problem);
}

void Handover::Look(const DravenholtZmqWriterStatus& status, std::uint64_t fed) {
  const auto now = Clock::now();
  if (mark_ && !mark_->handed_over &&
      static_cast<std::int64_t>(status.delivered) >= mark_->delivered)
    mark_->handed_over = now;
  if (mark_ && mark_->handed_over && now - *mark_->handed_over >= kAfterAcceptance &&
      Write(*mark_, false))
    mark_.reset();

  const bool due = fed != covered_ || now >= next_without_records_;
  if (!mark_ && due && status.written == fed && !status.spooled) {
    // What came from the spool or went there is not among those that were read, or not in memory.
    mark_ = Mark{positions_(), fed, static_cast<std::int64_t>(fed) - status.stored, std::nullopt};
    next_without_records_ = now + kBetweenChecks;
  }
}

void Handover::End(const DravenholtZmqWriterStatus& status, std::uint64_t fed) {
  if (static_cast<std::int64_t>(status.delivered) + status.stored == static_cast<std::int64_t>(fed))
    Write(Mark{positions_(), fed, 0, std::nullopt}, true);
}

bool Handover::Write(const Mark& mark, bool exact) {
  if (mark.positions != written_ || exact) {
    const std::string problem = state_->Write(mark.positions, exact);
    if (!problem.empty() && !told_failure_)
      std::fprintf(stderr, "warning: %s; reading pauses until it can be written\n",
                   problem.c_str());
    told_failure_ = !problem.empty();
    if (told_failure_)
      return false;
  }
  written_ = mark.positions;
  covered_ = mark.fed;
  return true;
}

}  // namespace zmqwriter
