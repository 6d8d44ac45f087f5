// How much memory the plug-in takes: idle, while a server takes all records, and while none does.
//
// One writer, connection records:
//     server up      every record is delivered; the writer waits while many messages are queued
//     server down    nobody listens: 500 stay in memory, the rest goes to the spool
//     drain          then somebody does, and all of them are delivered
//
// bench/run starts the program once for each server: what one has freed could hide what the other
// takes. One run, as that takes long. Figures are kilobytes of resident memory. Growth is that
// between the first 10,000 records and the largest of the samples that follow every 10,000. Linux
// only: /proc/self/statm.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>

#include "Agent.h"
#include "Bench.h"
#include "SampleRecords.h"
#include "SinkProcess.h"

namespace {

constexpr std::uint64_t kEarly = 10000;

using benchmark::UserCounters;

double resident_kb() {
  long total = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  if (resident == 0)
    bench::give_up("cannot read /proc/self/statm");
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

/// The largest so far, by samples.
class Peak {
 public:
  void sample() { kb_ = std::max(kb_, resident_kb()); }
  double kb() const { return kb_; }

 private:
  double kb_ = 0;
};

class Feeder {
 public:
  Feeder(bench::Agent* agent, bool waiting) : agent_(agent), waiting_(waiting) {}

  void write(std::uint64_t records) {
    for (std::uint64_t i = 0; i < records; ++i) {
      if (waiting_)
        agent_->wait_for_room(i);
      agent_->write(0, samples_[i % samples_.size()]->record);
    }
  }

  /// In portions, each of which ends with a sample.
  void write(std::uint64_t records, Peak* peak) {
    for (std::uint64_t done = 0; done < records; done += kEarly) {
      write(std::min(kEarly, records - done));
      peak->sample();
    }
  }

 private:
  bench::Agent* agent_;
  bool waiting_;
  bench::Samples samples_ = bench::samples("connection", 64);
};

std::string growth(const std::string& when, std::uint64_t records) {
  return "growth" + when + ", 10000 to " + std::to_string(records) + " records [kB]";
}

void with_server(std::uint64_t records, UserCounters& counters) {
  bench::SinkProcess sink;
  bench::Agent agent(sink.endpoint(), sink.public_key(), 1);
  Feeder feeder(&agent, true);
  sink.expect(0, 1);
  feeder.write(1);
  sink.wait();
  counters["idle [kB]"] = resident_kb();
  sink.expect(0, records);
  feeder.write(kEarly);
  const double early = resident_kb();
  Peak peak;
  feeder.write(records - kEarly, &peak);
  sink.wait();
  peak.sample();
  counters["after 10000 records [kB]"] = early;
  counters[growth("", records)] = peak.kb() - early;
}

void without_server(std::uint64_t records, UserCounters& counters) {
  bench::SinkProcess sink;
  sink.close();
  bench::Agent agent(sink.endpoint(), sink.public_key(), 1);
  Feeder feeder(&agent, false);
  feeder.write(kEarly);
  const double early = resident_kb();
  Peak down;
  feeder.write(records - kEarly, &down);
  sink.open();
  sink.expect(0, records);
  std::atomic<bool> received(false);
  std::thread waiting([&] {
    sink.wait();
    received = true;
  });
  Peak draining;
  while (!received) {
    draining.sample();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  waiting.join();
  counters["after 10000 records [kB]"] = early;
  counters[growth("", records)] = down.kb() - early;
  counters[growth(" while drained", records)] = draining.kb() - early;
}

void add_all(bool quick) {
  const std::uint64_t records = quick ? 30000 : 1000000;
  const auto add = [=](const std::string& of, void (*measure)(std::uint64_t, UserCounters&)) {
    bench::add_counters("resident memory", of, "ours",
                        [=](UserCounters& counters) { measure(records, counters); });
  };
  add("server up", with_server);
  add("server down", without_server);
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, add_all);
}
