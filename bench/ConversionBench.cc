// What the conversion of a record costs beside its floor: the same message built by the generated
// functions from values at hand. See SampleRecords.h for the kinds of records.
//
// Both sides make a fresh builder for every message, and the messages are first seen to be the same
// byte for byte. The figures are nanoseconds of the thread's processor time per record, over 64
// different records, and allocations per record. The growth curves are those of records with 5 to
// 200 columns, fewer different ones the wider they are, so that the processor's caches hold as much
// of all.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <time.h>

#include "BenchReport.h"
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

/// So that no message is left out as unused.
volatile std::uint32_t sink;

void convert(Sample& sample, const threading::Field* const* fields, FlatBufferBuilder& builder) {
  test::RecordBuilder& record = sample.record();
  logging::writer::convert_record(builder, bench::kAgentId, record.size(), fields, record.vals());
}

void build(Sample& sample, const threading::Field* const*, FlatBufferBuilder& builder) {
  sample.build(builder);
}

/// The columns of all of them: a writer's are the same for each of its records.
const threading::Field* const* fields_of(const Samples& samples) {
  return samples.front()->record().fields();
}

template <typename Make>
void make_all(const Samples& samples, int times, Make make) {
  const threading::Field* const* const fields = fields_of(samples);
  for (int i = 0; i < times; i++) {
    for (const auto& sample : samples) {
      FlatBufferBuilder builder(logging::writer::kInitialBufferBytes);
      make(*sample, fields, builder);
      sink = builder.GetSize();
    }
  }
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

/// Unlike the wall clock, it leaves out what other processes of the machine take.
double thread_ns() {
  struct timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

template <typename Make>
double ns_per_record(const Samples& samples, int times, Make make) {
  const double start = thread_ns();
  make_all(samples, times, make);
  return (thread_ns() - start) / times / static_cast<double>(samples.size());
}

template <typename Make>
double allocations_per_record(const Samples& samples, Make make) {
  const std::uint64_t before = allocations;
  make_all(samples, 1, make);
  return static_cast<double>(allocations - before) / static_cast<double>(samples.size());
}

/// Of the conversion and of its floor.
std::vector<bench::Series> times_of(const Samples& samples, const bench::Options& options) {
  // As long a run, whatever a record takes.
  const double once = ns_per_record(samples, 10, convert);
  const double run_ns = options.quick ? 2e6 : 4e7;
  const int times = 1 + static_cast<int>(run_ns / once / static_cast<double>(samples.size()));
  return bench::measure(options.runs, {[&] { return ns_per_record(samples, times, convert); },
                                       [&] { return ns_per_record(samples, times, build); }});
}

void add_kind(const std::string& kind, const bench::Options& options, bench::Report* report) {
  const char* const peer = "generated builder functions";
  const Samples samples = bench::samples(kind, kSamples);
  require_equal_messages(kind, samples);
  const std::vector<bench::Series> times = times_of(samples, options);
  report->add({"conversion", kind, "ns/record", times[0], peer, times[1],
               kind == "connection" ? "<= 1.3" : ""});
  // The floor has one for the builder, and one for the list where there are pairs.
  report->add({"conversion, allocations", kind, "1/record",
               allocations_per_record(samples, convert), peer,
               allocations_per_record(samples, build), "<= 1"});
}

void add_growth(const std::string& curve, double x, const Samples& samples,
                const bench::Options& options, bench::Report* report) {
  require_equal_messages(curve, samples);
  const std::vector<bench::Series> times = times_of(samples, options);
  report->add_growth(curve, x, times[0], times[1]);
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Options options = bench::parse(argc, argv);
  bench::Report report(options);
  for (const std::string& kind : bench::kinds())
    add_kind(kind, options, &report);
  for (const int columns : {kFewestColumns, 10, 22, 50, 100, 200})
    add_growth("columns per record: conversion of a connection, ns", columns,
               bench::wide_samples(columns, samples_of_width(columns)), options, &report);
  for (const int pairs : {kFewestColumns, 10, 20, 50, 100, 200})
    add_growth("columns per record: conversion of key/value pairs, ns", pairs,
               bench::pair_samples(pairs, samples_of_width(pairs)), options, &report);
  return report.finish();
}
