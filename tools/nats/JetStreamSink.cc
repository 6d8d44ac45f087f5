#include "JetStreamSink.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <random>
#include <utility>
#include <vector>

#include "EventJson.h"
#include "EventSubject.h"
#include "StopSignals.h"
#include "UnsentFile.h"

namespace zmqwriter {

namespace {

constexpr char kIdHeader[] = "Nats-Msg-Id";
// Then an event that is not acknowledged is published again.
constexpr int kAnswerMs = 5000;
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
// Once the window is full, events are received again when this share of it is in use.
constexpr double kRoomAgain = 0.875;
// Memory of larger events is given back.
constexpr std::size_t kLargestKept = 4096;
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

double seconds(std::chrono::steady_clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

unsigned long long number(std::uint64_t n) {
  return n;
}

/// Whether it takes a look at the stream to tell.
bool is_unclear(const StreamProblem& problem) {
  return problem.trouble == StreamTrouble::kNoStream || problem.trouble == StreamTrouble::kNoQuorum;
}

}  // namespace

std::unique_ptr<EventSink> make_jetstream_sink(const JetStreamOptions& options,
                                               CollectStats* stats) {
  return std::make_unique<JetStreamSink>(options, stats);
}

JetStreamSink::JetStreamSink(const JetStreamOptions& options, CollectStats* stats)
    : options_(options), stats_(stats), run_(new_run()), pause_(kShortestPause) {
  if (!options_.unsent_file.empty())
    unsent_lock_.Reset(lock_unsent_file(options_.unsent_file));
  Connect();
  FindStream();
  NoteFigures(Clock::now());
}

JetStreamSink::~JetStreamSink() = default;

void JetStreamSink::Connect() {
  engine_ = std::make_unique<NatsConnection>(options_.engine, OnAnswer, this);
}

void JetStreamSink::FindStream() {
  const std::string& prefix = options_.engine.prefix;
  const char* step = "look for";
  try {
    FoundStream stream = find_stream(*engine_, prefix + ".>");
    if (!stream.name.empty()) {
      if (!stream.takes_all)
        std::fprintf(stderr, "warning: %s\n", partly_taken(stream, prefix).c_str());
      if (options_.create)
        for (const std::string& difference : stream_differences(stream, *options_.create))
          std::fprintf(stderr, "warning: %s\n", difference.c_str());
    } else if (!options_.create) {
      throw std::runtime_error("no stream takes the subjects '" + prefix +
                               ".>'; make one with --create-stream, e.g. replicas=3,max-age=7d");
    } else {
      step = "make";
      create_stream(*engine_, prefix, *options_.create);
      stream = find_stream(*engine_, prefix + ".>");
      std::fprintf(stderr, "made the stream %s for the subjects %s.>\n", stream.name.c_str(),
                   prefix.c_str());
    }
  } catch (const StreamError& error) {
    if (error.trouble != StreamTrouble::kNotAuthorised || options_.create)
      throw std::runtime_error(std::string("cannot ") + step + " the stream: " + error.what());
    // Who may publish need not be allowed to look.
    std::fprintf(stderr, "warning: not allowed to look whether there is a stream: %s\n",
                 error.what());
    engine_->ForgetProblem();
  }
}

void JetStreamSink::Begin() {
  if (options_.unsent_file.empty())
    return;
  const std::vector<UnsentEvent> events = read_unsent_file(options_.unsent_file);
  if (!events.empty())
    std::fprintf(stderr, "publishing %zu events of %s first\n", events.size(),
                 options_.unsent_file.c_str());
  for (const UnsentEvent& event : events)
    Hold(event.id, EventMessage(event.raw.data(), event.raw.size()), event.raw, true);
  former_published_ = !events.empty();
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
  AwaitRoom();
  bool waits;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    waits = problem_now_ || !connected_;
    AddHeld(id, raw, former, waits);
    window_bytes_ += raw.size();
    waiting_ += waits;
    former_left_ += former;
  }
  if (!waits)
    Publish(id, event, raw);
}

/// In the place of a finished event, if there is one. `mutex_` is held.
void JetStreamSink::AddHeld(const std::string& id, std::string_view raw, bool former, bool waits) {
  if (finished_.empty()) {
    window_.emplace(id, Held{std::string(raw), Clock::now(), former, waits, !waits, false});
    return;
  }
  Window::node_type place = std::move(finished_.back());
  finished_.pop_back();
  Held& held = place.mapped();
  place.key() = id;
  held.raw = raw;
  held.since = Clock::now();
  held.former = former;
  held.waiting = waits;
  held.published = !waits;
  held.refused = false;
  window_.insert(window_.end(), std::move(place));
}

/// Whether no more than this share of the window is in use. `mutex_` is held.
bool JetStreamSink::IsBelow(double share) const {
  return static_cast<double>(window_.size()) <
             share * static_cast<double>(options_.window_events) &&
         static_cast<double>(window_bytes_) < share * static_cast<double>(options_.window_bytes);
}

JetStreamSink::Clock::duration JetStreamSink::drain() const {
  return std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(options_.drain_s));
}

