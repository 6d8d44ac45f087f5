#include "CollectCommand.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <zmq.h>

#include "CurveKey.h"
#include "EventJson.h"
#include "OptionChecks.h"
#include "Output.h"
#include "RawEvents.h"
#include "StopSignals.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 100;
// Messages taken between two looks at signals and time limits.
constexpr int kMostAtOnce = 1000;
// Bad messages beyond these are counted only.
constexpr std::uint64_t kReportedBadMessages = 10;
// After a stop signal: when nothing is under way any more, and how long that may take.
constexpr int kQuietMs = 300;
constexpr auto kLongestDrain = std::chrono::seconds(2);

struct Options {
  std::vector<std::string> endpoints;
  std::string secret_key_file;
  std::string format = "json";  // or "text", "raw"
  std::uint64_t count = 0;      // 0: no limit
  double timeout_s = 0;         // 0: none
  bool quiet = false;
};

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + zmq_strerror(zmq_errno()));
}

/// A PULL socket that agents connect to as CURVE clients.
class PullSocket {
 public:
  explicit PullSocket(const CurveKey& secret_key) : context_(zmq_ctx_new()) {
    socket_ = context_ ? zmq_socket(context_, ZMQ_PULL) : nullptr;
    const int yes = 1;
    const int no_linger = 0;
    if (!socket_ || zmq_setsockopt(socket_, ZMQ_LINGER, &no_linger, sizeof no_linger) != 0 ||
        zmq_setsockopt(socket_, ZMQ_CURVE_SERVER, &yes, sizeof yes) != 0 ||
        zmq_setsockopt(socket_, ZMQ_CURVE_SECRETKEY, secret_key.data(), secret_key.size()) != 0) {
      const int error = zmq_errno();
      Close();
      throw std::runtime_error(std::string("cannot open a CURVE socket: ") + zmq_strerror(error));
    }
  }
  ~PullSocket() { Close(); }
  PullSocket(const PullSocket&) = delete;
  PullSocket& operator=(const PullSocket&) = delete;

  /// Returns the endpoint with the port that the system chose for "*".
  std::string Bind(const std::string& endpoint) {
    if (zmq_bind(socket_, endpoint.c_str()) != 0)
      fail("cannot listen on '" + endpoint + "' (an endpoint is like tcp://127.0.0.1:5555)");
    char bound[1024];
    std::size_t size = sizeof bound;
    if (zmq_getsockopt(socket_, ZMQ_LAST_ENDPOINT, bound, &size) != 0)
      fail("cannot tell the endpoint");
    return bound;
  }

  /// Ends the endpoint and its connections. What has been received can still be taken.
  void Unbind(const std::string& endpoint) { zmq_unbind(socket_, endpoint.c_str()); }

  /// Waits for a message, at most `timeout_ms`, and no longer than until a signal.
  bool Wait(int timeout_ms) {
    zmq_pollitem_t item = {socket_, 0, ZMQ_POLLIN, 0};
    return zmq_poll(&item, 1, timeout_ms) > 0;
  }

  /// Takes the next part if there is one.
  bool Receive(zmq_msg_t* part) {
    if (zmq_msg_recv(part, socket_, ZMQ_DONTWAIT) >= 0)
      return true;
    if (zmq_errno() != EAGAIN && zmq_errno() != EINTR)
      fail("cannot receive");
    return false;
  }

 private:
  void Close() {
    if (socket_)
      zmq_close(socket_);
    if (context_)
      zmq_ctx_term(context_);
  }

  void* context_;
  void* socket_;
};

struct Totals {
  std::uint64_t events = 0;
  std::uint64_t bytes = 0;
  std::map<std::string, std::uint64_t> by_type;
  std::uint64_t empty = 0;
  std::uint64_t malformed = 0;
  std::uint64_t multi_part = 0;

  std::uint64_t messages() const { return events + empty + malformed + multi_part; }

  void Print() const {
    const auto number = [](std::uint64_t n) { return static_cast<unsigned long long>(n); };
    std::fprintf(stderr, "events: %llu (%llu bytes)\n", number(events), number(bytes));
    for (const auto& type : by_type)
      std::fprintf(stderr, "  %s: %llu\n", type.first.c_str(), number(type.second));
    std::fprintf(stderr,
                 "empty messages: %llu\nmalformed messages: %llu\nmulti-part messages: %llu\n",
                 number(empty), number(malformed), number(multi_part));
  }
};

class Collector {
 public:
  explicit Collector(const Options& options)
      : options_(options), socket_(read_key_file(options.secret_key_file)) {
    zmq_msg_init(&part_);
    for (const std::string& endpoint : options.endpoints) {
      bound_.push_back(socket_.Bind(endpoint));
      std::fprintf(stderr, "listening on %s\n", bound_.back().c_str());
    }
  }
  ~Collector() { zmq_msg_close(&part_); }
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  int Run() {
    last_message_ = Clock::now();
    while (!Done() && !TimedOut() && !stop_requested()) {
      if (!TakeWaiting())
        socket_.Wait(kPollMs);
    }
    if (stop_requested())
      Drain();
    out_.Flush();
    if (!options_.quiet)
      totals_.Print();
    return ExitCode();
  }

 private:
  bool Done() const {
    return out_.failed() || (options_.count > 0 && totals_.events >= options_.count);
  }

