// One reading of the host's figures beside what a user would run for the same.
//
//     StatsBench [--csv FILE] [--growth FILE] [--quick] [--runs N]
//
// SystemStats::getStats gives load, priority, memory and disk; `uptime`, `free` and `df` as whole
// processes, their output thrown away, give a part of that each. A tool that is not installed is
// left out. Figures are microseconds by the clock.

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "BenchReport.h"
#include "Command.h"
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

double micros_of_a_reading(int calls) {
  return bench::seconds([&] {
           for (int i = 0; i < calls; ++i)
             Unref(SystemStats::getStats());
         }) *
         1e6 / calls;
}

double micros_of_a_tool(const std::string& tool) {
  bool good = false;
  const double seconds = bench::seconds([&] { good = bench::run({tool}); });
  return good ? seconds * 1e6 : bench::kNone;
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Options options = bench::parse(argc, argv);
  bench::Report report(options);
  define_stats_type();
  const int calls = options.quick ? 100 : 1000;
  std::vector<std::string> tools;
  for (const char* tool : {"uptime", "free", "df"})
    if (std::isfinite(micros_of_a_tool(tool)))  // and is in the system's cache from now on
      tools.push_back(tool);
  std::vector<std::function<double()>> candidates = {[&] { return micros_of_a_reading(calls); }};
  for (const std::string& tool : tools)
    candidates.push_back([&] { return micros_of_a_tool(tool); });
  const std::vector<bench::Series> figures = bench::measure(options.runs, candidates);
  const auto fastest = std::min_element(figures.begin() + 1, figures.end());
  for (std::size_t i = 1; i < figures.size(); ++i)
    report.add({"SystemStats reading", "beside " + tools[i - 1], "us", figures[0], tools[i - 1],
                figures[i],
                figures.begin() + static_cast<std::ptrdiff_t>(i) == fastest ? "<= 0.2" : ""});
  if (tools.empty())
    report.add({"SystemStats reading", "", "us", figures[0], "", bench::kNone, ""});
  return report.finish();
}
