#include "Replay.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

#include "Configuration.h"
#include "Connection.h"
#include "EndWatch.h"
#include "Files.h"
#include "Handover.h"
#include "LogFeed.h"
#include "Output.h"
#include "ProgressLine.h"
#include "SpoolAccount.h"
#include "StopSignals.h"
#include "Text.h"
#include "WriterStatus.h"
#include "standin/Host.h"

namespace zmqwriter {

namespace {

using Clock = std::chrono::steady_clock;
using Duration = std::chrono::duration<double>;

// Less than the plug-in's limit of 500. The queue must not run empty either, because the plug-in's
// send thread then sleeps for 100 ms. So it is refilled in small portions.
constexpr std::uint64_t kMostUnderWay = 400;
// Lines read between two looks at the plug-in's status.
constexpr std::uint64_t kBurst = 25;
// Batches that may wait for the writer threads. This bounds memory without pace.
constexpr std::size_t kMostPendingBatches = 8;
constexpr auto kPoll = std::chrono::milliseconds(2);
constexpr auto kPollForRoom = std::chrono::microseconds(200);
constexpr auto kPollForGrowth = std::chrono::milliseconds(20);
// A writer thread may still be converting a batch that it took, which no status shows. So an empty
// queue counts only when it stays empty for a while.
constexpr auto kQuietWhenAllSent = std::chrono::milliseconds(100);
// When more was sent than read, the number does not prove that all records were sent.
constexpr auto kQuietWhenMoreSent = std::chrono::seconds(1);
constexpr auto kQuietWhenSomeMissing = std::chrono::seconds(5);
constexpr auto kLongestStart = std::chrono::seconds(5);
constexpr double kLongestDrainAfterSignal_s = 5;
// What the plug-in gets to stop where --drain is less: one attempt to send takes 3 seconds, but a
// server that answers needs far less.
constexpr double kLeastEnd_s = 1;

/// The settings without which the plug-in starts, but cannot send, and those that it does not read.
void warn_about_settings(const ReplayOptions& options) {
  const Configuration configuration(options, script_constants());
  Findings findings;
  configuration.CheckEndpoints(&findings);
  configuration.CheckKey(libzmq_takes_key(configuration.DecodedKey()), &findings);
  check_names(options.settings_file, &findings);
  for (const Finding& finding : findings)
    std::fprintf(stderr, "warning: %s; %s\n", finding.text.c_str(), finding.remedy.c_str());
}

standin::Host::Options host_options(const ReplayOptions& options) {
  standin::Host::Options host;
  host.settings_file = options.settings_file;
  host.redefs = options.redefs;
  return host;
}

class Replay {
 public:
  explicit Replay(const ReplayOptions& options) : options_(options), host_(host_options(options)) {
    host_.LoadPlugin(options.plugin_folder);
    fill_status_ = plugin_status_function(host_);
    warn_about_settings(options);
    spool_ = std::make_unique<SpoolAccount>(Status().spool_folder, Following());
  }

  int Run() {
    spool_->Begin(options_.ignore_spool);
    count_stop_signals();  // before this, nothing has begun, and a signal ends the process
    watch_ = std::make_unique<EndWatch>(std::max(options_.drain_s, kLeastEnd_s), *spool_);
    OpenLogs();
    start_ = rate_start_ = last_progress_ = last_running_ = Clock::now();
    for (const auto& feed : feeds_)
      feed->Connect(&host_, &paths_);
    FeedAll();
    Drain();
    progress_.Clear();
    NoteFailures();
    const DravenholtZmqWriterStatus before_end = Status();
    ReportReading();
    if (!why_stopped_.empty() && !(Following() ? drained_ || fed_ == 0 : drained_ && Whole()))
      ReportGivingUp(before_end);
    AnnounceEnd(before_end);
    if (!drained_)
      watch_->Begin();
    host_.Finish();
    watch_.reset();
    if (handover_)
      handover_->End(Status(), fed_);
    return Report();
  }

 private:
  DravenholtZmqWriterStatus Status() const {
    DravenholtZmqWriterStatus status = {};
    fill_status_(&status);
    return status;
  }

  bool Following() const { return !options_.state_file.empty(); }

  void OpenLogs() {
    if (Following())
      return FollowLogs();
    for (const std::string& file : options_.logs) {
      try {
        feeds_.push_back(std::make_unique<LogFeed>(file));
      } catch (const LogError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        ++refused_;
      }
    }
  }

