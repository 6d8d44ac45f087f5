// How much memory the plug-in takes: idle, while a server takes all records, and while none does.
//
// One writer, connection records, in a process of its own for each case:
//     server up      every record is delivered; the writer waits while many messages are queued
//     server down    nobody listens: 500 stay in memory, the rest goes to the spool
//     drain          then somebody does, and all of them are delivered
//
// One run, as that takes long. Figures are kilobytes of resident memory. Growth is that between the
// first 10,000 records and the largest of the samples that follow every 10,000. Linux only:
// /proc/self/statm.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Agent.h"
#include "Bench.h"
#include "SampleRecords.h"
#include "SinkProcess.h"

namespace {

constexpr std::uint64_t kEarly = 10000;

using bench::give_up;
using Figures = std::vector<double>;

double resident_kb() {
  long total = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  if (resident == 0)
    give_up("cannot read /proc/self/statm");
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

/// Runs `work` in a fresh process, which ends without tidying up: a worker without a server would
/// try each record once more. Gives the figures of the work, of which there are `count`.
Figures in_child(std::size_t count, const std::function<Figures()>& work) {
  const test::TempDir folder;  // for what the child leaves
  int ends[2];
  if (pipe(ends) != 0)
    give_up("no pipe");
  const pid_t pid = fork();
  if (pid < 0)
    give_up("no process");
  const std::size_t bytes = count * sizeof(double);
  if (pid == 0) {
    setenv("TMPDIR", folder.path().c_str(), 1);
    const Figures figures = work();
    _exit(figures.size() == count &&
                  write(ends[1], figures.data(), bytes) == static_cast<ssize_t>(bytes)
              ? 0
              : 1);
  }
  close(ends[1]);
  Figures figures(count);
  const bool whole = read(ends[0], figures.data(), bytes) == static_cast<ssize_t>(bytes);
  close(ends[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!whole)
    give_up("a process of the benchmark failed");
  return figures;
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
      agent_->write(0, samples_[i % samples_.size()]->record());
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

/// Idle, after the first records, at most after that.
Figures with_server(std::uint64_t records) {
  bench::SinkProcess sink;
  bench::Agent agent(sink.endpoint(), sink.public_key(), 1);
  Feeder feeder(&agent, true);
  sink.expect(0, 1);
  feeder.write(1);
  sink.wait();
  const double idle = resident_kb();
  sink.expect(0, records);
  feeder.write(kEarly);
  const double early = resident_kb();
  Peak peak;
  feeder.write(records - kEarly, &peak);
  sink.wait();
  peak.sample();
  return {idle, early, peak.kb()};
}

/// After the first records, at most after that, at most while they are drained.
Figures without_server(std::uint64_t records) {
  bench::SinkProcess sink;
  sink.close();
  // Deliberately never destroyed, see in_child.
  auto* const agent = new bench::Agent(sink.endpoint(), sink.public_key(), 1);
  Feeder feeder(agent, false);
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
  return {early, down.kb(), draining.kb()};
}

void add_all(bool quick) {
  const std::uint64_t records = quick ? 30000 : 1000000;
  const std::string growth = ", 10000 to " + std::to_string(records) + " records [kB]";
  using benchmark::UserCounters;
  bench::add_counters("resident memory", "server up", "ours", [=](UserCounters& counters) {
    const Figures kb = in_child(3, [&] { return with_server(records); });
    counters["idle [kB]"] = kb[0];
    counters["after 10000 records [kB]"] = kb[1];
    counters["growth" + growth] = kb[2] - kb[1];
  });
  bench::add_counters("resident memory", "server down", "ours", [=](UserCounters& counters) {
    const Figures kb = in_child(3, [&] { return without_server(records); });
    counters["after 10000 records [kB]"] = kb[0];
    counters["growth" + growth] = kb[1] - kb[0];
    counters["growth while drained" + growth] = kb[2] - kb[0];
  });
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, add_all);
}
