// What the benchmark programs share: their options, the median of alternating runs, and the files
// that bench/run reads.
//
// A program measures something of ours beside a floor or a peer in the same run:
//
//     const bench::Options options = bench::parse(argc, argv, {{"--messages", &messages}});
//     bench::Report report(options);
//     const std::vector<bench::Series> figures = bench::measure(options.runs, {ours, floor});
//     report.add({"spool Store", "400 B", "us", figures[0], "bare stdio", figures[1], "<= 1.15"});
//     return report.finish();
//
// Options that every program has: --csv FILE, --growth FILE, --quick, and --runs N where it
// measures each figure several times.
//
// The file of --csv has the columns
// measure,case,unit,ours,peer_name,peer,ratio,goal,lowest,highest. The ratio is ours / peer. A goal
// is "<= NUMBER" or ">= NUMBER" and is asked of the ratio, or of our figure where there is no peer;
// it may be empty. Peer and ratio are empty where there is no peer. Lowest and highest are the same
// of single runs, each of ours beside the peer's of the same turn; they are empty where there was
// one run, or where a figure is put together of several.
//
// The file of --growth has the columns curve,x,ours,peer. A curve is named "AXIS: SERIES, UNIT", as
// in "message size: Store, us"; bench/run draws curves of the same axis into the same plot. The
// figure is the cost of the whole work at x, so that work without surprises is a straight line;
// peer may be empty.
//
// One thread.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace bench {

struct Options {
  // Absolute, since programs work in folders of their own; empty: no file.
  std::string csv;
  std::string growth;
  bool quick = false;  ///< small amounts: shows that all works, not what it costs
  int runs = 0;        ///< how often each figure is measured; 5, and 3 with --quick, unless given
};

/// Stands for a figure that could not be had, as of a tool that is not installed.
constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

namespace internal {

[[noreturn]] inline void usage(const char* program,
                               const std::map<std::string, std::uint64_t*>& numbers, bool repeats) {
  std::fprintf(stderr, "usage: %s [--csv FILE] [--growth FILE] [--quick]%s", program,
               repeats ? " [--runs N]" : "");
  for (const auto& number : numbers)
    std::fprintf(stderr, " [%s N]", number.first.c_str());
  std::fputc('\n', stderr);
  std::exit(2);
}

/// False for anything but a number of decimal digits from 1 to a billion.
inline bool parse_count(const std::string& word, std::uint64_t* count) {
  if (word.empty() || word.size() > 10 || word.find_first_not_of("0123456789") != std::string::npos)
    return false;
  *count = std::strtoull(word.c_str(), nullptr, 10);
  return *count >= 1 && *count <= 1000000000;
}

inline std::string field(const std::string& text) {
  if (text.find_first_of(",\"\n") == std::string::npos)
    return text;
  std::string quoted = "\"";
  for (const char c : text)
    quoted += c == '"' ? "\"\"" : std::string(1, c);
  return quoted + "\"";
}

inline std::string figure(double value) {
  if (!std::isfinite(value))
    return "";
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

}  // namespace internal

/// How often a program measures each of its figures.
enum class Runs { kSeveral, kOne };

/// The options of the command line. `numbers` are options of the program's own, each followed by a
/// whole number above 0. Wrong words end the program with the usage and status 2.
inline Options parse(int argc, char** argv,
                     const std::map<std::string, std::uint64_t*>& numbers = {},
                     Runs runs_of_each = Runs::kSeveral) {
  const bool repeats = runs_of_each == Runs::kSeveral;
  const std::string path = argv[0];
  const std::string program = path.substr(path.rfind('/') + 1);
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--quick") {
      options.quick = true;
      continue;
    }
    if (++i == argc)
      internal::usage(program.c_str(), numbers, repeats);
    const std::string value = argv[i];
    std::uint64_t runs = 0;
    const auto number = numbers.find(name);
    if (name == "--csv")
      options.csv = std::filesystem::absolute(value).string();
    else if (name == "--growth")
      options.growth = std::filesystem::absolute(value).string();
    else if (name == "--runs" && repeats && internal::parse_count(value, &runs) && runs <= 1000)
      options.runs = static_cast<int>(runs);
    else if (number == numbers.end() || !internal::parse_count(value, number->second))
      internal::usage(program.c_str(), numbers, repeats);
  }
  if (options.runs == 0)
    options.runs = !repeats ? 1 : options.quick ? 3 : 5;
  return options;
}

/// Of at least one value.
inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

/// A figure as several runs gave it, in their order. It stands for their median wherever one number
/// is wanted.
class Series {
 public:
  Series(double value) : values_{value} {}
  explicit Series(std::vector<double> values) : values_(std::move(values)) {}

  operator double() const { return median(values_); }
  const std::vector<double>& values() const { return values_; }

 private:
  std::vector<double> values_;  // at least one
};

/// What one run of a candidate gives: one figure or several.
using Figures = std::vector<double>;

