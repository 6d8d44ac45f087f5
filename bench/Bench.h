// What the benchmark programs share: the names by which bench/run finds their figures.
//
// A benchmark is named "MEASURE/CASE/SIDE". The side is "ours" or the name of a floor or a peer,
// which stands beside ours of the same measure and case, and of each case that begins with its own
// and a comma; one without a case stands beside all.
//
//     bench::add("spool Store", "400 B", "ours", store)->UseRealTime();
//     bench::add("spool Store", "400 B", "three fwrite, one fflush", floor)->UseRealTime();
//
// The figure is the time of an iteration: the thread's processor time, or with UseRealTime() that
// of the clock. Each counter is a figure too: "WHAT [UNIT]" is that of "MEASURE, WHAT", and
// "[UNIT]" that of the measure itself. A figure named "AXIS: SERIES" by its measure or its counter
// is a point of a curve, at the number with which the case begins.
//
// report.py reads the names and has the goals.
#pragma once

#include <cstring>
#include <functional>
#include <string>

#include <benchmark/benchmark.h>

#include "System.h"

namespace bench {

using benchmark::State;

inline benchmark::internal::Benchmark* add(const std::string& measure, const std::string& of,
                                           const std::string& side,
                                           const std::function<void(State&)>& work) {
  return benchmark::RegisterBenchmark((measure + "/" + of + "/" + side).c_str(), work);
}

/// Work that is done once and leaves its figures in the counters; its time is none.
inline void add_counters(const std::string& measure, const std::string& of, const std::string& side,
                         const std::function<void(benchmark::UserCounters&)>& work) {
  add(measure, of, side,
      [work](State& state) {
        for (auto _ : state)
          work(state.counters);
      })
      ->Iterations(1)
      ->UseManualTime();
}

/// The main function of a program. Its last word may be --quick, for small amounts: they show that
/// all works, not what it costs. Everything else is Google Benchmark's.
inline int run(int argc, char** argv, void (*add_all)(bool quick)) {
  const bool quick = std::strcmp(argv[argc - 1], "--quick") == 0;
  argc -= quick ? 1 : 0;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 2;
  add_all(quick);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench
