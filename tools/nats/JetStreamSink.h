// Publishes received events to a JetStream engine.
//
// An event is held until the engine has acknowledged it; the window of these is bounded. What is
// not acknowledged is published again under the same id, so that the engine stores it once: at once
// after a reconnection, else with growing pauses, for ever. One thread, next to the library's.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "EventSink.h"
#include "Files.h"
#include "JetStreamOptions.h"
#include "NatsConnection.h"
#include "PublicationWindow.h"
#include "TroubleReport.h"
#include "UnsentFile.h"

namespace zmqwriter {

class JetStreamSink : public EventSink {
 public:
  /// Connects, and looks for the stream or makes it; later, where the engine is away. `stats` gets
  /// the figures. Throws std::runtime_error that says what to do.
  JetStreamSink(const JetStreamOptions& options, CollectStats* stats);

  /// What a former run left in the file of unsent events is published before all others.
  void Begin() override;
  bool HasRoom() override;
  /// An event that is larger than the engine takes is reported, counted and dropped.
  void Write(const EventMessage& event, std::string_view raw) override;
  void Flush() override;
  void End() override;
  /// Waits for acknowledgements, at most drain_s. What is left then goes to the file of unsent
  /// events.
  void Finish() override;

 private:
  using Clock = std::chrono::steady_clock;

  static void OnAnswer(jsCtx*, natsMsg* message, jsPubAck* good, jsPubAckErr* bad, void* self);
  void NoteRefusal(const std::string& id, std::size_t size, natsStatus status, int error_code,
                   const std::string& words);
  void DropTooLarge(const std::string& id, std::size_t size);

  void HoldFormer();
  void Hold(const std::string& id, const EventMessage& event, std::string_view raw, bool former);
  void Publish(const std::string& id, const EventMessage& event, std::string_view raw);

  void Attend();
  void KeepConnected(Clock::time_point now);
  void ConnectAgain();
  void Pause(Clock::time_point now);
  void PublishAgain(Clock::time_point now);
  void Report(Clock::time_point now);
  void NoteFigures(Clock::time_point now);
  bool GivesUp();
  void RemoveUnsentFile();

  const JetStreamOptions options_;
  CollectStats* const stats_;
  const std::string run_;
  std::string id_;  // of the last event
  std::uint64_t count_ = 0;

  // Used by the library's threads, too.
  PublicationWindow window_;
  TroubleReport trouble_;
  std::atomic<bool> connected_{false};
  std::atomic<std::uint64_t> too_large_{0};

  FileDescriptor unsent_lock_;
  std::deque<UnsentEvent> former_;  // of a former run, not yet held
  bool former_published_ = false;   // and the file is still there

  bool any_published_ = false;  // by engine_
  // The stream, and why: it is looked for until it is known.
  std::optional<StreamProblem> missing_ = StreamProblem{StreamTrouble::kConnectionLost, ""};
  std::uint64_t reconnections_ = 0;  // of those before engine_
  Clock::time_point changed_at_;     // connected_
  Clock::time_point next_try_;
  std::chrono::milliseconds pause_;
  bool probing_ = false;  // what waits follows at once when one is taken
  std::string tried_;     // the id of that

  bool ending_ = false;
  std::optional<Clock::time_point> give_up_at_;
  StreamFigures figures_;
  Clock::time_point next_figures_;
  Clock::time_point next_flush_;
  // Last, since its threads use what is above.
  NatsLibrary library_;
  std::unique_ptr<NatsConnection> engine_;
};

}  // namespace zmqwriter
