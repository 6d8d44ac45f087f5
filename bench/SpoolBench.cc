// What the spool adds to the bare file operations that its format asks for.
//
//     SpoolBench [--csv FILE] [--growth FILE] [--quick] [--runs N] [--depth N]
//
//     Store        beside three fwrites and an fflush to an open file
//     Get          beside the steps that take the newest record of a file, in bare stdio calls, of
//                  as many records as a file of the spool holds
//     in turn      a Store and a Get at a time, beside the bare calls of both in turn
//     drain        Get until nothing is left of so many records in many files, beside the bare
//                  sequential reading of files of the same content, in blocks of a stdio buffer:
//                  less work than any stack has, which marks what it takes
//
// Both sides write files of the same size limit in the same folder, a fresh one below TMPDIR, so
// everything stays in the system's cache unless it is small. Figures are microseconds a record, by
// the clock. The growth curves are those figures for messages of 100 B to 60 kB, and the seconds of
// a drain of 1 to 1,000,000 records.

#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BenchReport.h"
#include "PersistentQueue.h"
#include "TempDir.h"

namespace {

constexpr std::int64_t kFileBytes = 10485760;  // the spool's own default for a chunk
constexpr std::uint16_t kDrainedBytes = 400;

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

[[noreturn]] void give_up(const char* what) {
  std::fprintf(stderr, "SpoolBench: %s\n", what);
  std::_Exit(1);
}

/// A fresh working directory with the parent of the spool's folder, which is compiled in.
class WorkFolder {
 public:
  WorkFolder() { std::filesystem::create_directory("orvik-spool"); }

