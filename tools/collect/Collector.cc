#include "Collector.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "Connections.h"
#include "CurveKey.h"
#include "EventJson.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

constexpr int kPollMs = 100;
// Messages taken between two looks at signals and time limits.
constexpr int kMostAtOnce = 1000;
// Bad messages beyond these are counted only.
constexpr std::uint64_t kReportedBadMessages = 10;
// The end after a stop signal or a time-out. Connections that are never silent are ended after
// kLongestLoad, and those on which something always waits, because clients are faster than this
// collector, after kLongestOverload. Clients that have not closed theirs are left behind when
// nothing has come for kLongestQuiet, or after kLongestDrain. What libzmq's thread had read from
// them has come when nothing has come for kSettledMs. Messages wait in memory until then, or until
// there are kMostHeld bytes.
constexpr int kLookMs = 2;
constexpr auto kLongestLoad = std::chrono::milliseconds(250);
constexpr auto kLongestOverload = std::chrono::seconds(1);
constexpr auto kLongestQuiet = std::chrono::seconds(2);
constexpr auto kLongestDrain = std::chrono::seconds(20);
constexpr int kSettledMs = 100;
constexpr std::size_t kMostHeld = std::size_t{64} << 20;
constexpr std::size_t kHeldOverhead = 2 * sizeof(zmq_msg_t);  // of each message

std::unique_ptr<ClientGate> make_gate(const CollectOptions& options, ZmqContext* context) {
  if (options.allow_file.empty())
    return nullptr;
  AllowList allowed = read_allow_list(options.allow_file);
  std::fprintf(
      stderr,
      "warning: only clients with one of %zu keys may connect; agents of this plug-in cannot, "
      "because they make a new key for each connection\n",
      allowed.size());
  return std::make_unique<ClientGate>(context, std::move(allowed), options.quiet);
}

std::unique_ptr<StatusServer> make_server(const CollectOptions& options, const CollectStats& stats,
                                          const ClientGate* gate) {
  if (options.metrics_address.empty())
    return nullptr;
  const Watched collector = {
      stats, gate, options.writes, options.output.path, options.output.format, options.max_memory};
  auto server = std::make_unique<StatusServer>(options.metrics_address, collector);
  std::fprintf(stderr, "status on %s\nmetrics on %smetrics\n", server->url().c_str(),
               server->url().c_str());
  return server;
}

/// The options of the output. A file of keys is refused, because it would be moved aside.
const FileSinkOptions& no_input(const CollectOptions& options) {
  std::vector<std::string> inputs = {options.secret_key_file, options.allow_file};
  if (options.stream) {
    const NatsOptions& engine = options.stream->engine;
    inputs.insert(inputs.end(), {engine.ca, engine.certificate, engine.key, engine.user,
                                 engine.token, engine.credentials});
  }
  std::error_code ignored;
  for (const std::string& input : inputs)
    if (std::filesystem::equivalent(options.output.path, input, ignored))
      throw std::runtime_error(options.output.path +
                               ": is a file of keys, so it cannot be the output");
  return options.output;
}

}  // namespace

Collector::Collector(const CollectOptions& options)
    : options_(options),
      stats_(options.most_agents),
      gate_(make_gate(options, &context_)),
      unanswered_(context_, ZMQ_REP),
      secret_key_(read_secret_key_file(options.secret_key_file)),
      socket_(&context_, secret_key_, gate_ != nullptr),
      monitor_(std::in_place, context_, &socket_, &stats_, options.quiet, options.max_memory),
      server_(make_server(options, stats_, gate_.get())) {
  if (options.writes)
    sinks_.push_back(std::make_unique<FileSink>(no_input(options), &stats_));
  if (options.stream)
    sinks_.push_back(make_jetstream_sink(*options.stream, &stats_));
  // Bound last, so that no agent has connected when something else fails.
  for (const std::string& endpoint : options.endpoints)
    bound_.push_back(socket_.Bind(endpoint));
  stats_.NoteEndpoints(bound_);
  for (const auto& sink : sinks_)
    sink->Begin();
  if (!options.quiet)
    std::fprintf(stderr, "zmq.public_key = %s\n", to_hex(public_key_of(secret_key_)).c_str());
  for (const std::string& endpoint : bound_)
    std::fprintf(stderr, "listening on %s\n", endpoint.c_str());
  const bool prints = options.writes && options.output.path.empty() && isatty(STDOUT_FILENO) == 1;
  if (options.stats_s > 0)
    printer_ = std::make_unique<StatsPrinter>(stats_, options.stats_s, !prints);
  zmq_msg_init(&part_);
}