  void FollowLogs() {
    std::vector<std::string> logs;
    for (const std::string& log : options_.logs)
      logs.push_back(std::filesystem::absolute(log).lexically_normal().string());
    state_ = std::make_unique<FollowState>(options_.state_file, logs);
    if (!state_->exact())
      std::fprintf(stderr,
                   "the last run did not hand over all that it had read: at most %llu records are "
                   "sent again\n",
                   static_cast<unsigned long long>(Handover::kMostRepeated));
    for (const std::string& log : logs) {
      const auto known = state_->positions().find(log);
      LogPosition position{std::time(nullptr), {}};
      if (known != state_->positions().end())
        position = known->second;
      else
        std::fprintf(stderr, "%s: not in %s yet: it is read from its start\n", log.c_str(),
                     options_.state_file.c_str());
      feeds_.push_back(std::make_unique<LogFeed>(std::make_unique<FollowedLog>(log, position)));
    }
    handover_ = std::make_unique<Handover>(state_.get(), [this] {
      FollowState::Positions positions;
      for (const auto& feed : feeds_)
        positions[feed->followed()->path()] = feed->followed()->Position();
      return positions;
    });
    handover_->Begin();
  }

  /// Reads the logs in turn until all have ended or there is a reason to stop.
  void FeedAll() {
    std::uint64_t steps = 0;
    for (bool any = true; any;) {
      any = false;
      bool idle = true;
      for (const auto& feed : feeds_) {
        if (feed->ended())
          continue;
        if (Stopping())
          return;
        any = true;
        const LogFeed::Step step = feed->Feed();
        idle = idle && step == LogFeed::Step::kEnd && !feed->ended();
        if (step == LogFeed::Step::kRecord) {
          ++fed_;
          WaitForRate();
        }
        if (++steps % kBurst == 0)
          WaitForRoom();
      }
      if (any && idle)
        WaitForGrowth();
    }
  }

  /// Nothing is to be read at present.
  void WaitForGrowth() {
    FlushAll();
    Look();
    last_progress_ = rate_start_ = Clock::now();  // a pause saves up no records for later
    rate_fed_ = fed_;
    StopIfStuck(options_.drain_s);
    const auto pipe = std::find_if(feeds_.begin(), feeds_.end(),
                                   [](const auto& feed) { return feed->pipe() != nullptr; });
    if (pipe == feeds_.end())
      return Idle(kPollForGrowth);
    ShowProgress();
    (*pipe)->pipe()->HasMore(kPollForGrowth.count());
  }

  bool Stopping() {
    if (why_stopped_.empty() && stop_requested())
      why_stopped_ = "stopped by a signal";
    return !why_stopped_.empty();
  }

  void NoteFailures() {
    for (const auto& feed : feeds_)
      feed->NoteFailure();
  }

  void FlushAll() {
    for (const auto& feed : feeds_)
      feed->Flush();
  }

  void WaitForRate() {
    if (options_.rate <= 0)
      return;
    // As doubles, because the clock's own type cannot hold the pause of a tiny rate.
    const Duration due(static_cast<double>(fed_ - rate_fed_) / options_.rate);
    const auto elapsed = [this] { return Duration(Clock::now() - rate_start_); };
    if (elapsed() < due)
      FlushAll();
    while (elapsed() < due && !Stopping()) {
      Look();
      Idle(std::min<Duration>(kPoll, due - elapsed()));
    }
  }

  void WaitForRoom() {
    if (options_.pace)
      FlushAll();
    // The time spent reading does not count as time without progress.
    last_progress_ = Clock::now();
    while (!HasRoom() && !Stopping()) {
      if (Following())
        last_progress_ = Clock::now();  // however long the server is away
      StopIfStuck(options_.drain_s);
      Idle(kPollForRoom);
    }
  }

  bool HasRoom() {
    const DravenholtZmqWriterStatus status = Look();
    if (host_.PendingInput() > kMostPendingBatches)
      return false;
    if (!options_.pace)
      return true;
    if (handover_ && fed_ - handover_->covered() + kBurst > Handover::kMostRepeated)
      return false;
    const std::uint64_t sent = std::min(status.sent, fed_);
    return fed_ - sent + kBurst <= kMostUnderWay && status.queued + kBurst <= kMostUnderWay;
  }

  void Idle(Duration pause) {
    ShowProgress();
    if (Following())
      for (const auto& feed : feeds_)
        feed->followed()->Watch();  // rotated files may be removed before they are read
    std::this_thread::sleep_for(pause);
  }