bool JetStreamSink::GivesUp() {
  if (!give_up_at_ && stop_requested())
    give_up_at_ = Clock::now() + drain();
  return stop_signals() > 1 || (give_up_at_ && Clock::now() >= *give_up_at_);
}

void JetStreamSink::AwaitRoom() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (IsBelow(1))
    return;
  auto since = Clock::now();
  while (!window_.empty() && !IsBelow(kRoomAgain) && !GivesUp()) {
    lock.unlock();
    Attend();
    lock.lock();
    if (!window_.empty() && !IsBelow(kRoomAgain))
      answered_.wait_for(lock, kLook);
    const auto now = Clock::now();
    figures_.stalled_s += seconds(now - std::exchange(since, now));
  }
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
    options.MaxWait = kAnswerMs;
    natsMsg* given = message.release();
    status = js_PublishMsgAsync(engine_->stream(), &given, &options);
    message.reset(given);
    any_published_ |= status == NATS_OK;
  }
  if (status != NATS_OK)
    NoteRefusal(id, payload.size(), status, 0, nats_problem(status));
}

/// `mutex_` is held.
void JetStreamSink::DropTooLarge(Window::iterator held, std::size_t size) {
  if (++figures_.too_large <= kReportedTooLarge) {
    const std::string& raw = held->second.raw;
    std::fprintf(stderr,
                 "warning: dropped an event of %s: %zu bytes are more than the engine takes%s\n",
                 agent_token(EventMessage(raw.data(), raw.size()).AgentId()).c_str(), size,
                 figures_.too_large == kReportedTooLarge ? " (further ones are only counted)" : "");
  }
  Remove(held);
}

/// `mutex_` is held.
void JetStreamSink::SetWaiting(Held* held, bool waits) {
  waiting_ += waits;
  waiting_ -= held->waiting;
  held->waiting = waits;
}

/// `mutex_` is held.
void JetStreamSink::SetRefused(Held* held, bool refused) {
  refused_ += refused;
  refused_ -= held->refused;
  held->refused = refused;
}

/// `mutex_` is held.
void JetStreamSink::Remove(Window::iterator held) {
  SetWaiting(&held->second, false);
  SetRefused(&held->second, false);
  window_bytes_ -= held->second.raw.size();
  former_left_ -= held->second.former;
  Window::node_type place = window_.extract(held);
  if (place.mapped().raw.capacity() <= kLargestKept)
    finished_.push_back(std::move(place));
}

void JetStreamSink::NoteRefusal(const std::string& id, std::size_t size, natsStatus status,
                                int error_code, const std::string& words) {
  StreamProblem problem = stream_problem(status, error_code, words);
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto held = window_.find(id);
  if (held != window_.end() && (status == NATS_MAX_PAYLOAD || error_code == kMessageTooLarge))
    return DropTooLarge(held, size);
  if (!connected_)
    problem.trouble = StreamTrouble::kConnectionLost;
  (is_unclear(problem) ? unclear_ : figures_.refused[static_cast<std::size_t>(problem.trouble)])++;
  problem_now_ = std::move(problem);
  if (held != window_.end()) {
    SetWaiting(&held->second, true);
    SetRefused(&held->second, true);
  }
}

