// The real send loop next to a plain model of it, in thousands of random worlds: servers that come
// and go, sockets, connections and messages that fail, messages that arrive at any moment, a stop
// at any moment.
#include <cstdlib>
#include <map>
#include <set>

#include "SendLoopModel.h"
#include "TempDir.h"
#include "WorkerFixture.h"

namespace test {
namespace {

/// One world: the real loop, driven by the script.
class RealLoop {
 public:
  explicit RealLoop(const LoopScript& script) : script_(script) {
    FakeSpool::reset();
    for (int i = 0; i < script.spooled; ++i)
      FakeSpool::put("d" + std::to_string(i));
    FakeSpool::promise_nothing(script.empty_promises);
    std::string list;
    for (const std::string& secondary : script.secondaries)
      list += secondary + ",";
    worker.Init("p", "", list);
    connect(&worker);
    log.clear();
    for (int i = 0; i < script.waiting; ++i)
      write("q" + std::to_string(i));
    follow_script();
    worker.DoWork();
    log.listen(nullptr);
  }

  /// Ends as Stop does; gives what the flush did.
  std::vector<std::string> stop() {
    follow_script_in_flush();
    log.clear();
    ::test::stop(&worker);
    log.listen(nullptr);
    return log.starting_with("send");
  }

  CallLog& log = CallLog::instance();
  FakeClock clock;
  FakeZmq zmq;
  logging::writer::ZmqWorker worker = logging::writer::ZmqWorker();

 private:
  void write(const std::string& body) { worker.Write(body.size(), body.data()); }

  void follow_script() {
    zmq.on_send = [this](const std::string& endpoint, const std::string&) {
      const bool works = script_.send_works(endpoint, events_);
      if (!works)
        clock.advance_us(LoopScript::kFailedSendUs);
      return works;
    };
    zmq.on_connect = [this](const std::string& endpoint) {
      return script_.connect_works(endpoint, events_);
    };
    zmq.on_socket = [this] { return script_.socket_works(events_); };
    zmq.on_init_size = [this](std::size_t) { return script_.init_works(events_); };
    zmq.on_init_data = [this](std::size_t) { return script_.init_data_works(events_); };
    log.listen([this](const std::string& line) {
      if (line[0] == '.' || line.compare(0, 5, "spool") == 0)
        return;
      events_ += 1;
      for (int i = script_.arrivals(events_); i > 0; --i)
        write("n" + std::to_string(arrived_++));
      if (events_ == script_.stop_at)
        worker.running = false;
    });
  }

  /// The bodies that the flush is going to send, in order.
  std::vector<void*> waiting_bodies() {
    std::vector<void*> bodies;
    std::set<logging::writer::zmq_message*> seen;
    for (auto entries = worker.queue; !entries.empty(); entries.pop())
      if (!entries.front()->done && seen.insert(entries.front()).second)
        bodies.push_back(entries.front()->data);
    return bodies;
  }

  void follow_script_in_flush() {
    zmq.on_init_size = [this, bodies = waiting_bodies()](std::size_t) {
      const int nth = flushed_++;
      const bool works = script_.flush_init_works(nth);
      if (!works)
        std::free(bodies[static_cast<std::size_t>(nth)]);  // the worker is required not to
      return works;
    };
    zmq.on_init_data = [this](std::size_t) { return script_.flush_init_data_works(flushed_ - 1); };
    log.listen([this](const std::string& line) { events_ += line.compare(0, 4, "send") == 0; });
  }

