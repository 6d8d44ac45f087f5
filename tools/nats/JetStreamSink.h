// Publishes received events to a JetStream engine.
//
// An event is held until the engine has acknowledged it. The window of these is bounded, and while
// it is full, Write blocks. What is not acknowledged is published again under the same id, so that
// the engine stores it once: at once after a reconnection, else with growing pauses, for ever. One
// thread, beside the library's.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CollectStats.h"
#include "EventSink.h"
#include "EventStream.h"
#include "Files.h"
#include "JetStreamOptions.h"
#include "NatsConnection.h"

namespace zmqwriter {

class JetStreamSink : public EventSink {
 public:
  /// Connects, and looks for the stream or makes it. `stats` gets the figures. Throws
  /// std::runtime_error that says what to do.
  JetStreamSink(const JetStreamOptions& options, CollectStats* stats);
  ~JetStreamSink() override;

  /// Publishes what a former run left in the file of unsent events.
  void Begin() override;
  /// An event that is larger than the engine takes is reported, counted and dropped.
  void Write(const EventMessage& event, std::string_view raw) override;
  void Flush() override;
  /// Waits for acknowledgements, at most drain_s since the request to stop. What is left then goes
  /// to the file of unsent events.
  void Finish() override;

 private:
  using Clock = std::chrono::steady_clock;

  struct Held {
    std::string raw;
    Clock::time_point since;
    bool former;     // of a run before this
    bool waiting;    // to be published (again)
    bool published;  // at least once
    bool refused;    // at least once
  };
  using Window = std::map<std::string, Held>;  // by id: oldest first, former runs before this one

  static void OnAnswer(jsCtx*, natsMsg* message, jsPubAck* good, jsPubAckErr* bad, void* self);
  void NoteRefusal(const std::string& id, std::size_t size, natsStatus status, int error_code,
                   const std::string& words);
  void SetWaiting(Held* held, bool waits);
  void SetRefused(Held* held, bool refused);
  void Remove(Window::iterator held);

  void Connect();
  void FindStream();
  void Hold(const std::string& id, const EventMessage& event, std::string_view raw, bool former);
  void AddHeld(const std::string& id, std::string_view raw, bool former, bool waits);
  void AwaitRoom();
  bool IsBelow(double share) const;
  Clock::duration drain() const;
  bool GivesUp();
  void Publish(const std::string& id, const EventMessage& event, std::string_view raw);
  void DropTooLarge(Window::iterator held, std::size_t size);

  void Attend();
  void KeepConnected(Clock::time_point now);
  void ConnectAgain();
  void PublishAgain(Clock::time_point now);
  void PublishWaiting(bool only_one);
  StreamProblem Diagnosed(const StreamProblem& problem);
  StreamProblem Disconnected() const;
  std::optional<StreamProblem> Problem(Clock::time_point now, bool* over);
  void Report(Clock::time_point now);
  void NoteFigures(Clock::time_point now);
  void RemoveUnsentFile();

  const JetStreamOptions options_;
  CollectStats* const stats_;
  const std::string run_;
  FileDescriptor unsent_lock_;
  std::string id_;  // of the last event
  std::uint64_t count_ = 0;

  std::mutex mutex_;
  std::condition_variable answered_;
  // Guarded by mutex_.
  Window window_;
  std::vector<Window::node_type> finished_;  // for the next events, so that none takes new memory
  std::size_t window_bytes_ = 0;
  // Of the window.
  std::size_t waiting_ = 0;
  std::size_t refused_ = 0;
  std::size_t former_left_ = 0;
  bool connected_ = true;
  std::optional<StreamProblem> problem_now_;  // since the last good answer
  std::uint64_t unclear_ = 0;                 // refusals whose reason is not known yet
  StreamFigures figures_;

  bool former_published_ = false;
  bool any_published_ = false;  // by engine_
  std::optional<StreamTrouble> reported_;
  Clock::time_point trouble_since_;
  Clock::time_point changed_at_;  // connected_
  Clock::time_point next_try_;
  std::chrono::milliseconds pause_;
  bool probing_ = false;  // what waits follows at once when one is taken
  std::string tried_;     // the id of that
  std::uint64_t reconnections_ = 0;
  std::optional<Clock::time_point> give_up_at_;
  Clock::time_point next_figures_;
  Clock::time_point next_flush_;
  // Last, since its threads use what is above.
  NatsLibrary library_;
  std::unique_ptr<NatsConnection> engine_;
};

}  // namespace zmqwriter
