// How fast events are delivered, beside what libzmq itself gives with the same socket options.
//
// Connection and http records, each to a receiving process of its own over CURVE on the loopback,
// each run in turn by way of
//     the bare loop      a copy of the finished message, zmq_msg_init_data, a blocking zmq_sendmsg
//     the spinning loop  the same, with the worker's bounded spin for room before each send
//     the plug-in        DoWrite on 1 and 4 writer threads, which wait while many messages are
//                        queued, so that everything stays in memory
//     ... by the spool   the same without waiting: what finds no room in memory goes to disk
//
// Delivered means received: the clock is the receiving process's, from the end of the warm-up to
// the last event, in a stream without a break. By the spool it is the sender's, from the first
// record to the moment at which the last has been received, so that what was written early counts
// too. Processor time is that of the sending process: writers, send thread and libzmq's thread.
//
// The growth curves are the seconds that it takes to deliver what 1 to 16 writers write, each as
// much as the other, and the microseconds for a message of 100 B to 60 kB.

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Agent.h"
#include "Bench.h"
#include "PolloutSpin.h"
#include "SampleRecords.h"
#include "SinkProcess.h"
#include "ZmqWorker.h"

namespace {

using bench::give_up;
using bench::SinkProcess;
using logging::writer::ZmqWorker;

constexpr std::uint64_t kWarmUp = 1000;

struct Figures {
  double events_per_second;
  double cpu_us;  ///< of one event
};

/// What is sent: records for the plug-in, and their finished messages for the loops.
struct Load {
  Load(const std::string& name, std::uint64_t events, bench::Samples&& of)
      : name(name), events(events), samples(std::move(of)) {
    for (const auto& sample : samples)
      messages.push_back(bench::message(sample->record, "agent-7"));
  }

  /// Of so many messages, in turn over and over.
  std::uint64_t bytes(std::uint64_t count) const {
    std::uint64_t sum = 0;
    for (std::uint64_t i = 0; i < count; ++i)
      sum += messages[i % messages.size()].size();
    return sum;
  }

  std::string name;
  std::uint64_t events;
  bench::Samples samples;
  std::vector<std::string> messages;
};

using SharedLoad = std::shared_ptr<const Load>;

SharedLoad sample_load(const std::string& kind, std::uint64_t events) {
  return std::make_shared<Load>(kind, events, bench::samples(kind, 64));
}

/// Events of one long text.
SharedLoad sized_load(std::size_t bytes, std::uint64_t events) {
  // What an event weighs beside its text.
  constexpr std::size_t kAround = 90;
  bench::Samples samples(1);
  samples[0] = std::make_unique<bench::Sample>();
  samples[0]->record.text("ptype", "tds").text("uid", "C1");
  samples[0]->record.text("tds.sql", std::string(bytes - kAround, 'q'));
  return std::make_shared<Load>(std::to_string(bytes) + " B", events, std::move(samples));
}

/// Whether everything came whole that the writers wrote, so many messages each.
void check(const bench::Received& received, const Load& load, std::uint64_t each, int writers) {
  if (received.bytes != load.bytes(each) * static_cast<std::uint64_t>(writers))
    give_up("what arrived is not what was sent");
}

// -- The floors -----------------------------------------------------------------------------------

void release(void* data, void*) {
  std::free(data);
}

void loop(void* socket, const Load& load, std::uint64_t events, bool spinning) {
  logging::writer::PolloutSpin spin;
  for (std::uint64_t i = 0; i < events; ++i) {
    const std::string& message = load.messages[i % load.messages.size()];
    void* const copy = std::malloc(message.size());
    std::memcpy(copy, message.data(), message.size());
    zmq_msg_t msg;
    zmq_msg_init_data(&msg, copy, message.size(), release, nullptr);
    if (spinning)
      spin.wait(socket);
    if (zmq_sendmsg(socket, &msg, 0) < 0)
      give_up("a send failed");
  }
}

Figures measure_loop(const Load& load, bool spinning) {
  const bench::AgentSurroundings surroundings;
  SinkProcess sink;
  // Only here for its socket, which gets the options that the plug-in's has.
  const std::unique_ptr<ZmqWorker> worker(new ZmqWorker());
  worker->Init(sink.endpoint(), sink.public_key(), "");
  worker->Start();
  void* const socket = worker->Connect(sink.endpoint());
  sink.expect(kWarmUp, load.events);
  const double cpu_before = bench::cpu_seconds();
  loop(socket, load, kWarmUp + load.events, spinning);
  const bench::Received received = sink.wait();
  const double cpu = bench::cpu_seconds() - cpu_before;
  check(received, load, kWarmUp + load.events, 1);
  zmq_close(socket);
  worker->Stop();
  return {static_cast<double>(load.events) / received.seconds,
          cpu * 1e6 / static_cast<double>(kWarmUp + load.events)};
}

// -- The plug-in ----------------------------------------------------------------------------------

enum class Way { kMemory, kSpool };

void write(bench::Agent* agent, int writer, const Load& load, std::uint64_t events, Way way) {
  for (std::uint64_t i = 0; i < events; ++i) {
    if (way == Way::kMemory)
      agent->wait_for_room(i);
    agent->write(writer, load.samples[i % load.samples.size()]->record);
  }
}

/// The writers of a host wait for packets; these wait for room in the queue, and one that is woken
/// too late for that leaves the queue empty, after which the send thread pauses for 100 ms: that
/// would measure the scheduler. So they go before all others, where that is allowed (as root).
void go_before_others() {
  struct sched_param priority = {};
  priority.sched_priority = sched_get_priority_min(SCHED_FIFO);
  static std::once_flag said;
  if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority) != 0)
    std::call_once(said, [] {
      std::fprintf(stderr, "left out: the writers' real-time priority, which only root can give\n");
    });
}

