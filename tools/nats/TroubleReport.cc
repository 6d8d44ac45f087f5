#include "TroubleReport.h"

#include <cstdio>
#include <utility>

namespace zmqwriter {

namespace {

bool is_unclear(StreamTrouble trouble) {
  return trouble == StreamTrouble::kNoStream || trouble == StreamTrouble::kNoQuorum;
}

}  // namespace

void TroubleReport::NoteRefusal(StreamProblem problem) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++(is_unclear(problem.trouble) ? unclear_ : refused_[static_cast<std::size_t>(problem.trouble)]);
  doubt_ = std::move(problem);
  in_doubt_ = true;
}

/// Each event comes here, so it takes no lock while all is well.
void TroubleReport::NoteTaken() {
  if (!in_doubt_)
    return;
  const std::lock_guard<std::mutex> lock(mutex_);
  doubt_.reset();
  in_doubt_ = false;
}

void TroubleReport::DoubtConnection() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!doubt_)
    doubt_ = StreamProblem{StreamTrouble::kConnectionLost, ""};
  in_doubt_ = true;
}

/// `mutex_` is held.
void TroubleReport::CountUnclear(StreamTrouble trouble) {
  refused_[static_cast<std::size_t>(trouble)] += std::exchange(unclear_, 0);
}

void TroubleReport::Say(const StreamProblem& problem) {
  if (said_ == problem.trouble)
    return;
  if (!said_)
    since_ = Clock::now();
  said_ = problem.trouble;
  std::fprintf(stderr, "warning: the engine takes no events: %s; %s\n", problem.words.c_str(),
               consequence_.c_str());
}

bool TroubleReport::Review(bool left, const Look& look) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!doubt_ && !left) {
    CountUnclear(said_.value_or(StreamTrouble::kOther));
    if (!said_)
      return false;
    const std::chrono::duration<double> time = Clock::now() - since_;
    std::fprintf(stderr, "the engine takes events again, after %.0f s\n", time.count());
    said_.reset();
    return true;
  }
  if (!doubt_ || doubt_->trouble == StreamTrouble::kConnectionLost)
    return false;  // the next publication tells
  StreamProblem problem = *doubt_;
  if (is_unclear(problem.trouble)) {
    if (unclear_ == 0)
      return false;  // not tried since the last look
    lock.unlock();
    // Where there is no reason to see, it is the one that was said before.
    problem = look(problem).value_or(StreamProblem{said_.value_or(problem.trouble), problem.words});
    lock.lock();
    CountUnclear(problem.trouble);
  }
  lock.unlock();
  Say(problem);
  return false;
}

void TroubleReport::NoteFigures(StreamFigures* figures) const {
  figures->trouble = said_ ? kStreamTroubles[static_cast<std::size_t>(*said_)] : "";
  const std::lock_guard<std::mutex> lock(mutex_);
  figures->refused = refused_;
}

}  // namespace zmqwriter
