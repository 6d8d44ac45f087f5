// Decides which positions of followed logs may be written to the state.
//
// Positions may be written once every record before them was handed over: accepted by libzmq for
// some time. The plug-in tells numbers only, so this is proved by order: positions are taken at a
// moment when the plug-in has received all that was read and its spool is empty. It works off its
// memory in order, so it has handed over all of that when it has delivered as many events as were
// in memory at that moment.
//
// One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "FollowState.h"
#include "WriterStatus.h"

namespace zmqwriter {

class Handover {
 public:
  /// Records that may have been read and are not covered by the state. After SIGKILL the next start
  /// reads these again.
  static constexpr std::uint64_t kMostRepeated = 2000;

  Handover(FollowState* state, std::function<FollowState::Positions()> positions)
      : state_(state), positions_(std::move(positions)) {}

  /// Writes the positions at the start. Throws std::runtime_error when that is not possible.
  void Begin();
  /// To be called often. `fed` is the number of records read.
  void Look(const DravenholtZmqWriterStatus& status, std::uint64_t fed);
  /// To be called once the plug-in has stopped.
  void End(const DravenholtZmqWriterStatus& status, std::uint64_t fed);

  /// How many records the written positions cover.
  std::uint64_t covered() const { return covered_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Mark {
    FollowState::Positions positions;
    std::uint64_t fed;
    std::int64_t delivered;  // how many events will have been when it was handed over
    std::optional<Clock::time_point> handed_over;
  };

  bool Write(const Mark& mark, bool exact);

  FollowState* const state_;
  const std::function<FollowState::Positions()> positions_;
  std::optional<Mark> mark_;
  FollowState::Positions written_;
  std::uint64_t covered_ = 0;
  Clock::time_point next_without_records_;
  bool told_failure_ = false;
};

}  // namespace zmqwriter