/// So many events of each writer.
void write_all(bench::Agent* agent, const Load& load, std::uint64_t each, Way way) {
  std::vector<std::thread> threads;
  for (int writer = 0; writer < agent->writers(); ++writer)
    threads.emplace_back([&, writer] {
      if (way == Way::kMemory)
        go_before_others();
      write(agent, writer, load, each, way);
    });
  for (std::thread& thread : threads)
    thread.join();
}

Figures measure_in_memory(const Load& load, int writers) {
  SinkProcess sink;
  bench::Agent agent(sink.endpoint(), sink.public_key(), writers);
  const std::uint64_t each = (kWarmUp + load.events) / static_cast<std::uint64_t>(writers);
  const std::uint64_t events = each * static_cast<std::uint64_t>(writers) - kWarmUp;
  sink.expect(kWarmUp, events);
  const double cpu_before = bench::cpu_seconds();
  write_all(&agent, load, each, Way::kMemory);
  const bench::Received received = sink.wait();
  const double cpu = bench::cpu_seconds() - cpu_before;
  check(received, load, each, writers);
  if (agent.spool_was_used())
    give_up("the spool was used");
  return {static_cast<double>(events) / received.seconds,
          cpu * 1e6 / static_cast<double>(kWarmUp + events)};
}

Figures measure_by_the_spool(const Load& load, int writers) {
  SinkProcess sink;
  bench::Agent agent(sink.endpoint(), sink.public_key(), writers);
  sink.expect(0, kWarmUp);
  write(&agent, 0, load, kWarmUp, Way::kMemory);
  sink.wait();
  const std::uint64_t each = load.events / static_cast<std::uint64_t>(writers);
  const std::uint64_t events = each * static_cast<std::uint64_t>(writers);
  sink.expect(0, events);
  bench::Received received = {};
  const double cpu_before = bench::cpu_seconds();
  const double seconds = bench::seconds([&] {
    write_all(&agent, load, each, Way::kSpool);
    received = sink.wait();
  });
  const double cpu = bench::cpu_seconds() - cpu_before;
  if (!agent.spool_was_used())
    give_up("the spool was not used");
  check(received, load, each, writers);
  return {static_cast<double>(events) / seconds, cpu * 1e6 / static_cast<double>(events)};
}

// -- The figures ----------------------------------------------------------------------------------

using benchmark::UserCounters;

void add_deliveries(const SharedLoad& load) {
  const auto add_one = [&](const std::string& of, const std::string& side,
                           const std::function<Figures()>& deliver) {
    bench::add_counters("delivered", load->name + of, side, [=](UserCounters& counters) {
      const Figures figures = deliver();
      counters["[events/s]"] = figures.events_per_second;
      counters["processor time [us/event]"] = figures.cpu_us;
    });
  };
  add_one("", "libzmq loop, spinning for room", [=] { return measure_loop(*load, true); });
  add_one("", "bare libzmq loop", [=] { return measure_loop(*load, false); });
  for (const int writers : {1, 4}) {
    const std::string of = ", " + std::to_string(writers) + (writers == 1 ? " writer" : " writers");
    add_one(of + ", in memory", "ours", [=] { return measure_in_memory(*load, writers); });
    add_one(of + ", by the spool", "ours", [=] { return measure_by_the_spool(*load, writers); });
  }
}

/// A point of a curve: so many writers in memory, and the loop that spins for room.
void add_growth(const std::string& curve, std::size_t x, const SharedLoad& load, int writers,
                const std::string& unit, double events_in_unit) {
  const auto add_one = [&](const std::string& side, const std::function<Figures()>& deliver) {
    bench::add_counters(curve, std::to_string(x), side, [=](UserCounters& counters) {
      counters["[" + unit + "]"] = events_in_unit / deliver().events_per_second;
    });
  };
  add_one("ours", [=] { return measure_in_memory(*load, writers); });
  add_one("libzmq loop, spinning for room", [=] { return measure_loop(*load, true); });
}

void add_all(bool quick) {
  const std::uint64_t events = quick ? 5000 : 100000;
  for (const char* kind : {"connection", "http"})
    add_deliveries(sample_load(kind, events));
  for (const int writers : {1, 2, 4, 8, 16}) {
    const std::uint64_t all = events / 10 * static_cast<std::uint64_t>(writers);
    add_growth("writers: delivery", static_cast<std::size_t>(writers),
               sample_load("connection", all), writers, "s", static_cast<double>(all));
  }
  for (const std::size_t bytes : {100, 400, 1000, 4000, 16000, 60000}) {
    const SharedLoad load =
        sized_load(bytes, std::max<std::uint64_t>(500, events * 500 / (1000 + bytes)));
    add_growth("message size (B): delivery", load->messages[0].size(), load, 1, "us", 1e6);
  }
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, add_all);
}
