// Why an engine takes no events: what was noted of it, and what is said on standard error.
//
// Each kind of trouble is said once, when it begins, and once that it is over. A refusal that can
// have several reasons is looked into before it is said.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "CollectStats.h"

namespace zmqwriter {

struct StreamProblem {
  StreamTrouble trouble;
  std::string words;
};

class TroubleReport {
 public:
  /// Finds out why this happened; nothing if there is no reason to see.
  using Look = std::function<std::optional<StreamProblem>(const StreamProblem&)>;

  /// `consequence` ends what is said of a trouble.
  explicit TroubleReport(std::string consequence) : consequence_(std::move(consequence)) {}

  // Of any thread.

  /// A publication was not taken.
  void NoteRefusal(StreamProblem problem);
  /// One was. That ends the doubt.
  void NoteTaken();
  /// After a refusal, or where the connection is a new one.
  bool in_doubt() const { return in_doubt_; }
  void DoubtConnection();

  // Of one thread.

  /// Says this, unless it is the kind that was said last.
  void Say(const StreamProblem& problem);
  /// Says what the last refusal means; or that it is over, when nothing is in doubt and nothing
  /// that was refused is `left`. Returns whether it has said that.
  bool Review(bool left, const Look& look);
  /// Sets those figures that belong to it.
  void NoteFigures(StreamFigures* figures) const;

 private:
  using Clock = std::chrono::steady_clock;

  void CountUnclear(StreamTrouble trouble);

  const std::string consequence_;
  std::optional<StreamTrouble> said_;
  Clock::time_point since_;

  std::atomic<bool> in_doubt_{false};  // whether there is doubt_
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::optional<StreamProblem> doubt_;
  std::uint64_t unclear_ = 0;  // refusals that were not looked into
  std::array<std::uint64_t, kStreamTroubles.size()> refused_ = {};
};

}  // namespace zmqwriter