Collector::~Collector() {
  zmq_msg_close(&part_);
  for (zmq_msg_t& part : held_)
    zmq_msg_close(&part);
}

int Collector::Run() {
  last_message_ = Clock::now();
  while (!Done() && !SinkEnds() && !stop_requested()) {
    if (take_reload_request() && gate_)
      ReloadAllowList();
    if (TakeWaiting())
      continue;
    if (TimedOut())
      break;
    socket_.Wait(kPollMs);
  }
  for (const auto& sink : sinks_)
    sink->End();
  if (!Done())
    Drain();
  Finish();
  return ExitCode();
}

bool Collector::Done() const {
  return options_.count > 0 && events_ >= options_.count;
}

bool Collector::SinkEnds() {
  for (const auto& sink : sinks_) {
    full_ = sink->full();
    if (!full_.empty() || sink->failed())
      return true;
  }
  return false;
}

bool Collector::TimedOut() const {
  return options_.timeout_s > 0 &&
         Clock::now() - last_message_ >= std::chrono::duration<double>(options_.timeout_s);
}

/// For the last event of --count there is always, since the collector ends with it.
bool Collector::HaveRoom() {
  return events_ + 1 == options_.count ||
         std::all_of(sinks_.begin(), sinks_.end(),
                     [](const auto& sink) { return sink->HasRoom(); });
}

/// Takes the messages that have arrived, at most kMostAtOnce; false if there were none, or no room.
/// Flushes before the next wait, so that a reader of a pipe gets each event at once.
bool Collector::TakeWaiting() {
  int taken = 0;
  while (taken < kMostAtOnce && !Done() && HaveRoom() && NextPart()) {
    TakeMessage();
    ++taken;
  }
  for (const auto& sink : sinks_)
    sink->Flush();
  if (taken > 0)
    last_message_ = Clock::now();
  return taken > 0;
}

bool Collector::NextPart() {
  if (held_.empty())
    return socket_.Receive(&part_);
  zmq_msg_move(&part_, &held_.front());
  held_bytes_ -= kHeldOverhead + zmq_msg_size(&part_);
  zmq_msg_close(&held_.front());
  held_.pop_front();
  return true;
}

/// Ends the connections and takes all that agents have sent, because they count it as delivered.
/// Clients that try to connect meanwhile have to wait for another collector.
void Collector::Drain() {
  monitor_.reset();
  if (gate_)
    gate_->Hold();
  else
    zmq_bind(unanswered_.get(), ClientGate::kEndpoint);
  Connections connections(bound_);
  auto start = Clock::now();
  last_message_ = start;
  int times_written = 0;
  while (!Done() && connections.any() && Clock::now() < start + kLongestDrain &&
         Clock::now() < last_message_ + kLongestQuiet) {
    socket_.Wait(kLookMs);
    const bool all = HoldWaiting(&connections, &start);
    const auto time = Clock::now() - start;
    const bool load = time > kLongestLoad;
    const bool overload = time > kLongestOverload;
    if (load + overload > times_written) {  // so that there is room for what is under way
      WriteHeld(&start);
      ++times_written;
    } else if (all || overload) {
      connections.EndSilent(load, overload);
    }
  }
  for (const std::string& endpoint : bound_)
    socket_.Unbind(endpoint);
  while (!Done() && Clock::now() < start + kLongestDrain &&
         (!HoldWaiting(&connections, &start) || (connections.any() && socket_.Wait(kSettledMs)))) {
  }
  while (!Done() && (TakeWaiting() || !held_.empty() || socket_.Wait(0))) {
  }
}

/// Takes the messages that have arrived; true when nothing waits any more. Writing them could take
/// long, and when both sides of a connection are ended and libzmq's queue of it is full, libzmq
/// gives up the rest. So they are written only when they are too many, and `start` moves on by the
/// time that this takes.
bool Collector::HoldWaiting(Connections* connections, Clock::time_point* start) {
  for (int taken = 0; taken < kMostAtOnce && held_bytes_ < kMostHeld; ++taken) {
    if (!socket_.Receive(&part_))
      return true;
    last_message_ = Clock::now();
    connections->NoteMessage(zmq_msg_get(&part_, ZMQ_SRCFD));
    held_bytes_ += kHeldOverhead + zmq_msg_size(&part_);
    zmq_msg_init(&held_.emplace_back());
    zmq_msg_move(&held_.back(), &part_);
  }
  if (held_bytes_ >= kMostHeld)
    WriteHeld(start);
  return false;
}