  void ShowProgress() {
    if (!progress_.IsDue())
      return;
    std::uint64_t read = 0;
    std::uint64_t total = 0;
    for (const auto& feed : feeds_) {
      read += feed->bytes_done();
      total += feed->bytes_total();
    }
    const std::uint64_t sent = Status().sent;
    const double elapsed_s = Duration(Clock::now() - start_).count();
    const double fraction =
        total > 0 ? std::min(1.0, static_cast<double>(read) / static_cast<double>(total)) : 0;
    std::string text;
    if (total > 0)
      text = formatted("%.0f%% read, ", 100 * fraction);
    text += std::to_string(sent) + " sent, " +
            formatted("%.0f/s", progress_.Rate(static_cast<double>(sent)));
    if (fraction > 0 && fraction < 1)
      text += ", " + formatted("%.0f s left", elapsed_s / fraction - elapsed_s);
    progress_.Show(text);
  }

  /// Runs the host's pending work, and notes whether the plug-in makes progress.
  DravenholtZmqWriterStatus Look() {
    host_.Pump();
    const DravenholtZmqWriterStatus status = Status();
    if (status.running || (Following() && !status.worker))  // no log is there yet
      last_running_ = Clock::now();
    if (status.sent != last_sent_)
      last_progress_ = Clock::now();
    last_sent_ = status.sent;
    if (handover_)
      handover_->Look(status, fed_);
    watch_->SetUnsent(Unsent(status), Repeated());
    return status;
  }

  /// Records read and not delivered; fewer than none when the spool held some before.
  std::int64_t Unsent(const DravenholtZmqWriterStatus& status) const {
    return static_cast<std::int64_t>(fed_) - static_cast<std::int64_t>(status.delivered);
  }

  /// Records read that the next start reads again, if this run ended now.
  std::uint64_t Repeated() const { return handover_ ? fed_ - handover_->covered() : 0; }

  /// Decides to stop when nothing was sent for too long.
  void StopIfStuck(double patience_s) {
    const auto now = Clock::now();
    if (Following())
      NoteFailures();
    if (now - last_running_ > kLongestStart)
      why_stopped_ = "the plug-in sends nothing at all, see what it reported";
    else if (Following() && AnyWriterFailed())
      why_stopped_ = "a writer has failed";
    else if (now - last_progress_ > Duration(patience_s))
      why_stopped_ = "no record was sent for " + formatted("%g seconds", patience_s);
  }

  /// Waits until everything was sent, or there is a reason to stop.
  void Drain() {
    FlushAll();
    if (fed_ == 0)
      return;
    last_progress_ = Clock::now();
    auto busy = Clock::now();
    while (!(drained_ = AllSent(&busy)) && why_stopped_.empty()) {
      if (stop_requested())
        break;
      if (Clock::now() - busy >= kQuietWhenSomeMissing)
        why_stopped_ = "the plug-in holds no more records, but has not sent all";
      else
        StopIfStuck(options_.drain_s);
      Idle(kPoll);
    }
    if (stop_requested())
      DrainAfterSignal();
  }

  /// Whether everything was sent, and the plug-in has held nothing for a while. `busy` is when it
  /// last held something.
  bool AllSent(Clock::time_point* busy) {
    const DravenholtZmqWriterStatus status = Look();
    // When the writers have taken everything, their further input is heartbeats only.
    all_taken_ = all_taken_ || host_.PendingInput() == 0;
    if (status.queued > 0 || status.in_work || status.spooled || !all_taken_)
      *busy = Clock::now();
    const std::uint64_t sent = status.sent;
    const Duration quiet = Clock::now() - *busy;
    return sent == fed_ ? quiet >= kQuietWhenAllSent : sent > fed_ && quiet >= kQuietWhenMoreSent;
  }

  void DrainAfterSignal() {
    const auto begin = Clock::now();
    const Duration longest(std::min(kLongestDrainAfterSignal_s, options_.drain_s / 2));
    auto busy = begin;
    while (!(drained_ = AllSent(&busy)) && Clock::now() - begin < longest && stop_signals() < 2)
      Idle(kPoll);
    why_stopped_ = "stopped by a signal";
  }

  bool AnyWriterFailed() const {
    return std::any_of(feeds_.begin(), feeds_.end(),
                       [](const auto& feed) { return feed->writer_failed(); });
  }

  bool Whole() const {
    return refused_ == 0 && std::all_of(feeds_.begin(), feeds_.end(),
                                        [](const auto& feed) { return feed->whole(); });
  }

  void ReportReading() const {
    std::uint64_t broken = 0;
    for (const auto& feed : feeds_)
      broken += feed->broken();
    std::fprintf(stderr, "read: %s from %s, %s skipped\n", counted(fed_, "record").c_str(),
                 counted(feeds_.size(), "log").c_str(), counted(broken, "broken line").c_str());
    for (const auto& feed : feeds_)
      std::fprintf(stderr, "  %s\n", feed->Account().c_str());
    if (refused_ > 0)
      std::fprintf(stderr, "refused: %s\n", counted(refused_, "log").c_str());
  }

