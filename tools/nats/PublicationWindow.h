// The events that a collector has received and an engine has not acknowledged.
//
// Each has an id, and waits to be published or is under way. One that is refused, or whose answer
// cannot come any more, waits again. The window is bounded: see HasRoom. Any thread may call the
// methods; those that add or publish belong to one thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CollectStats.h"
#include "UnsentFile.h"

namespace zmqwriter {

class PublicationWindow {
 public:
  /// How many events and bytes are enough. Add takes more, too.
  PublicationWindow(std::uint64_t most_events, std::uint64_t most_bytes)
      : most_events_(most_events), most_bytes_(most_bytes) {}

  /// Whether fewer are held. Once there was no room, there is some when an eighth is free. Waits
  /// for that, at most `longest`; this time counts as stalled.
  bool HasRoom(std::chrono::milliseconds longest);
  /// Ids come in ascending order. `former`: of a former run. `waits`: else it is published at once.
  void Add(const std::string& id, std::string_view raw, bool former, bool waits);

  /// The next event that waits, behind `*id` in order, does not wait any more: gives its id and
  /// content. After the last comes the first one, if `around`. False if there is none.
  bool TakeWaiting(bool around, std::string* id, std::string* raw);
  /// All wait again, and none has been taken.
  void ReturnAll();

  void Acknowledge(const std::string& id, bool stored_before);
  /// It waits again.
  void Refuse(const std::string& id);
  /// One that the engine never takes. Returns its content; nothing if it is not held.
  std::optional<std::string> Drop(const std::string& id);

  struct Counts {
    std::size_t held = 0;
    std::size_t former = 0;   // of these
    std::size_t waiting = 0;  // of these
    std::size_t refused = 0;  // of these: at least once, or returned
  };
  Counts counts() const;
  std::vector<UnsentEvent> events() const;
  /// Waits until it is empty, at most `longest`.
  void AwaitEmpty(std::chrono::milliseconds longest);
  /// Sets those figures that are the window's.
  void NoteFigures(StreamFigures* figures) const;

 private:
  using Clock = std::chrono::steady_clock;

  struct Event {
    std::string raw;
    Clock::time_point since;
    bool former;
    bool waiting;
    bool refused;
    bool published;  // at least once
  };
  using Events = std::map<std::string, Event>;  // by id: oldest first

  bool IsBelow(double share) const;
  bool HasRoomAgain() const;
  void Mark(Event* event, bool waiting, bool refused);
  void Remove(Events::iterator event);

  const std::uint64_t most_events_;
  const std::uint64_t most_bytes_;
  mutable std::mutex mutex_;
  std::condition_variable room_;
  // All below guarded by mutex_.
  Events events_;
  std::vector<Events::node_type> finished_;  // for the next events, so that none takes new memory
  std::uint64_t bytes_ = 0;
  Counts counts_;
  std::optional<Clock::time_point> full_since_;
  double stalled_s_ = 0;
  std::uint64_t acknowledged_ = 0;
  std::uint64_t stored_before_ = 0;
  std::uint64_t repeated_ = 0;
};

}  // namespace zmqwriter