 private:
  const test::TempDir folder_;
};

/// As many records as a file takes, fewer where that would take long.
int records_in_a_file(std::uint16_t length) {
  const std::int64_t fit = kFileBytes / (length + 4) - 1;
  return static_cast<int>(std::min<std::int64_t>(fit, 20000));
}

void store(PersistentQueue* spool, const std::string& payload, std::int64_t count) {
  for (std::int64_t i = 0; i < count; ++i)
    spool->Store(static_cast<std::uint16_t>(payload.size()), payload.data());
}

void take(PersistentQueue* spool, std::size_t length, std::int64_t count) {
  for (std::int64_t i = 0; i < count; ++i) {
    std::uint16_t got = 0;
    void* const taken = spool->Get(&got);
    if (!taken || got != length)
      give_up("a record is missing");
    free(taken);
  }
}

void write_bare(FILE* file, const std::string& payload, std::int64_t count) {
  const auto length = static_cast<std::uint16_t>(payload.size());
  for (std::int64_t i = 0; i < count; ++i) {
    fwrite(&length, 1, sizeof length, file);
    fwrite(&length, 1, sizeof length, file);
    fwrite(payload.data(), 1, length, file);
    fflush(file);
  }
}

void read_bare(FILE* file, std::size_t length, std::int64_t count) {
  for (std::int64_t i = 0; i < count; ++i) {
    std::uint16_t numbers[2];
    void* const taken = malloc(length);
    if (fread(&numbers[0], 1, 2, file) + fread(&numbers[1], 1, 2, file) +
            fread(taken, 1, length, file) !=
        length + 4)
      give_up("a record of the floor is missing");
    free(taken);
  }
}

/// Takes the last `count` records of a file at whose end the stream stands: back to the record, two
/// numbers and the payload, back again, zeros over the length, and to where the next record goes.
void take_bare(FILE* file, std::size_t length, std::int64_t count) {
  const auto record = static_cast<off_t>(length + 4);
  const std::uint16_t taken_length = 0;
  for (std::int64_t i = 0; i < count; ++i) {
    fseeko(file, -record, SEEK_CUR);
    read_bare(file, length, 1);
    fseeko(file, -record, SEEK_CUR);
    fwrite(&taken_length, 1, sizeof taken_length, file);
    fflush(file);
    fseeko(file, -static_cast<off_t>(sizeof taken_length), SEEK_CUR);
  }
}

File open_bare(int number = 0) {
  File file(fopen(("floor-" + std::to_string(number)).c_str(), "wb+"), fclose);
  if (!file)
    give_up("cannot create a file");
  return file;
}

double micros(int records, const std::function<void()>& work) {
  return bench::seconds(work) * 1e6 / records;
}

double store_cost(std::uint16_t length) {
  const WorkFolder folder;
  const std::string payload(length, 'x');
  PersistentQueue spool;
  store(&spool, payload, 1);  // opens the file
  const int count = records_in_a_file(length) - 1;
  return micros(count, [&] { store(&spool, payload, count); });
}

double store_floor(std::uint16_t length) {
  const WorkFolder folder;
  const std::string payload(length, 'x');
  const File file = open_bare();
  write_bare(file.get(), payload, 1);
  const int count = records_in_a_file(length) - 1;
  return micros(count, [&] { write_bare(file.get(), payload, count); });
}

double get_cost(std::uint16_t length) {
  const WorkFolder folder;
  PersistentQueue spool;
  const int count = records_in_a_file(length);
  store(&spool, std::string(length, 'x'), count);
  return micros(count, [&] { take(&spool, length, count); });
}

double get_floor(std::uint16_t length) {
  const WorkFolder folder;
  const File file = open_bare();
  const int count = records_in_a_file(length);
  write_bare(file.get(), std::string(length, 'x'), count);
  return micros(count, [&] { take_bare(file.get(), length, count); });
}

/// One record stored and taken at a time while ten others wait, as where a backlog comes and goes.
double turn_cost(std::uint16_t length) {
  const WorkFolder folder;
  const std::string payload(length, 'x');
  PersistentQueue spool;
  store(&spool, payload, 10);
  const int count = records_in_a_file(length) - 10;
  return micros(count, [&] {
    for (int i = 0; i < count; ++i) {
      store(&spool, payload, 1);
      take(&spool, length, 1);
    }
  });
}

double turn_floor(std::uint16_t length) {
  const WorkFolder folder;
  const std::string payload(length, 'x');
  const File file = open_bare();
  write_bare(file.get(), payload, 10);
  const int count = records_in_a_file(length) - 10;
  return micros(count, [&] {
    for (int i = 0; i < count; ++i) {
      write_bare(file.get(), payload, 1);
      take_bare(file.get(), length, 1);
    }
  });
}

enum DrainFigure { kTaking, kStoringMicros, kTakingMicros };

bench::Figures drain_figures(std::int64_t depth, double storing_s, double taking_s) {
  const double to_us = 1e6 / static_cast<double>(depth);
  return {taking_s, storing_s * to_us, taking_s * to_us};
}

/// Storing so many records and taking them all.
bench::Figures drain(std::int64_t depth) {
  const WorkFolder folder;
  const std::string payload(kDrainedBytes, 'x');
  PersistentQueue spool;
  const double storing = bench::seconds([&] { store(&spool, payload, depth); });
  const double taking = bench::seconds([&] { take(&spool, kDrainedBytes, depth); });
  if (!spool.IsEmpty())
    give_up("the spool did not come to its end");
  return drain_figures(depth, storing, taking);
}

/// The same of bare files.
bench::Figures drain_floor(std::int64_t depth) {
  const WorkFolder folder;
  const std::string payload(kDrainedBytes, 'x');
  const std::int64_t in_a_file = kFileBytes / (kDrainedBytes + 4);
  std::vector<std::int64_t> counts;
  for (std::int64_t left = depth; left > 0; left -= in_a_file)
    counts.push_back(std::min(left, in_a_file));
  int number = 0;
  const double writing = bench::seconds([&] {
    for (const std::int64_t count : counts)
      write_bare(open_bare(number++).get(), payload, count);
  });
  number = 0;
  const double reading = bench::seconds([&] {
    for (const std::int64_t count : counts) {
      const File file(fopen(("floor-" + std::to_string(number++)).c_str(), "rb"), fclose);
      read_bare(file.get(), kDrainedBytes, count);
    }
  });
  return drain_figures(depth, writing, reading);
}

void report_sizes(bench::Report* report, const bench::Options& options) {
  for (const std::uint16_t length : {100, 400, 1000, 4000, 16000, 60000}) {
    const auto of = [&](double (*cost)(std::uint16_t)) {
      return [cost, length] { return cost(length); };
    };
    const std::vector<bench::Series> figures =
        bench::measure(options.runs, {of(store_cost), of(store_floor), of(get_cost), of(get_floor),
                                      of(turn_cost), of(turn_floor)});
    const std::string name = std::to_string(length) + " B";
    report->add(
        {"spool Store", name, "us", figures[0], "three fwrite, one fflush", figures[1], "<= 1.15"});
    report->add({"spool Get", name, "us", figures[2], "seeks, three fread, mark, fflush",
                 figures[3], "<= 1.15"});
    report->add({"spool Store and Get in turn", name, "us", figures[4], "the same calls in turn",
                 figures[5], "<= 1.15"});
    report->add_growth("message size (B): Store, us", length, figures[0], figures[1]);
    report->add_growth("message size (B): Get, us", length, figures[2], figures[3]);
  }
}

void report_depths(bench::Report* report, const bench::Options& options, std::int64_t most) {
  for (std::int64_t depth = 1; depth <= most; depth *= 10) {
    const std::vector<std::vector<bench::Series>> figures = bench::measure_figures(
        options.runs, {[&] { return drain(depth); }, [&] { return drain_floor(depth); }});
    const std::vector<bench::Series>& ours = figures[0];
    const std::vector<bench::Series>& floor = figures[1];
    report->add_growth("spool depth: drain, s", static_cast<double>(depth), ours[kTaking],
                       floor[kTaking]);
    if (depth < most)
      continue;
    const std::string name = std::to_string(depth) + " records of 400 B";
    report->add({"spool Store", name, "us", ours[kStoringMicros], "three fwrite, one fflush",
                 floor[kStoringMicros], "<= 1.15"});
    report->add({"drain of the spool", name, "us", ours[kTakingMicros], "sequential read",
                 floor[kTakingMicros], ""});
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::uint64_t depth = 0;
  const bench::Options options = bench::parse(argc, argv, {{"--depth", &depth}});
  if (depth == 0)
    depth = options.quick ? 10000 : 1000000;
  bench::Report report(options);
  report_sizes(&report, options);
  report_depths(&report, options, static_cast<std::int64_t>(depth));
  return report.finish();
}