void Collector::WriteHeld(Clock::time_point* start) {
  const auto full = Clock::now();
  while (!held_.empty() && !Done())
    TakeWaiting();
  *start += Clock::now() - full;
}

void Collector::TakeMessage() {
  ++messages_;
  if (monitor_)
    monitor_->NoteMessage(zmq_msg_get(&part_, ZMQ_SRCFD));
  if (zmq_msg_more(&part_)) {
    SkipParts();
    stats_.CountMultiPart();
    ReportBad("message of several parts");
  } else if (zmq_msg_size(&part_) == 0) {
    stats_.CountEmpty();
  } else {
    TakeEvent();
  }
}

/// libzmq hands over whole messages, so the further parts have arrived.
void Collector::SkipParts() {
  while (zmq_msg_more(&part_)) {
    if (!NextPart())
      return;
  }
}

void Collector::TakeEvent() {
  const std::string_view raw(static_cast<const char*>(zmq_msg_data(&part_)), zmq_msg_size(&part_));
  const EventMessage event(raw.data(), raw.size());
  if (!event.valid()) {
    stats_.CountMalformed();
    ReportBad(event.problem());
    return;
  }
  ++events_;
  stats_.CountEvent(event, raw.size());
  for (const auto& sink : sinks_)
    sink->Write(event, raw);
}

void Collector::ReportBad(const std::string& problem) {
  ++bad_;
  if (options_.quiet || bad_ > kReportedBadMessages)
    return;
  const char* const peer = zmq_msg_gets(&part_, "Peer-Address");
  std::fprintf(stderr, "message %" PRIu64 " from %s skipped: %s%s\n", messages_,
               peer ? peer : "a client", problem.c_str(),
               bad_ == kReportedBadMessages ? " (further ones are only counted)" : "");
}

/// Keeps the old list when the new one cannot be read.
void Collector::ReloadAllowList() {
  try {
    AllowList allowed = read_allow_list(options_.allow_file);
    std::fprintf(stderr, "allowed keys read again: %zu\n", allowed.size());
    gate_->Replace(std::move(allowed));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "warning: the allowed keys stay as they were: %s\n", error.what());
  }
}

void Collector::Finish() {
  for (const auto& sink : sinks_)
    sink->Finish();
  if (printer_)
    printer_->Finish();
  if (!options_.quiet)
    PrintTotals();
}

void Collector::PrintTotals() const {
  const CollectCounts counts = stats_.Counts();
  std::fprintf(stderr, "events: %" PRIu64 " (%" PRIu64 " bytes)\n", counts.all.events,
               counts.all.bytes);
  for (const auto& [type, tally] : counts.by_type)
    std::fprintf(stderr, "  %s: %" PRIu64 "\n", type.c_str(), tally.events);
  std::fprintf(stderr,
               "empty messages: %" PRIu64 "\nmalformed messages: %" PRIu64
               "\nmulti-part messages: %" PRIu64 "\n",
               counts.empty, counts.malformed, counts.multi_part);
  if (gate_)
    std::fprintf(stderr, "clients let in: %" PRIu64 "\nclients turned away: %" PRIu64 "\n",
                 gate_->accepted(), gate_->denied());
}

int Collector::ExitCode() const {
  bool failed = false;
  for (const auto& sink : sinks_) {
    if (!sink->failed())
      continue;
    std::fprintf(
        stderr, "zmqwriter: %s\nzmqwriter: %" PRIu64 " of the events received did not get out%s\n",
        sink->problem().c_str(), sink->lost_events(), sinks_.size() > 1 ? " this way" : "");
    failed = true;
  }
  if (failed)
    return 1;
  if (!full_.empty()) {
    std::fprintf(stderr, "zmqwriter: %s\n", full_.c_str());
    return 1;
  }
  if (options_.count > 0 && events_ < options_.count && !stop_requested()) {
    std::fprintf(stderr,
                 "zmqwriter: only %" PRIu64 " of %" PRIu64 " events came within the time-out\n",
                 events_, options_.count);
    return 1;
  }
  return 0;
}

}  // namespace zmqwriter
