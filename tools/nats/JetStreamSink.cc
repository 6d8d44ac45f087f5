#include "JetStreamSink.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <utility>

#include "EventJson.h"
#include "EventStream.h"
#include "EventSubject.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

constexpr char kIdHeader[] = "Nats-Msg-Id";
// Then an event that is not acknowledged is published again.
constexpr int kAcknowledgeMs = 5000;
constexpr int kMessageTooLarge = JSStreamMessageExceedsMaximumErr;
constexpr auto kShortestPause = std::chrono::milliseconds(100);
constexpr auto kLongestPause = std::chrono::milliseconds(5000);
constexpr auto kLook = std::chrono::milliseconds(50);
// A connection that is lost for a shorter time is not reported.
constexpr auto kPatience = std::chrono::seconds(1);
constexpr auto kFlushEvery = std::chrono::milliseconds(5);
constexpr auto kFiguresEvery = std::chrono::milliseconds(200);
// To look why there is no answer, which nothing is received meanwhile.
constexpr int kDiagnosisMs = 500;
// Events too large beyond these are counted only.
constexpr std::uint64_t kReportedTooLarge = 10;

using Message = NatsPtr<natsMsg, natsMsg_Destroy>;

/// Unlike any other run's, and behind those of former runs in the order of text.
std::string new_run() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  char text[kIdLength];
  std::snprintf(text, sizeof text, "%011" PRIx64 "%05x", static_cast<std::uint64_t>(ms),
                std::random_device()() & 0xfffff);
  return text;
}

}  // namespace

std::unique_ptr<EventSink> make_jetstream_sink(const JetStreamOptions& options,
                                               CollectStats* stats) {
  return std::make_unique<JetStreamSink>(options, stats);
}

JetStreamSink::JetStreamSink(const JetStreamOptions& options, CollectStats* stats)
    : options_(options),
      stats_(stats),
      run_(new_run()),
      window_(options.window_events, options.window_bytes),
      trouble_("receiving pauses when " + std::to_string(options.window_events) + " events or " +
               std::to_string(options.window_bytes) + " bytes wait"),
      pause_(kShortestPause) {
  if (!options_.unsent_file.empty())
    unsent_lock_.Reset(lock_unsent_file(options_.unsent_file));
  engine_ = std::make_unique<NatsConnection>(options_.engine, OnAnswer, this, true);
  connected_ = engine_->connected();
  changed_at_ = Clock::now();
  if (connected_)
    missing_ = stream_missing(engine_.get(), options_.engine.prefix, options_.create);
  else
    missing_->words = why_no_server_answers(options_.engine);
  if (missing_ && missing_->trouble != StreamTrouble::kConnectionLost &&
      missing_->trouble != StreamTrouble::kNoQuorum)
    throw std::runtime_error(missing_->words);
  if (missing_ && !missing_->words.empty())
    trouble_.Say(*missing_);
  NoteFigures(Clock::now());
}

// ---- Events: held, published, answered ----

void JetStreamSink::Begin() {
  if (options_.unsent_file.empty())
    return;
  for (UnsentEvent& event : read_unsent_file(options_.unsent_file))
    former_.push_back(std::move(event));
  former_published_ = !former_.empty();
  if (former_published_)
    std::fprintf(stderr, "publishing %zu events of %s first\n", former_.size(),
                 options_.unsent_file.c_str());
}

bool JetStreamSink::HasRoom() {
  if (give_up_at_ && GivesUp())
    return true;  // without a wait for each event
  HoldFormer();
  return (former_.empty() && window_.HasRoom(kLook)) || (ending_ && GivesUp());
}

void JetStreamSink::HoldFormer() {
  while (!former_.empty() && !(ending_ ? GivesUp() : stop_requested()) && window_.HasRoom(kLook)) {
    const UnsentEvent& event = former_.front();
    Hold(event.id, EventMessage(event.raw.data(), event.raw.size()), event.raw, true);
    former_.pop_front();
    Flush();
  }
}

void JetStreamSink::Write(const EventMessage& event, std::string_view raw) {
  id_.assign(run_).append(1, '-').append(16, '0');
  std::uint64_t left = count_++;
  for (std::size_t at = id_.size(); left > 0; left >>= 4)
    id_[--at] = "0123456789abcdef"[left & 15];
  Hold(id_, event, raw, false);
}

void JetStreamSink::Hold(const std::string& id, const EventMessage& event, std::string_view raw,
                         bool former) {
  const bool waits = trouble_.in_doubt() || !connected_ || missing_;
  window_.Add(id, raw, former, waits);
  if (!waits)
    Publish(id, event, raw);
}