/// On a thread of the library.
void JetStreamSink::OnAnswer(jsCtx*, natsMsg* message, jsPubAck* good, jsPubAckErr* bad,
                             void* self) {
  const Message owned(message);
  auto* const sink = static_cast<JetStreamSink*>(self);
  const char* id = nullptr;
  if (natsMsgHeader_Get(message, kIdHeader, &id) != NATS_OK)
    return;
  if (!good) {
    const int size = natsMsg_GetDataLength(message);
    sink->NoteRefusal(id, static_cast<std::size_t>(size), bad->Err, bad->ErrCode,
                      bad->ErrText ? bad->ErrText : "");
    return;
  }
  const std::lock_guard<std::mutex> lock(sink->mutex_);
  sink->problem_now_.reset();
  const auto held = sink->window_.find(id);
  if (held == sink->window_.end())
    return;  // of an earlier publication
  sink->Remove(held);
  ++sink->figures_.acknowledged;
  sink->figures_.stored_before += good->Duplicate;
  if (sink->window_.empty() || sink->IsBelow(kRoomAgain))
    sink->answered_.notify_one();
}

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
  bool changed;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    changed = connected != connected_ || reconnections != figures_.reconnections;
    connected_ = connected;
    figures_.reconnections = reconnections;
    if (changed) {
      changed_at_ = now;
      // What was under way will not be answered.
      for (auto& [id, held] : window_) {
        SetWaiting(&held, true);
        SetRefused(&held, true);
      }
      if (!problem_now_ && !window_.empty())
        problem_now_ = StreamProblem{StreamTrouble::kConnectionLost, ""};
    }
  }
  if (changed && any_published_) {  // else libnats 3.4 crashes
    natsMsgList forgotten = {};
    if (js_PublishAsyncGetPendingList(&forgotten, engine_->stream()) == NATS_OK)
      natsMsgList_Destroy(&forgotten);
  }
  if (changed && connected) {
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
    Connect();
    ++reconnections_;
  } catch (const std::exception& error) {
    next_try_ = Clock::now() + pause_;
    pause_ = std::min(2 * pause_, kLongestPause);
    const auto* const refusal = dynamic_cast<const ConnectError*>(&error);
    const std::lock_guard<std::mutex> lock(mutex_);
    problem_now_ = stream_problem(refusal ? refusal->status : NATS_ERR, 0, error.what());
  }
}

/// While there is trouble, only one of what waits is tried: another one each time, since the
/// trouble may be one subject's.
void JetStreamSink::PublishAgain(Clock::time_point now) {
  if (!engine_ || !engine_->connected())
    return;
  bool trouble, any;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    trouble = problem_now_.has_value();
    any = waiting_ > 0;
  }
  if (!any) {
    if (now >= next_try_)
      pause_ = kShortestPause;
    return;
  }
  if (now < next_try_ && !(probing_ && !trouble))
    return;
  PublishWaiting(trouble);
  probing_ = trouble;
  next_try_ = now + pause_;
  pause_ = std::min(2 * pause_, kLongestPause);
}

void JetStreamSink::PublishWaiting(bool only_one) {
  if (!only_one)
    tried_.clear();
  std::string raw;
  do {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      const auto waits = [](const auto& held) { return held.second.waiting; };
      auto next = std::find_if(window_.upper_bound(tried_), window_.end(), waits);
      if (next == window_.end() && only_one)
        next = std::find_if(window_.begin(), window_.end(), waits);
      if (next == window_.end())
        return;
      SetWaiting(&next->second, false);
      tried_ = next->first;
      raw = next->second.raw;
      figures_.repeated += std::exchange(next->second.published, true);
    }
    Publish(tried_, EventMessage(raw.data(), raw.size()), raw);
  } while (!only_one);
}

/// No answer and no receiver can have several reasons.
StreamProblem JetStreamSink::Diagnosed(const StreamProblem& problem) {
  const std::string missing_right = engine_->refused() ? engine_->last_problem() : "";
  engine_->ForgetProblem();  // the next attempt shows whether it is still missing
  if (!missing_right.empty())
    return {StreamTrouble::kNotAuthorised, missing_right};
  try {
    const FoundStream stream = find_stream(*engine_, options_.engine.prefix + ".>", kDiagnosisMs);
    if (stream.name.empty())
      return {StreamTrouble::kNoStream,
              "no stream takes the subjects '" + options_.engine.prefix +
                  ".>'; make one (--create-stream does at the next start)"};
    if (!stream.led)
      return {StreamTrouble::kNoQuorum, "the stream has no leader: too few of its servers run"};
    // It was that before, if anything.
    return {reported_.value_or(problem.trouble), problem.words};
  } catch (const StreamError& error) {
    if (error.trouble != StreamTrouble::kNotAuthorised)
      return {error.trouble, error.what()};
    engine_->ForgetProblem();  // who may publish need not be allowed to look
    return problem;
  }
}

