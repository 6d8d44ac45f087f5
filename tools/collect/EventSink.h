// Where a collector's events go: FileSink writes them to a file or to standard output,
// JetStreamSink publishes them. An event is let go of only when the sink has it: written, or
// acknowledged. What a sink holds is bounded. While it takes nothing, its calls block, the
// collector receives nothing, and the events wait at the agents. One thread.
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

  /// `raw` is the message that `event` was made from.
  virtual void Write(const EventMessage& event, std::string_view raw) = 0;

  /// To be called when nothing more waits to be written, and every 100 ms.
  virtual void Flush() = 0;

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