void JetStreamSink::Publish(const std::string& id, const EventMessage& event,
                            std::string_view raw) {
  std::string json;
  if (options_.json)
    json = event.Json(options_.json_bytes);
  const std::string_view payload = options_.json ? json : raw;
  natsMsg* made = nullptr;
  const std::string subject = event_subject(options_.engine.prefix, event);
  natsStatus status = natsMsg_Create(&made, subject.c_str(), nullptr, payload.data(),
                                     static_cast<int>(payload.size()));
  Message message(made);
  if (status == NATS_OK)
    status = natsMsgHeader_Set(made, kIdHeader, id.c_str());
  if (status == NATS_OK) {
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = kAcknowledgeMs;
    natsMsg* given = message.release();
    status = js_PublishMsgAsync(engine_->stream(), &given, &options);
    message.reset(given);
    any_published_ |= status == NATS_OK;
  }
  if (status != NATS_OK)
    NoteRefusal(id, payload.size(), status, 0, nats_problem(status));
}

/// On a thread of the library.
void JetStreamSink::OnAnswer(jsCtx*, natsMsg* message, jsPubAck* good, jsPubAckErr* bad,
                             void* self) {
  const Message owned(message);
  auto* const sink = static_cast<JetStreamSink*>(self);
  const char* id = nullptr;
  if (natsMsgHeader_Get(message, kIdHeader, &id) != NATS_OK)
    return;
  if (good) {
    sink->trouble_.NoteTaken();
    sink->window_.Acknowledge(id, good->Duplicate);
  } else {
    const int size = natsMsg_GetDataLength(message);
    sink->NoteRefusal(id, static_cast<std::size_t>(size), bad->Err, bad->ErrCode,
                      bad->ErrText ? bad->ErrText : "");
  }
}

/// On any thread.
void JetStreamSink::NoteRefusal(const std::string& id, std::size_t size, natsStatus status,
                                int error_code, const std::string& words) {
  if (status == NATS_MAX_PAYLOAD || error_code == kMessageTooLarge)
    return DropTooLarge(id, size);
  StreamProblem problem = stream_problem(status, error_code, words);
  if (!connected_)
    problem.trouble = StreamTrouble::kConnectionLost;
  window_.Refuse(id);
  trouble_.NoteRefusal(std::move(problem));
}

void JetStreamSink::DropTooLarge(const std::string& id, std::size_t size) {
  const std::optional<std::string> raw = window_.Drop(id);
  if (!raw)
    return;
  const std::uint64_t dropped = ++too_large_;
  if (dropped <= kReportedTooLarge)
    std::fprintf(stderr,
                 "warning: dropped an event of %s: %zu bytes are more than the engine takes%s\n",
                 agent_token(EventMessage(raw->data(), raw->size()).AgentId()).c_str(), size,
                 dropped == kReportedTooLarge ? " (further ones are only counted)" : "");
}

// ---- The engine: connection, repetition, report ----

/// A collector that is faster than its agents flushes after each event.
void JetStreamSink::Flush() {
  const auto now = Clock::now();
  if (now < next_flush_)
    return;
  next_flush_ = now + kFlushEvery;
  Attend();
}

void JetStreamSink::Attend() {
  const auto now = Clock::now();
  KeepConnected(now);
  if (connected_ && missing_ && now >= next_try_) {
    Pause(now);
    missing_ = stream_missing(engine_.get(), options_.engine.prefix, options_.create, kDiagnosisMs);
  }
  if (connected_ && !missing_)
    PublishAgain(now);
  Report(now);
  RemoveUnsentFile();
  if (now >= next_figures_)
    NoteFigures(now);
}

/// The library connects again by itself, except where it was refused.
void JetStreamSink::KeepConnected(Clock::time_point now) {
  if ((!engine_ || engine_->closed()) && now >= next_try_)
    ConnectAgain();
  const bool connected = engine_ && engine_->connected();
  const std::uint64_t reconnections = reconnections_ + (engine_ ? engine_->reconnections() : 0);
  if (connected == connected_ && reconnections == figures_.reconnections)
    return;
  connected_ = connected;
  figures_.reconnections = reconnections;
  changed_at_ = now;
  // What was under way will not be answered.
  window_.ReturnAll();
  trouble_.DoubtConnection();
  if (any_published_) {  // else libnats 3.4 crashes
    natsMsgList forgotten = {};
    if (js_PublishAsyncGetPendingList(&forgotten, engine_->stream()) == NATS_OK)
      natsMsgList_Destroy(&forgotten);
  }
  if (connected) {
    next_try_ = now;
    pause_ = kShortestPause;
  }
}

