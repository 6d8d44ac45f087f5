// Where a collector's events go: FileSink writes them to a file or to standard output,
// JetStreamSink publishes them. An event is let go of only when the sink has it: written, or
// acknowledged. What a sink holds is bounded. While it takes nothing, it has no room or its calls
// block, the collector receives nothing, and the events wait at the agents. One thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zmqwriter {

class EventMessage;

class EventSink {
 public:
  EventSink() = default;
  virtual ~EventSink() = default;
  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;

  /// To be called before the first Write; what a former run left is unchanged until then. Throws
  /// std::runtime_error.
  virtual void Begin() = 0;

  /// Whether the next event may be received. Where not, it waits a moment for room.
  virtual bool HasRoom() { return true; }

  /// `raw` is the message that `event` was made from. An event that is there is taken, room or not.
  virtual void Write(const EventMessage& event, std::string_view raw) = 0;

  /// To be called when nothing more waits to be written, and every 100 ms.
  virtual void Flush() = 0;

  /// The collector ends: only what is under way comes. The sink need not have room for it for ever.
  virtual void End() {}

  /// The last call: the sink has, or has given up, all events.
  virtual void Finish() { Flush(); }

  /// Why the collector should end while the sink can still take what is under way; empty if it
  /// should not.
  virtual std::string full() const { return ""; }

  bool failed() const { return !problem_.empty(); }
  /// Why the sink takes nothing any more, for standard error.
  const std::string& problem() const { return problem_; }
  /// Events that it has not taken.
  std::uint64_t lost_events() const { return lost_events_; }

 protected:
  std::string problem_;
  std::uint64_t lost_events_ = 0;
};

}  // namespace zmqwriter
