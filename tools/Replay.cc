#include "Replay.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

#include "Output.h"
#include "RecordMapping.h"
#include "SettingsFile.h"
#include "StopSignals.h"
#include "WriterStatus.h"
#include "logging/WriterFrontend.h"
#include "standin/AsciiLog.h"
#include "standin/Host.h"

namespace {

using Clock = std::chrono::steady_clock;
using Duration = std::chrono::duration<double>;
using standin::AsciiLog;
using Count = unsigned long long;

// Below the plug-in's bound of 500 by more than one burst.
constexpr std::uint64_t kMostUnderWay = 400;
// Records read between two looks at the plug-in.
constexpr std::uint64_t kBurst = 50;
// Batches that writer threads may be behind: without pace, memory is bounded by this.
constexpr std::size_t kMostPendingBatches = 8;
constexpr std::uint64_t kReportedBrokenLines = 20;  // of each log
constexpr auto kPoll = std::chrono::milliseconds(2);
// A writer thread may still be converting a batch that it took: nothing tells when it is done. So
// "nothing is on its way" counts only when it stays so for a while.
constexpr auto kQuietWhenAllSent = std::chrono::milliseconds(100);
constexpr auto kQuietWhenSomeMissing = std::chrono::seconds(5);
constexpr auto kLongestStart = std::chrono::seconds(5);
constexpr double kDrainAfterSignal_s = 5;

Count count(std::uint64_t number) {
  return number;
}

/// "1 record", "2 records".
std::string counted(std::uint64_t number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

/// The plug-in's own account.
class PluginStatus {
 public:
  explicit PluginStatus(const standin::Host& host)
      : fill_(reinterpret_cast<void (*)(DravenholtZmqWriterStatus*)>(
            host.PluginSymbol("dravenholt_zmqwriter_status"))) {
    if (!fill_)
      throw standin::HostError(
          "the plug-in does not export dravenholt_zmqwriter_status: it is not the one that belongs "
          "to this program");
    sent_before_ = Now().sent;
  }

  DravenholtZmqWriterStatus Now() const {
    DravenholtZmqWriterStatus status = {};
    fill_(&status);
    return status;
  }

  /// Successful sends since this object was made.
  std::uint64_t Sent(const DravenholtZmqWriterStatus& status) const {
    return status.sent - sent_before_;
  }

 private:
  void (*fill_)(DravenholtZmqWriterStatus*);
  std::uint64_t sent_before_;
};

/// The paths of this run's writers. The host adds a number where one would occur twice.
class WriterPaths {
 public:
  std::string Unique(const std::string& path) {
    std::string candidate = path;
    for (int number = 2; !used_.insert(candidate).second; ++number)
      candidate = path + "-" + std::to_string(number);
    return candidate;
  }

 private:
  std::set<std::string> used_;
};

/// One log on its way into its writer.
class LogFeed {
 public:
  explicit LogFeed(const std::string& file) : log_(file) {
    std::error_code unknown;
    bytes_total_ = std::filesystem::file_size(file, unknown);
    if (unknown)
      bytes_total_ = 0;
  }

  void Connect(standin::Host* host, WriterPaths* paths) {
    if (mapping_ && log_.path() == mapped_path_ && log_.columns() == mapped_columns_)
      return;
    mapped_path_ = log_.path();
    mapped_columns_ = log_.columns();
    mapping_ = std::make_unique<RecordMapping>(mapped_path_, mapped_columns_);
    Flush();
    writer_ = host->CreateWriter("ZMQ", paths->Unique(mapped_path_), mapping_->fields());
  }

  /// Reads on to the next record and hands it to the writer; false at the end of the log.
  bool Feed(standin::Host* host, WriterPaths* paths) {
    for (;;) {
      switch (NextStep()) {
        case AsciiLog::Step::kRecord:
          writer_->Write(static_cast<int>(mapping_->fields().size()), mapping_->Map(&log_));
          ++records_;
          return true;
        case AsciiLog::Step::kHeader:
          Connect(host, paths);
          break;
        case AsciiLog::Step::kBroken:
          ReportBroken();
          break;
        case AsciiLog::Step::kEnd:
          ended_ = true;
          return false;
      }
    }
  }

  void Flush() {
    if (writer_)
      writer_->FlushWriteBuffer();
  }

  const std::string& file() const { return log_.file(); }
  bool ended() const { return ended_; }
  bool unreadable() const { return unreadable_; }
  /// The host disables a writer whose backend has failed, and discards its records.
  bool disabled() const { return writer_ && writer_->Disabled(); }
  std::uint64_t records() const { return records_; }
  std::uint64_t broken() const { return broken_; }
  std::uint64_t bytes_read() const { return log_.bytes_read(); }
  std::uint64_t bytes_total() const { return bytes_total_; }

 private:
  AsciiLog::Step NextStep() {
    try {
      return log_.Next();
    } catch (const standin::AsciiLogError& error) {
      std::fprintf(stderr, "%s\n", error.what());
      unreadable_ = true;
      return AsciiLog::Step::kEnd;
    }
  }

  void ReportBroken() {
    ++broken_;
    if (broken_ <= kReportedBrokenLines)
      std::fprintf(stderr, "%s%s\n", log_.problem().c_str(),
                   broken_ == kReportedBrokenLines
                       ? " (further broken lines of this log are only counted)"
                       : "");
  }

  AsciiLog log_;
  std::unique_ptr<RecordMapping> mapping_;
  std::string mapped_path_;
  std::vector<AsciiLog::Column> mapped_columns_;
  logging::WriterFrontend* writer_ = nullptr;  // the host's
  std::uint64_t bytes_total_;
  std::uint64_t records_ = 0;
  std::uint64_t broken_ = 0;
  bool ended_ = false;
  bool unreadable_ = false;
};

/// A line on a terminal that says how far a long replay has got; nothing elsewhere.
class ProgressLine {
 public:
  ~ProgressLine() { Clear(); }

  void Show(std::uint64_t bytes_read, std::uint64_t bytes_total, std::uint64_t sent) {
    if (!on_terminal_ || Clock::now() < next_)
      return;
    next_ = Clock::now() + std::chrono::milliseconds(500);
    std::fprintf(stderr, "\r\033[K%3.0f%% read, %llu sent ",
                 bytes_total ? 100.0 * static_cast<double>(bytes_read) /
                                   static_cast<double>(std::max(bytes_read, bytes_total))
                             : 0.0,
                 count(sent));
    shown_ = true;
  }

  void Clear() {
    if (shown_)
      std::fputs("\r\033[K", stderr);
    shown_ = false;
  }

 private:
  const bool on_terminal_ = isatty(STDERR_FILENO) == 1;
  Clock::time_point next_ = Clock::now() + std::chrono::seconds(2);
  bool shown_ = false;
};

bool has_redef(const std::vector<std::string>& redefs, const std::string& name) {
  const std::string start = "LogZMQ::" + name + "=";
  return std::any_of(redefs.begin(), redefs.end(), [&](const std::string& redef) {
    return redef.compare(0, start.size(), start) == 0;
  });
}

/// What the plug-in cannot do without. It would start all the same and only fail later.
void warn_about_settings(const ReplayOptions& options) {
  const auto missing = [&](const char* key, const char* constant) {
    return !settings->has(key) && !has_redef(options.redefs, constant);
  };
  if (missing("zmq.server", "zmq_primary_server"))
    std::fprintf(stderr,
                 "warning: %s sets no zmq.server, nor is LogZMQ::zmq_primary_server set: unless "
                 "the plug-in's scripts name a server, it will try tcp://:5555\n",
                 options.settings_file.c_str());
  if (missing("zmq.public_key", "zmq_public_key"))
    std::fprintf(stderr,
                 "warning: %s sets no zmq.public_key, nor is LogZMQ::zmq_public_key set: without "
                 "the server's key no event leaves the plug-in\n",
                 options.settings_file.c_str());
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
    status_ = std::make_unique<PluginStatus>(host_);
    warn_about_settings(options);
  }

  int Run() {
    OpenLogs();
    start_ = last_progress_ = Clock::now();
    for (const auto& feed : feeds_)
      feed->Connect(&host_, &paths_);
    FeedAll();
    const bool delivered = Drain();
    progress_.Clear();
    const DravenholtZmqWriterStatus before_end = status_->Now();
    if (!delivered && before_end.queued > 0)
      std::fprintf(stderr,
                   "stopping with %llu records in memory: the plug-in tries each once more, which "
                   "may take 3 seconds each without a server\n",
                   count(before_end.queued));
    host_.Finish();
    return Report(before_end);
  }

 private:
  void OpenLogs() {
    for (const std::string& file : options_.logs) {
      try {
        feeds_.push_back(std::make_unique<LogFeed>(file));
      } catch (const standin::AsciiLogError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        ++refused_;
      }
    }
  }

  /// Reads the logs in turn until all have ended, a signal arrives or the plug-in gets stuck.
  void FeedAll() {
    bool any = true;
    while (any && !given_up_) {
      any = false;
      for (const auto& feed : feeds_) {
        if (feed->ended())
          continue;
        if (stop_requested() || given_up_)
          return;
        if (!feed->Feed(&host_, &paths_))
          continue;
        any = true;
        ++fed_;
        WaitForRate();
        if (fed_ % kBurst == 0)
          WaitForRoom();
      }
    }
  }

  void FlushAll() {
    for (const auto& feed : feeds_)
      feed->Flush();
  }

  void WaitForRate() {
    if (options_.rate <= 0)
      return;
    const auto due = start_ + std::chrono::duration_cast<Clock::duration>(
                                  Duration(static_cast<double>(fed_) / options_.rate));
    if (Clock::now() < due)
      FlushAll();
    while (Clock::now() < due && !stop_requested()) {
      host_.Pump();
      ShowProgress();
      std::this_thread::sleep_for(std::min<Clock::duration>(kPoll, due - Clock::now()));
    }
  }

  void WaitForRoom() {
    if (options_.pace)
      FlushAll();
    // The time spent reading is not the plug-in's.
    last_progress_ = Clock::now();
    while (!HasRoom() && !stop_requested()) {
      if (IsStuck(options_.drain_s)) {
        given_up_ = true;
        return;
      }
      Idle();
    }
  }

  bool HasRoom() {
    host_.Pump();
    const DravenholtZmqWriterStatus status = status_->Now();
    NoteProgress(status);
    if (host_.PendingInput() > kMostPendingBatches)
      return false;
    if (!options_.pace)
      return true;
    const std::uint64_t sent = std::min(status_->Sent(status), fed_);
    return fed_ - sent < kMostUnderWay && status.queued < kMostUnderWay;
  }

  void Idle() {
    ShowProgress();
    std::this_thread::sleep_for(kPoll);
  }

  void ShowProgress() {
    std::uint64_t read = 0;
    std::uint64_t total = 0;
    for (const auto& feed : feeds_) {
      read += feed->bytes_read();
      total += feed->bytes_total();
    }
    progress_.Show(read, total, status_->Sent(status_->Now()));
  }

  void NoteProgress(const DravenholtZmqWriterStatus& status) {
    if (status.running)
      last_running_ = Clock::now();
    if (status.sent == last_sent_)
      return;
    last_sent_ = status.sent;
    last_progress_ = Clock::now();
  }

  /// Whether it makes no sense to wait any longer.
  bool IsStuck(double patience_s) const {
    const auto now = Clock::now();
    return now - last_progress_ > Duration(patience_s) ||
           now - std::max(last_running_, start_) > kLongestStart;
  }

  /// Waits until nothing is on its way. Returns whether everything was sent.
  bool Drain() {
    FlushAll();
    if (fed_ == 0)
      return true;
    const double patience_s =
        stop_requested() ? std::min(kDrainAfterSignal_s, options_.drain_s) : options_.drain_s;
    const auto drain_start = Clock::now();
    last_progress_ = drain_start;
    auto busy = drain_start;
    while (!given_up_) {
      host_.Pump();
      const DravenholtZmqWriterStatus status = status_->Now();
      NoteProgress(status);
      const auto now = Clock::now();
      if (status.queued > 0 || status.in_work || status.spooled || host_.PendingInput() > 0)
        busy = now;
      const bool all_sent = status_->Sent(status) >= fed_;
      if (all_sent && now - busy >= kQuietWhenAllSent)
        return true;
      if (now - busy >= kQuietWhenSomeMissing || IsStuck(patience_s))
        return false;
      if (stop_requested() && now - drain_start > Duration(kDrainAfterSignal_s))
        return false;
      Idle();
    }
    return false;
  }

  int Report(const DravenholtZmqWriterStatus& before_end) {
    std::uint64_t broken = 0;
    bool whole = refused_ == 0;
    for (const auto& feed : feeds_) {
      broken += feed->broken();
      whole = whole && feed->ended() && !feed->unreadable() && feed->broken() == 0;
    }
    const DravenholtZmqWriterStatus status = status_->Now();
    const std::uint64_t sent = status_->Sent(status);
    std::fprintf(stderr, "read: %s from %s, %s skipped\n", counted(fed_, "record").c_str(),
                 counted(feeds_.size(), "log").c_str(), counted(broken, "broken line").c_str());
    for (const auto& feed : feeds_)
      ReportLog(*feed);
    if (refused_ > 0)
      std::fprintf(stderr, "refused: %s\n", counted(refused_, "log").c_str());
    std::fprintf(stderr, "sent: %s, failed: %s\n", counted(sent, "message").c_str(),
                 counted(status.failed, "attempt").c_str());
    const bool handed_over = sent >= fed_ && !before_end.spooled;
    ReportRest(before_end, sent);
    return whole && handed_over ? 0 : 1;
  }

  static void ReportLog(const LogFeed& feed) {
    std::string line = "  " + feed.file() + ": " + counted(feed.records(), "record");
    if (feed.broken() > 0)
      line += ", " + counted(feed.broken(), "broken line");
    if (feed.disabled())
      line += ", its writer failed";
    if (feed.unreadable())
      line += ", could not be read to its end";
    else if (!feed.ended())
      line += ", not read to its end";
    std::fprintf(stderr, "%s\n", line.c_str());
  }

  void ReportRest(const DravenholtZmqWriterStatus& before_end, std::uint64_t sent) {
    if (given_up_ && !before_end.running)
      std::fprintf(stderr, "the plug-in does not send at all: see what it reported above\n");
    else if (given_up_)
      std::fprintf(stderr, "reading was given up: nothing was sent for %g seconds\n",
                   options_.drain_s);
    if (before_end.spooled)
      std::fprintf(stderr,
                   "left on disk: events in %s, which the next run sends ('zmqwriter spool list' "
                   "shows them)\n",
                   before_end.spool_folder);
    if (sent < fed_ && !before_end.spooled)
      std::fprintf(stderr, "not sent and not on disk: %s\n",
                   counted(fed_ - sent, "record").c_str());
    else if (sent < fed_)
      std::fprintf(stderr, "not sent, on disk or lost: %s\n",
                   counted(fed_ - sent, "record").c_str());
    else if (!before_end.spooled)
      std::fprintf(stderr, "left: nothing\n");
  }

  const ReplayOptions options_;
  standin::Host host_;
  std::unique_ptr<PluginStatus> status_;
  WriterPaths paths_;
  std::vector<std::unique_ptr<LogFeed>> feeds_;
  ProgressLine progress_;
  std::uint64_t refused_ = 0;
  std::uint64_t fed_ = 0;
  bool given_up_ = false;
  std::uint64_t last_sent_ = 0;
  Clock::time_point start_;
  Clock::time_point last_progress_;  // something was sent, or a wait began
  Clock::time_point last_running_;   // the send thread was seen running
};

}  // namespace

int replay(const ReplayOptions& options) {
  catch_stop_signals();
  return Replay(options).Run();
}

int describe_plugin(const ReplayOptions& options, bool details) {
  standin::Host host(host_options(options));
  host.LoadPlugin(options.plugin_folder);
  Output out;
  out.Write(host.DescribePlugins(details));
  out.Flush();
  if (out.failed())
    throw std::runtime_error(out.problem());
  return 0;
}