  void ReportGivingUp(const DravenholtZmqWriterStatus& status) const {
    std::fprintf(stderr, "gave up: %s\n", why_stopped_.c_str());
    std::fprintf(stderr, "sent so far: %s, failed: %s\n", counted(status.sent, "message").c_str(),
                 counted(status.failed, "attempt").c_str());
  }

  /// When it is stopped, the plug-in tries once more to send what it holds in memory.
  void AnnounceEnd(const DravenholtZmqWriterStatus& status) const {
    if (status.spooled && status.running)
      std::fprintf(stderr,
                   "left on disk: events in %s, which the next run sends ('zmqwriter spool list' "
                   "shows them)\n",
                   status.spool_folder);
    else if (status.spooled)  // A worker that does not run is not stopped, and writes no header.
      std::fprintf(stderr,
                   "left on disk: events in %s, which the next run finds only after 'zmqwriter "
                   "spool repair' (the plug-in could not start, and so does not close its spool)\n",
                   status.spool_folder);
    const std::uint64_t held = status.queued + (status.in_work ? 1 : 0);
    if (status.running && held > 0)
      std::fprintf(stderr,
                   "stopping with %llu entries in memory (retries count as well): they are tried "
                   "once more, for at most %g seconds\n",
                   static_cast<unsigned long long>(held), std::max(options_.drain_s, kLeastEnd_s));
  }

  int Report() const {
    const DravenholtZmqWriterStatus status = Status();
    const std::uint64_t sent = status.sent;
    std::fprintf(stderr, "sent: %s, failed: %s\n", counted(sent, "message").c_str(),
                 counted(status.failed, "attempt").c_str());
    const bool nothing_left = spool_->End(Unsent(status), status.stored, Repeated());
    if (sent > fed_)
      std::fprintf(stderr,
                   "more was sent than read: the spool held events of an earlier run, or empty "
                   "messages were sent after a switch to a secondary server\n");
    else if (nothing_left)
      std::fprintf(stderr, "left: nothing\n");
    if (status.cut > 0)
      std::fprintf(stderr, "%s longer than 65535 bytes and %s cut on disk\n",
                   (counted(status.cut, "event") + (status.cut == 1 ? " was" : " were")).c_str(),
                   status.cut == 1 ? "was" : "were");
    return Whole() && nothing_left && status.cut == 0 ? 0 : 1;
  }

  const ReplayOptions options_;
  std::unique_ptr<SpoolAccount> spool_;
  std::unique_ptr<EndWatch> watch_;  // until the host has finished
  standin::Host host_;
  StatusFunction fill_status_;
  WriterPaths paths_;
  std::vector<std::unique_ptr<LogFeed>> feeds_;
  std::unique_ptr<FollowState> state_;  // of followed logs
  std::unique_ptr<Handover> handover_;
  ProgressLine progress_;
  std::uint64_t refused_ = 0;
  std::uint64_t fed_ = 0;
  std::string why_stopped_;  // empty while there is no reason to stop
  bool drained_ = false;     // everything was sent, and the plug-in held nothing any more
  bool all_taken_ = false;
  std::uint64_t last_sent_ = 0;
  Clock::time_point start_;
  Clock::time_point rate_start_;
  std::uint64_t rate_fed_ = 0;       // records read at rate_start_
  Clock::time_point last_progress_;  // something was sent, or a wait began
  Clock::time_point last_running_;   // the send thread was seen running
};

/// Throws if too few files may be open for the logs.
void allow_open_files(std::size_t logs) {
  constexpr std::uint64_t kOtherFiles = 64;  // of the spool, the sockets and the process
  const std::uint64_t limit = raise_open_files();
  const std::uint64_t needed = logs + kOtherFiles;
  if (limit < needed)
    throw std::runtime_error(counted(logs, "log") + " need " + std::to_string(needed) +
                             " open files, but the system allows only " + std::to_string(limit) +
                             ": replay fewer at a time or raise the limit (ulimit -n)");
}

}  // namespace

int replay(const ReplayOptions& options) {
  allow_open_files(options.logs.size());
  return Replay(options).Run();
}

int describe_plugin(const ReplayOptions& options, bool details) {
  standin::Host host(host_options(options));
  host.LoadPlugin(options.plugin_folder);
  Output out;
  out.Write(host.DescribePlugins(details));
  out.Finish();
  return 0;
}

}  // namespace zmqwriter
