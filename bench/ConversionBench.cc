// What the conversion of a record costs beside its floor: the same message built by the generated
// functions from values at hand. See SampleRecords.h for the kinds of records.
//
// Both sides make a fresh builder for every message, and the messages are first seen to be the same
// byte for byte. The figures are the thread's processor time per record, over 64 different records,
// and allocations per record. The growth curves are those of records with up to 200 columns, fewer
// different ones the wider they are, so that the processor's caches hold as much of all.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Bench.h"
#include "RecordConversion.h"
#include "SampleRecords.h"

namespace {

std::uint64_t allocations = 0;

}  // namespace

// Counted at malloc where that can be put in front of the library's own, which everything comes to;
// elsewhere at operator new.
#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* malloc(std::size_t size) {
  allocations++;
  return __libc_malloc(size);
}
#else
void* operator new(std::size_t size) {
  allocations++;
  void* const memory = std::malloc(size ? size : 1);
  if (!memory)
    throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
#endif

namespace {

using bench::Sample;
using bench::Samples;
using flatbuffers::FlatBufferBuilder;

const std::size_t kSamples = 64;
const int kFewestColumns = 5;

/// As many as have the same columns altogether, but not so few that one is like the next.
std::size_t samples_of_width(int columns) {
  return std::max<std::size_t>(4, kSamples * kFewestColumns / static_cast<std::size_t>(columns));
}

void convert(Sample& sample, const threading::Field* const* fields, FlatBufferBuilder& builder) {
  test::RecordBuilder& record = sample.record;
  logging::writer::convert_record(builder, bench::kAgentId, record.size(), fields, record.vals());
}

void build(Sample& sample, const threading::Field* const*, FlatBufferBuilder& builder) {
  sample.build(builder);
}

/// The columns of all of them: a writer's are the same for each of its records.
const threading::Field* const* fields_of(const Samples& samples) {
  return samples.front()->record.fields();
}

using Make = void (*)(Sample&, const threading::Field* const*, FlatBufferBuilder&);

/// Makes the samples' messages over and over. How many allocations each took.
double make_all(bench::State& state, const Samples& samples, Make make) {
  const threading::Field* const* const fields = fields_of(samples);
  const std::uint64_t before = allocations;
  std::size_t next = 0;
  for (auto _ : state) {
    FlatBufferBuilder builder(logging::writer::kInitialBufferBytes);
    make(*samples[next], fields, builder);
    benchmark::DoNotOptimize(builder.GetBufferPointer());
    next = next + 1 == samples.size() ? 0 : next + 1;
  }
  return static_cast<double>(allocations - before) / static_cast<double>(state.iterations());
}

void require_equal_messages(const std::string& kind, const Samples& samples) {
  for (const auto& sample : samples) {
    FlatBufferBuilder ours(logging::writer::kInitialBufferBytes);
    FlatBufferBuilder floor(logging::writer::kInitialBufferBytes);
    convert(*sample, fields_of(samples), ours);
    sample->build(floor);
    if (ours.GetSize() == floor.GetSize() &&
        std::memcmp(ours.GetBufferPointer(), floor.GetBufferPointer(), ours.GetSize()) == 0)
      continue;
    std::fprintf(stderr, "%s: the conversion and its floor make different messages\n",
                 kind.c_str());
    std::exit(1);
  }
}

/// The conversion and its floor.
void add_both(const std::string& measure, const std::string& of, Samples&& samples, double seconds,
              const std::function<void(bench::State&, const Samples&, Make)>& work) {
  require_equal_messages(measure + ", " + of, samples);
  const auto shared = std::make_shared<const Samples>(std::move(samples));
  const auto add = [&](const std::string& side, Make make) {
    bench::add(measure, of, side, [=](bench::State& state) {
      work(state, *shared, make);
    })->MinTime(seconds);
  };
  add("ours", convert);
  add("generated builder functions", build);
}

void add_all(bool quick) {
  const double seconds = quick ? 0.002 : 0.04;
  for (const std::string& kind : bench::kinds())
    add_both("conversion", kind, bench::samples(kind, kSamples), seconds,
             [](bench::State& state, const Samples& samples, Make make) {
               // The floor has one for the builder, and one for the list where there are pairs.
               state.counters["allocations [1/record]"] = make_all(state, samples, make);
             });
  for (const int columns : {22, 50, 100, 200})
    add_both("columns per record: conversion of a connection", std::to_string(columns),
             bench::wide_samples(columns, samples_of_width(columns)), seconds, make_all);
  for (const int pairs : {kFewestColumns, 10, 20, 50, 100, 200})
    add_both("columns per record: conversion of key-value pairs", std::to_string(pairs),
             bench::pair_samples(pairs, samples_of_width(pairs)), seconds, make_all);
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, add_all);
}