  const LoopScript& script_;
  int events_ = 0;
  int flushed_ = 0;
  int arrived_ = 0;
};

/// The first line in which the two differ, with what went before.
std::string difference(const std::vector<std::string>& real,
                       const std::vector<std::string>& model) {
  std::size_t at = 0;
  while (at < real.size() && at < model.size() && real[at] == model[at])
    at += 1;
  if (at == real.size() && at == model.size())
    return "";
  std::string text = "line " + std::to_string(at) + ", after:\n";
  for (std::size_t i = at < 10 ? 0 : at - 10; i < at; ++i)
    text += "    " + real[i] + "\n";
  text += "  real:  " + (at < real.size() ? real[at] : "(end)") + "\n";
  text += "  model: " + (at < model.size() ? model[at] : "(end)") + "\n";
  return text;
}

/// A body that was accepted more than once, or nothing. Bodies are unique but for empty messages.
std::string repeated(const std::vector<std::string>& lines) {
  std::set<std::string> delivered;
  for (const std::string& line : lines) {
    const std::size_t body = line.find('\'') + 1;
    if (line.compare(0, 4, "send") == 0 && line.compare(line.size() - 4, 4, "' ok") == 0 &&
        line[body] != '\'' && !delivered.insert(line.substr(body)).second)
      return line + ", and not for the first time\n";
  }
  return "";
}

TEST(SendLoopAndItsModel, DoesTheSameInEveryRandomWorld) {
  const std::uint64_t scripts = 1000 * test_factor();
  const std::uint64_t first_seed = random_seed();  // one for each world, from this on
  ::testing::internal::CaptureStdout();            // the worker's own lines

  std::map<std::string, int> seen;
  std::string failure;
  for (std::uint64_t seed = first_seed; seed < first_seed + scripts && failure.empty(); ++seed) {
    const LoopScript script(seed);
    SendLoopModel model(script);
    model.run();
    {
      RealLoop real(script);
      const auto check = [&](const char* what, auto actual, auto expected) {
        if (failure.empty() && !(actual == expected))
          failure = std::string(what) + " differs\n";
      };
      failure = difference(real.log.story(), model.lines);
      check("sent", real.worker.sent_count.load(), static_cast<std::uint64_t>(model.sent));
      check("failed", real.worker.failed_count.load(), static_cast<std::uint64_t>(model.failed));
      check("main_fail_time", real.worker.main_fail_time, model.main_fail_time);
      check("secondary_index", real.worker.secondary_index, model.secondary_index);
      check("secondary_server", real.worker.secondary_server, model.secondary_server);
      check("length of the queue", real.worker.queue.size(), model.queued());
      check("spool", FakeSpool::contents(), model.spool);
      if (failure.empty()) {
        const auto lines_before = model.lines.size();
        model.flush();
        const std::vector<std::string> flushed(
            model.lines.begin() + static_cast<std::ptrdiff_t>(lines_before), model.lines.end());
        failure = difference(real.stop(), flushed);
        if (!failure.empty())
          failure = "flush: " + failure;
        seen["flush: sent"] += model.dropped == 0 && !flushed.empty();
        seen["flush: some dropped"] += model.dropped > 0;
      } else {
        real.stop();
      }
      if (failure.empty())
        failure = repeated(model.lines);
      check("sent after Stop", real.worker.sent_count.load(),
            static_cast<std::uint64_t>(model.sent));
      check("failed after Stop", real.worker.failed_count.load(),
            static_cast<std::uint64_t>(model.failed));
      check("dropped by the flush", real.worker.DroppedByFlush(),
            static_cast<std::uint64_t>(model.dropped));
      check("open sockets", real.zmq.open_sockets().size(), std::size_t{0});
      check("message contents", real.zmq.live_contents(), std::size_t{0});
      check("use of libzmq", real.zmq.misuse(), std::vector<std::string>());
    }
    if (!failure.empty())
      failure = "ZMQWRITER_SEED=" + std::to_string(seed) + ": " + failure;
    for (const std::string& line : model.lines)
      seen[line.substr(0, 25)] += 1;
  }
  ::testing::internal::GetCapturedStdout();
  ASSERT_EQ(failure, "");

  // The worlds have led everywhere.
  for (const char* const start :
       {"warning: Main zmq server ", "warning: Switched to seco", "warning: Secondary server",
        "warning: Could not connec", "warning: Failed to initia", "error: Failed to open ZMQ",
        "error: Failed to connect ", "spool get nothing", "sleep 1000000 us", "sleep 100000 us",
        "disconnect null tcp://a:5", "flush: sent", "flush: some dropped"})
    EXPECT_GT(seen[start], 10) << start;
  EXPECT_GT(seen["spool store 'n10'"] + seen["spool store 'n5'"], 0);
}

}  // namespace
}  // namespace test