/// `mutex_` is held.
StreamProblem JetStreamSink::Disconnected() const {
  if (!engine_ && problem_now_)
    return *problem_now_;
  const std::string why = engine_ ? engine_->last_problem() : "";
  return {engine_ && engine_->refused() ? StreamTrouble::kNotAuthorised
                                        : StreamTrouble::kConnectionLost,
          why.empty() ? "the connection is lost" : why};
}

/// What the engine does not take now and why, if that is known; nothing if it takes all.
std::optional<StreamProblem> JetStreamSink::Problem(Clock::time_point now, bool* over) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!connected_) {
    const StreamProblem problem = Disconnected();
    if (problem.trouble == StreamTrouble::kConnectionLost && now < changed_at_ + kPatience)
      return std::nullopt;  // it may be back, or turn out to be refused
    return problem;
  }
  if (window_.empty())
    problem_now_.reset();
  *over = !problem_now_ && refused_ == 0;
  if (*over)  // before there was a look
    figures_.refused[static_cast<std::size_t>(reported_.value_or(StreamTrouble::kOther))] +=
        std::exchange(unclear_, 0);
  if (!problem_now_ || problem_now_->trouble == StreamTrouble::kConnectionLost)
    return std::nullopt;  // to be tried
  const StreamProblem problem = *problem_now_;
  if (!is_unclear(problem))
    return problem;
  if (unclear_ == 0)
    return std::nullopt;  // not tried since the last look
  lock.unlock();
  const StreamProblem found = Diagnosed(problem);
  lock.lock();
  figures_.refused[static_cast<std::size_t>(found.trouble)] += std::exchange(unclear_, 0);
  return found;
}

/// Each kind of trouble is reported when it begins, and once that it is over: when all that was
/// refused is acknowledged.
void JetStreamSink::Report(Clock::time_point now) {
  bool over = false;
  const std::optional<StreamProblem> problem = Problem(now, &over);
  if (over && reported_) {
    std::fprintf(stderr, "the engine takes events again, after %.0f s\n",
                 seconds(now - trouble_since_));
    engine_->ForgetProblem();
    reported_.reset();
  }
  if (!problem || reported_ == problem->trouble)
    return;
  if (!reported_)
    trouble_since_ = now;
  reported_ = problem->trouble;
  std::fprintf(stderr,
               "warning: the engine takes no events: %s; receiving pauses when %llu events or %llu "
               "bytes wait\n",
               problem->words.c_str(), number(options_.window_events),
               number(options_.window_bytes));
}

void JetStreamSink::NoteFigures(Clock::time_point now) {
  next_figures_ = now + kFiguresEvery;
  auto servers = engine_ ? engine_->servers() : figures_.servers;
  const std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [name, connected] : servers)
    connected = connected && connected_;
  figures_.servers = std::move(servers);
  figures_.trouble = reported_ ? kStreamTroubles[static_cast<std::size_t>(*reported_)] : "";
  figures_.window_events = window_.size();
  figures_.window_bytes = window_bytes_;
  figures_.oldest_s = window_.empty() ? 0 : seconds(now - window_.begin()->second.since);
  stats_->NoteStream(figures_);
}

/// When the engine has all that is in it.
void JetStreamSink::RemoveUnsentFile() {
  if (!former_published_)
    return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (former_left_ > 0)
      return;
  }
  former_published_ = false;
  unlink(options_.unsent_file.c_str());
  std::fprintf(stderr, "%s: published and removed\n", options_.unsent_file.c_str());
}

void JetStreamSink::Finish() {
  if (!GivesUp() && !give_up_at_)
    give_up_at_ = Clock::now() + drain();
  std::unique_lock<std::mutex> lock(mutex_);
  while (!window_.empty() && !GivesUp()) {
    lock.unlock();
    Attend();
    lock.lock();
    if (!window_.empty())
      answered_.wait_for(lock, kLook);
  }
  lock.unlock();
  Attend();
  NoteFigures(Clock::now());
  std::vector<UnsentEvent> unsent;
  lock.lock();
  for (const auto& [id, held] : window_)
    unsent.push_back({id, held.raw});
  lost_events_ = figures_.too_large;
  lock.unlock();
  if (lost_events_ > 0)
    problem_ = "the engine takes no events as large as some were";
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
    lost_events_ += unsent.size();
    problem_ = counted + ": " + error.what();
  }
}

}  // namespace zmqwriter
