// What the spool adds to the bare file operations that its format asks for.
//
//   Store        beside three fwrites and an fflush to an open file
//   Get          beside three freads
//   StoreAndGet  one of each in turn, as an agent does whose backlog comes and goes
//
// The figure to quote is the ratio of Store to StoreFloor (Get to GetFloor) in the same run:
//
//   SpoolBench --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true
//
// Both sides write files of the same size limit in the same folder, a fresh one below TMPDIR.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "PersistentQueue.h"

namespace {

constexpr std::int64_t kFileBytes = 10485760;  // the spool's own default for a chunk

// A working directory of its own; the spool is compiled with a relative path.
class WorkFolder {
 public:
  WorkFolder() : previous_(std::filesystem::current_path()) {
    std::string pattern = (std::filesystem::temp_directory_path() / "spool-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
      throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = pattern;
    std::filesystem::create_directory(path_ / "orvik-spool");
    std::filesystem::current_path(path_);
  }
  ~WorkFolder() {
    std::filesystem::current_path(previous_);
    std::filesystem::remove_all(path_);
  }

 private:
  std::filesystem::path previous_;
  std::filesystem::path path_;
};

std::int64_t records_in_a_file(std::size_t length) {
  return kFileBytes / static_cast<std::int64_t>(length + 4) - 1;
}

void Store(benchmark::State& state) {
  WorkFolder folder;
  const auto length = static_cast<std::uint16_t>(state.range(0));
  const std::string payload(length, 'x');
  std::int64_t room = 0;
  std::unique_ptr<PersistentQueue> spool;
  for (auto _ : state) {
    if (room-- == 0) {
      state.PauseTiming();
      spool.reset();
      std::filesystem::remove_all("orvik-spool/work");
      spool = std::make_unique<PersistentQueue>();
      spool->Store(length, payload.data());
      room = records_in_a_file(length) - 2;
      state.ResumeTiming();
    }
    spool->Store(length, payload.data());
  }
  state.SetBytesProcessed(state.iterations() * length);
}

void StoreFloor(benchmark::State& state) {
  WorkFolder folder;
  const auto length = static_cast<std::uint16_t>(state.range(0));
  const std::string payload(length, 'x');
  std::int64_t room = 0;
  std::unique_ptr<FILE, int (*)(FILE*)> file(nullptr, fclose);
  const auto write = [&] {
    fwrite(&length, 1, 2, file.get());
    fwrite(&length, 1, 2, file.get());
    fwrite(payload.data(), 1, length, file.get());
    fflush(file.get());
  };
  for (auto _ : state) {
    if (room-- == 0) {
      state.PauseTiming();
      file.reset();
      file.reset(fopen("floor.dat", "wb+"));
      write();
      room = records_in_a_file(length) - 2;
      state.ResumeTiming();
    }
    write();
  }
  state.SetBytesProcessed(state.iterations() * length);
}

void Get(benchmark::State& state) {
  WorkFolder folder;
  const auto length = static_cast<std::uint16_t>(state.range(0));
  const std::string payload(length, 'x');
  std::int64_t left = 0;
  std::unique_ptr<PersistentQueue> spool;
  for (auto _ : state) {
    if (left-- == 0) {
      state.PauseTiming();
      spool.reset();
      std::filesystem::remove_all("orvik-spool/work");
      spool = std::make_unique<PersistentQueue>();
      const std::int64_t count = records_in_a_file(length);
      for (std::int64_t i = 0; i < count; ++i)
        spool->Store(length, payload.data());
      left = count - 1;
      state.ResumeTiming();
    }
    std::uint16_t got = 0;
    void* taken = spool->Get(&got);
    benchmark::DoNotOptimize(taken);
    if (got != length)
      state.SkipWithError("a record is missing");
    free(taken);
  }
  state.SetBytesProcessed(state.iterations() * length);
}

void GetFloor(benchmark::State& state) {
  WorkFolder folder;
  const auto length = static_cast<std::uint16_t>(state.range(0));
  const std::string payload(length + 4u, 'x');
  std::int64_t left = 0;
  std::unique_ptr<FILE, int (*)(FILE*)> file(nullptr, fclose);
  for (auto _ : state) {
    if (left-- == 0) {
      state.PauseTiming();
      file.reset(fopen("floor.dat", "wb+"));
      const std::int64_t count = records_in_a_file(length);
      for (std::int64_t i = 0; i < count; ++i)
        fwrite(payload.data(), 1, payload.size(), file.get());
      rewind(file.get());
      left = count - 1;
      state.ResumeTiming();
    }
    char number[2];
    void* taken = malloc(length);
    const std::size_t got = fread(number, 1, 2, file.get()) + fread(number, 1, 2, file.get()) +
                            fread(taken, 1, length, file.get());
    benchmark::DoNotOptimize(taken);
    if (got != payload.size())
      state.SkipWithError("a record is missing");
    free(taken);
  }
  state.SetBytesProcessed(state.iterations() * length);
}

void StoreAndGet(benchmark::State& state) {
  WorkFolder folder;
  const auto length = static_cast<std::uint16_t>(state.range(0));
  const std::string payload(length, 'x');
  PersistentQueue spool;
  for (int i = 0; i < 10; ++i)
    spool.Store(length, payload.data());
  for (auto _ : state) {
    spool.Store(length, payload.data());
    std::uint16_t got = 0;
    void* taken = spool.Get(&got);
    benchmark::DoNotOptimize(taken);
    free(taken);
  }
  state.SetBytesProcessed(state.iterations() * length);
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  for (int length : {100, 400, 1000, 4000, 16000, 60000})
    benchmark->Arg(length);
}

BENCHMARK(Store)->Apply(sizes);
BENCHMARK(StoreFloor)->Apply(sizes);
BENCHMARK(Get)->Apply(sizes);
BENCHMARK(GetFloor)->Apply(sizes);
BENCHMARK(StoreAndGet)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
