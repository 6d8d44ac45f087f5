// What the spool adds to the bare file operations that its format asks for.
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

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Bench.h"
#include "PersistentQueue.h"
#include "TempDir.h"

namespace {

constexpr std::int64_t kFileBytes = 10485760;  // the spool's own default for a chunk

/// Of the records that are drained.
constexpr std::int64_t kDrainedBytes = 400;

using bench::give_up;
using File = std::unique_ptr<FILE, int (*)(FILE*)>;

/// A fresh working directory with the parent of the spool's folder, which is compiled in.
class WorkFolder {
 public:
  WorkFolder() { std::filesystem::create_directory("orvik-spool"); }

 private:
  const test::TempDir folder_;
};

std::int64_t records_in_a_file(std::int64_t length) {
  return kFileBytes / (length + 4) - 1;
}

std::string text(std::int64_t length) {
  return std::string(static_cast<std::size_t>(length), 'x');
}

void store(PersistentQueue* spool, const std::string& payload, std::int64_t count) {
  for (std::int64_t i = 0; i < count; ++i)
    spool->Store(static_cast<std::uint16_t>(payload.size()), payload.data());
}

void take(PersistentQueue* spool, std::int64_t length) {
  std::uint16_t got = 0;
  void* const taken = spool->Get(&got);
  if (!taken || got != length)
    give_up("a record is missing");
  free(taken);
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

void read_bare(FILE* file, std::int64_t length) {
  std::uint16_t numbers[2];
  const auto bytes = static_cast<std::size_t>(length);
  void* const taken = malloc(bytes);
  if (fread(&numbers[0], 1, 2, file) + fread(&numbers[1], 1, 2, file) +
          fread(taken, 1, bytes, file) !=
      bytes + 4)
    give_up("a record of the floor is missing");
  free(taken);
}

/// Takes the last record of a file at whose end the stream stands: back to the record, two numbers
/// and the payload, back again, zeros over the length, and to where the next record goes.
void take_bare(FILE* file, std::int64_t length) {
  const auto record = static_cast<off_t>(length + 4);
  const std::uint16_t taken_length = 0;
  fseeko(file, -record, SEEK_CUR);
  read_bare(file, length);
  fseeko(file, -record, SEEK_CUR);
  fwrite(&taken_length, 1, sizeof taken_length, file);
  fflush(file);
  fseeko(file, -static_cast<off_t>(sizeof taken_length), SEEK_CUR);
}

File open_bare(int number, const char* mode) {
  File file(fopen(("floor-" + std::to_string(number)).c_str(), mode), fclose);
  if (!file)
    give_up("cannot open a file");
  return file;
}

void stores(bench::State& state, std::int64_t length) {
  const WorkFolder folder;
  const std::string payload = text(length);
  PersistentQueue spool;
  store(&spool, payload, 1);  // opens the file
  for (auto _ : state)
    store(&spool, payload, 1);
}

void stores_bare(bench::State& state, std::int64_t length) {
  const WorkFolder folder;
  const std::string payload = text(length);
  int files = 0;
  File file = open_bare(files++, "wb+");
  write_bare(file.get(), payload, 1);
  std::int64_t room = records_in_a_file(length) - 1;
  for (auto _ : state) {
    if (room-- == 0) {
      file = open_bare(files++, "wb+");
      room = records_in_a_file(length) - 1;
    }
    write_bare(file.get(), payload, 1);
  }
}

void gets(bench::State& state, std::int64_t length) {
  const WorkFolder folder;
  PersistentQueue spool;
  store(&spool, text(length), state.max_iterations);
  for (auto _ : state)
    take(&spool, length);
}

void gets_bare(bench::State& state, std::int64_t length) {
  const WorkFolder folder;
  const File file = open_bare(0, "wb+");
  write_bare(file.get(), text(length), state.max_iterations);
  for (auto _ : state)
    take_bare(file.get(), length);
}

/// One record stored and taken at a time while ten others wait, as where a backlog comes and goes.
void turns(bench::State& state, std::int64_t length) {
  const WorkFolder folder;
  const std::string payload = text(length);
  PersistentQueue spool;
  store(&spool, payload, 10);
  for (auto _ : state) {
    store(&spool, payload, 1);
    take(&spool, length);
  }
}

void turns_bare(bench::State& state, std::int64_t length) {
  const WorkFolder folder;
  const std::string payload = text(length);
  const File file = open_bare(0, "wb+");
  write_bare(file.get(), payload, 10);
  for (auto _ : state) {
    write_bare(file.get(), payload, 1);
    take_bare(file.get(), length);
  }
}

void drain(bench::State& state, std::int64_t depth) {
  const WorkFolder folder;
  PersistentQueue spool;
  store(&spool, text(kDrainedBytes), depth);
  for (auto _ : state)
    for (std::int64_t i = 0; i < depth; ++i)
      take(&spool, kDrainedBytes);
  if (!spool.IsEmpty())
    give_up("the spool did not come to its end");
}

void drain_bare(bench::State& state, std::int64_t depth) {
  const WorkFolder folder;
  std::vector<std::int64_t> counts;  // of records in each file
  for (std::int64_t left = depth; left > 0; left -= counts.back())
    counts.push_back(std::min(left, records_in_a_file(kDrainedBytes)));
  int files = 0;
  for (const std::int64_t count : counts)
    write_bare(open_bare(files++, "wb+").get(), text(kDrainedBytes), count);
  for (auto _ : state) {
    files = 0;
    for (const std::int64_t count : counts) {
      const File file = open_bare(files++, "rb");
      for (std::int64_t i = 0; i < count; ++i)
        read_bare(file.get(), kDrainedBytes);
    }
  }
}

using Work = void (*)(bench::State&, std::int64_t);

void add(const std::string& measure, const std::string& of, const std::string& side, Work work,
         std::int64_t argument, std::int64_t iterations, benchmark::TimeUnit unit) {
  bench::add(measure, of, side, [=](bench::State& state) { work(state, argument); })
      ->Iterations(iterations)
      ->UseRealTime()
      ->Unit(unit);
}

void add_all(bool quick) {
  for (const std::int64_t length : {100, 400, 1000, 4000, 16000, 60000}) {
    const auto add_size = [length](const std::string& measure, const std::string& side, Work work) {
      // The ten that wait have room in the file too.
      const auto count = std::min<std::int64_t>(records_in_a_file(length) - 10, 20000);
      add(measure, std::to_string(length) + " B", side, work, length, count,
          benchmark::kMicrosecond);
    };
    add_size("spool Store", "ours", stores);
    add_size("spool Store", "three fwrite, one fflush", stores_bare);
    add_size("spool Get", "ours", gets);
    add_size("spool Get", "seeks, three fread, mark, fflush", gets_bare);
    add_size("spool Store and Get in turn", "ours", turns);
    add_size("spool Store and Get in turn", "the same calls in turn", turns_bare);
  }
  const std::int64_t most = quick ? 10000 : 1000000;
  const std::string many = std::to_string(most) + " records of 400 B";
  add("spool Store", many, "ours", stores, 400, most, benchmark::kMicrosecond);
  add("spool Store", many, "three fwrite, one fflush", stores_bare, 400, most,
      benchmark::kMicrosecond);
  for (std::int64_t depth = 1; depth <= most; depth *= 10) {
    const std::string of = std::to_string(depth);
    add("spool depth: drain", of, "ours", drain, depth, 1, benchmark::kSecond);
    add("spool depth: drain", of, "sequential read", drain_bare, depth, 1, benchmark::kSecond);
  }
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, add_all);
}