/// Measures the candidates in turn, so many times, each second time in the opposite order, so that
/// a machine that slows down or speeds up meets all of them alike. The figures of each candidate.
inline std::vector<std::vector<Series>> measure_figures(
    int runs, const std::vector<std::function<Figures()>>& candidates) {
  std::vector<std::vector<Figures>> values(candidates.size());  // by candidate and figure
  for (int run = 0; run < runs; ++run)
    for (std::size_t i = 0; i < candidates.size(); ++i) {
      const std::size_t next = run % 2 ? candidates.size() - 1 - i : i;
      const Figures figures = candidates[next]();
      values[next].resize(figures.size());
      for (std::size_t figure = 0; figure < figures.size(); ++figure)
        values[next][figure].push_back(figures[figure]);
    }
  std::vector<std::vector<Series>> result(candidates.size());
  for (std::size_t i = 0; i < candidates.size(); ++i)
    for (const Figures& of_one : values[i])
      result[i].push_back(Series(of_one));
  return result;
}

/// The same of candidates with one figure each.
inline std::vector<Series> measure(int runs,
                                   const std::vector<std::function<double()>>& candidates) {
  std::vector<std::function<Figures()>> wrapped;
  for (const auto& candidate : candidates)
    wrapped.push_back([candidate] { return Figures{candidate()}; });
  std::vector<Series> result;
  for (const std::vector<Series>& figures : measure_figures(runs, wrapped))
    result.push_back(figures[0]);
  return result;
}

/// Seconds that the work took by the clock.
inline double seconds(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  return took.count();
}

/// Processor time of this process so far, all threads; RUSAGE_CHILDREN for its ended children.
inline double cpu_seconds(int who = RUSAGE_SELF) {
  rusage usage = {};
  getrusage(who, &usage);
  const auto of = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

namespace internal {

/// The lowest and the highest of single runs, as a row has them; `peer` is kNone where there is
/// none.
inline std::pair<std::string, std::string> limits(const Series& ours, const Series& peer) {
  std::vector<double> values = ours.values();
  if (std::isfinite(peer)) {
    if (peer.values().size() != values.size())
      return {};
    for (std::size_t run = 0; run < values.size(); ++run)
      values[run] /= peer.values()[run];
  }
  if (values.size() < 2)
    return {};
  const auto found = std::minmax_element(values.begin(), values.end());
  return {figure(*found.first), figure(*found.second)};
}

}  // namespace internal

/// One line of the table.
struct Row {
  std::string measure;  ///< "spool Store"
  std::string of;       ///< the case, as "400 B"
  std::string unit;     ///< of both figures
  Series ours;
  std::string peer_name;  ///< empty where there is none
  Series peer;            ///< kNone where there is none
  std::string goal;       ///< "<= 1.15", ">= 0.9" or nothing
};

/// Collects the rows, prints each on standard output as it comes, and writes the files at the end.
/// Whatever else the program prints on standard output from then on, as the worker does, is thrown
/// away.
class Report {
 public:
  explicit Report(const Options& options)
      : options_(options), out_(fdopen(dup(STDOUT_FILENO), "w"), std::fclose) {
    if (!out_ || !std::freopen("/dev/null", "w", stdout)) {
      std::perror("standard output");
      std::exit(1);
    }
  }

  /// A row without a figure of ours is left out, as is a peer without one.
  void add(const Row& row) {
    if (!std::isfinite(row.ours))
      return;
    const bool beside = std::isfinite(row.peer);
    const std::string ratio = beside ? internal::figure(row.ours / row.peer) : "";
    const std::string peer = internal::figure(row.peer);
    const std::pair<std::string, std::string> limits = internal::limits(row.ours, row.peer);
    std::fprintf(out_.get(), "%-34s %-32s %12s %-10s", row.measure.c_str(), row.of.c_str(),
                 internal::figure(row.ours).c_str(), row.unit.c_str());
    if (beside)
      std::fprintf(out_.get(), " %12s %-24s %9s", peer.c_str(), row.peer_name.c_str(),
                   ratio.c_str());
    std::fprintf(out_.get(), "  %s\n", row.goal.c_str());
    std::fflush(out_.get());
    line(&rows_, {row.measure, row.of, row.unit, internal::figure(row.ours),
                  beside ? row.peer_name : "", peer, ratio, row.goal, limits.first, limits.second});
  }

  void add_growth(const std::string& curve, double x, double ours, double peer = kNone) {
    line(&points_, {curve, internal::figure(x), internal::figure(ours), internal::figure(peer)});
  }

  /// Writes the files that were asked for. The exit status of the program: 1 when one cannot be
  /// written, which is said on standard error.
  int finish() const {
    const bool rows_written = write(
        options_.csv, "measure,case,unit,ours,peer_name,peer,ratio,goal,lowest,highest\n" + rows_);
    const bool points_written = write(options_.growth, "curve,x,ours,peer\n" + points_);
    return rows_written && points_written ? 0 : 1;
  }

 private:
  static void line(std::string* text, const std::vector<std::string>& fields) {
    for (std::size_t i = 0; i < fields.size(); ++i)
      *text += (i ? "," : "") + internal::field(fields[i]);
    *text += '\n';
  }

  static bool write(const std::string& path, const std::string& text) {
    if (path.empty())
      return true;
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file)
      std::fprintf(stderr, "cannot write %s\n", path.c_str());
    return !!file;
  }

  Options options_;
  std::unique_ptr<FILE, int (*)(FILE*)> out_;
  std::string rows_;
  std::string points_;
};

}  // namespace bench