  bool TimedOut() const {
    return options_.timeout_s > 0 &&
           Clock::now() - last_message_ >= std::chrono::duration<double>(options_.timeout_s);
  }

  /// Takes what has arrived, within limits; false if there was nothing. What was printed is handed
  /// on before we wait again, so that a reader behind a pipe sees each event at once.
  bool TakeWaiting() {
    int taken = 0;
    while (taken < kMostAtOnce && !Done() && socket_.Receive(&part_)) {
      TakeMessage();
      ++taken;
    }
    out_.Flush();
    if (taken > 0)
      last_message_ = Clock::now();
    return taken > 0;
  }

  /// The agents count as delivered what has left them: it is not left behind, as far as it can be.
  /// Unbinding ends the connections too, so it comes only when they have gone quiet.
  void Drain() {
    const auto end = Clock::now() + kLongestDrain;
    while (!Done() && Clock::now() < end && socket_.Wait(kQuietMs))
      TakeWaiting();
    for (const std::string& endpoint : bound_)
      socket_.Unbind(endpoint);
    TakeWaiting();
  }

  void TakeMessage() {
    if (zmq_msg_more(&part_)) {
      SkipParts();
      ++totals_.multi_part;
      ReportBad("message of several parts");
    } else if (zmq_msg_size(&part_) == 0) {
      ++totals_.empty;
    } else {
      TakeEvent();
    }
  }

  /// A message arrives as a whole, so its further parts are there.
  void SkipParts() {
    while (zmq_msg_more(&part_)) {
      if (!socket_.Receive(&part_))
        return;
    }
  }

  void TakeEvent() {
    const auto* const data = static_cast<const char*>(zmq_msg_data(&part_));
    const std::size_t size = zmq_msg_size(&part_);
    const EventMessage event(data, size);
    if (!event.valid()) {
      ++totals_.malformed;
      ReportBad(event.problem());
      return;
    }
    ++totals_.events;
    totals_.bytes += size;
    ++totals_.by_type[event.PayloadType()];
    if (options_.format == "raw")
      write_raw_event(&out_, std::string_view(data, size));
    else
      out_.WriteLine(options_.format == "text" ? event.Text() : event.Json());
  }

  void ReportBad(const std::string& problem) {
    const std::uint64_t bad = totals_.malformed + totals_.multi_part;
    if (options_.quiet || bad > kReportedBadMessages)
      return;
    std::fprintf(stderr, "message %llu skipped: %s%s\n",
                 static_cast<unsigned long long>(totals_.messages()), problem.c_str(),
                 bad == kReportedBadMessages ? " (further ones are only counted)" : "");
  }

  int ExitCode() const {
    if (out_.failed()) {
      std::fprintf(stderr, "zmqwriter: %s\n", out_.problem().c_str());
      return 1;
    }
    if (options_.count > 0 && totals_.events < options_.count && !stop_requested()) {
      std::fprintf(stderr, "zmqwriter: only %llu of %llu events came within the time-out\n",
                   static_cast<unsigned long long>(totals_.events),
                   static_cast<unsigned long long>(options_.count));
      return 1;
    }
    return 0;
  }

  const Options options_;
  PullSocket socket_;
  std::vector<std::string> bound_;
  zmq_msg_t part_;
  Output out_;
  Totals totals_;
  Clock::time_point last_message_;
};

void warn_if_readable_by_others(const std::string& file) {
  struct stat status;
  if (stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 077) != 0)
    std::fprintf(stderr, "warning: others may read the secret key: chmod 600 %s\n", file.c_str());
}

int collect(const Options& options) {
  catch_stop_signals();
  warn_if_readable_by_others(options.secret_key_file);
  return Collector(options).Run();
}

}  // namespace

void add_collect_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("collect", "Receive events from agents, verify and print them");
  command->footer(
      "The bound endpoint is printed on standard error ('listening on ...'), totals at the end.\n"
      "Empty, malformed and multi-part messages are counted, they do not stop the collector.\n"
      "SIGINT and SIGTERM end it cleanly: what has arrived is still printed.");
  const auto options = std::make_shared<Options>();
  command
      ->add_option("--bind", options->endpoints,
                   "Endpoint to listen on, e.g. tcp://127.0.0.1:5555, or tcp://127.0.0.1:* for "
                   "a port that the system chooses; may be given several times")
      ->type_name("ENDPOINT")
      ->required()
      ->take_all()
      ->allow_extra_args(false);
  command
      ->add_option("--secret-key", options->secret_key_file,
                   "File with the collector's secret key, made by 'zmqwriter keygen'")
      ->type_name("FILE")
      ->required();
  command
      ->add_option("--format", options->format,
                   "json: one object per line. text: for the eye. raw: each message as received, "
                   "after its length as 32-bit little-endian number")
      ->check(CLI::IsMember({"json", "text", "raw"}))
      ->type_name("")
      ->capture_default_str();
  command->add_option("--count", options->count, "Stop after so many events")
      ->type_name("N")
      ->check(positive_count());
  command
      ->add_option("--timeout", options->timeout_s,
                   "Stop when nothing has come for so many seconds; a failure (exit status 1) "
                   "if --count was not reached")
      ->type_name("SECONDS")
      ->check(positive_number());
  command->add_flag("--quiet", options->quiet,
                    "Nothing on standard error but the endpoint and failures");
  command->callback([options, exit_code] { *exit_code = collect(*options); });
}
