// One reading of the host's figures beside what a user would run for the same.
//
// SystemStats::getStats gives load, priority, memory and disk; `uptime`, `free` and `df` as whole
// processes, their output thrown away, give a part of that each. A tool that is not installed is
// left out. Figures are microseconds by the clock.

#include <string>

#include "Bench.h"
#include "SystemStats.h"

// The host's headers.
#include "Type.h"
#include "Val.h"

#include "standin/Scripts.h"

namespace {

/// The script type, as scripts declare it.
void define_stats_type() {
  standin::define_type(
      "system_stats",
      standin::record_type("system_stats", {{"cpu_usage", base_type(TYPE_DOUBLE)},
                                            {"priority", base_type(TYPE_INT)},
                                            {"ph_mem_total", base_type(TYPE_COUNT)},
                                            {"ph_mem_used", base_type(TYPE_COUNT)},
                                            {"virt_mem_total", base_type(TYPE_COUNT)},
                                            {"virt_mem_used", base_type(TYPE_COUNT)},
                                            {"hdd_volume", base_type(TYPE_DOUBLE)},
                                            {"hdd_used", base_type(TYPE_DOUBLE)},
                                            {"hdd_avail", base_type(TYPE_DOUBLE)}}));
}

void add_all(bool quick) {
  define_stats_type();
  const auto add = [](const std::string& side, int calls, const std::function<void()>& work) {
    bench::add("SystemStats reading", "", side,
               [work](bench::State& state) {
                 for (auto _ : state)
                   work();
               })
        ->Iterations(calls)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
  };
  add("ours", quick ? 100 : 1000, [] { Unref(SystemStats::getStats()); });
  for (const std::string tool : {"uptime", "free", "df"})
    if (bench::run({tool}))  // and is in the system's cache from now on
      add(tool, 1, [tool] { bench::run({tool}); });
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, add_all);
}