void JetStreamSink::ConnectAgain() {
  if (engine_)
    reconnections_ += engine_->reconnections();
  engine_.reset();
  any_published_ = false;
  try {
    engine_ = std::make_unique<NatsConnection>(options_.engine, OnAnswer, this);
    ++reconnections_;
  } catch (const std::exception& error) {
    const auto* const refusal = dynamic_cast<const ConnectError*>(&error);
    trouble_.Say(stream_problem(refusal ? refusal->status : NATS_ERR, 0, error.what()));
    Pause(Clock::now());
  }
}

/// Until the next attempt.
void JetStreamSink::Pause(Clock::time_point now) {
  next_try_ = now + pause_;
  pause_ = std::min(2 * pause_, kLongestPause);
}

/// While there is trouble, only one of what waits is tried: another one each time, since the
/// trouble may be one subject's.
void JetStreamSink::PublishAgain(Clock::time_point now) {
  const bool trouble = trouble_.in_doubt();
  if (window_.counts().waiting == 0) {
    if (now >= next_try_)
      pause_ = kShortestPause;
    return;
  }
  if (now < next_try_ && !(probing_ && !trouble))
    return;
  if (!trouble)
    tried_.clear();
  for (std::string raw; window_.TakeWaiting(trouble, &tried_, &raw);) {
    Publish(tried_, EventMessage(raw.data(), raw.size()), raw);
    if (trouble)
      break;
  }
  probing_ = trouble;
  Pause(now);
}

void JetStreamSink::Report(Clock::time_point now) {
  if (!connected_) {
    const bool refused = engine_ && engine_->refused();
    // It may be back soon, or turn out to be refused. What ConnectAgain met is said already.
    if (!engine_ || (!refused && now < changed_at_ + kPatience))
      return;
    const std::string why = engine_->last_problem();
    return trouble_.Say({refused ? StreamTrouble::kNotAuthorised : StreamTrouble::kConnectionLost,
                         why.empty() ? "the connection is lost" : why});
  }
  if (missing_)
    return trouble_.Say(*missing_);
  const PublicationWindow::Counts counts = window_.counts();
  if (counts.held == 0)
    trouble_.NoteTaken();
  const auto look = [this](const StreamProblem& problem) {
    return reason_of(problem, engine_.get(), options_.engine.prefix, kDiagnosisMs);
  };
  if (trouble_.Review(counts.refused > 0, look))
    engine_->ForgetProblem();
}

void JetStreamSink::NoteFigures(Clock::time_point now) {
  next_figures_ = now + kFiguresEvery;
  if (engine_)
    figures_.servers = engine_->servers();
  for (auto& [name, connected] : figures_.servers)
    connected = connected && connected_;
  figures_.too_large = too_large_;
  window_.NoteFigures(&figures_);
  trouble_.NoteFigures(&figures_);
  stats_->NoteStream(figures_);
}

// ---- The end ----

void JetStreamSink::End() {
  ending_ = true;
}

/// The time begins when this is first asked.
bool JetStreamSink::GivesUp() {
  const auto now = Clock::now();
  if (!give_up_at_)
    give_up_at_ = now + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(options_.drain_s));
  return stop_urged() || now >= *give_up_at_;
}

void JetStreamSink::Finish() {
  ending_ = true;
  while ((!former_.empty() || window_.counts().held > 0) && !GivesUp()) {
    HoldFormer();
    Attend();
    window_.AwaitEmpty(kLook);
  }
  Attend();
  NoteFigures(Clock::now());
  lost_events_ = too_large_;
  if (lost_events_ > 0)
    problem_ = "the engine takes no events as large as some were";
  std::vector<UnsentEvent> unsent = window_.events();
  unsent.insert(unsent.end(), former_.begin(), former_.end());
  if (unsent.empty())
    return RemoveUnsentFile();  // the last answer may have come since the look
  const std::string counted = std::to_string(unsent.size()) + " events were not acknowledged";
  if (options_.unsent_file.empty()) {
    lost_events_ += unsent.size();
    problem_ = counted + "; with --unsent FILE they would have been kept";
    return;
  }
  try {
    write_unsent_file(options_.unsent_file, unsent);
    std::fprintf(stderr, "%s: they are in %s, which the next start publishes first\n",
                 counted.c_str(), options_.unsent_file.c_str());
  } catch (const std::exception& error) {
    const PublicationWindow::Counts counts = window_.counts();
    lost_events_ += counts.held - counts.former;  // the file still has those of former runs
    problem_ = counted + ": " + error.what();
  }
}

/// When the engine has all that is in it.
void JetStreamSink::RemoveUnsentFile() {
  if (!former_published_ || !former_.empty() || window_.counts().former > 0)
    return;
  former_published_ = false;
  unlink(options_.unsent_file.c_str());
  std::fprintf(stderr, "%s: published and removed\n", options_.unsent_file.c_str());
}

}  // namespace zmqwriter
