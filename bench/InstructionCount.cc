// One piece of work, so many times, for an instrument that counts instructions: see
// count-instructions.
//
//     InstructionCount conversion|store TIMES     does the work, prints nothing
//     InstructionCount --environment              prints what the counts depend on
//
// "conversion" makes the messages of connection records; "store" puts messages of 400 bytes into a
// spool below TMPDIR. The work is the same in each run, so twice as many times is twice as many
// instructions, and the difference holds nothing of start and end.

#include <flatbuffers/base.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "PersistentQueue.h"
#include "RecordConversion.h"
#include "SampleRecords.h"
#include "TempDir.h"

namespace {

/// So that no message is left out as unused.
volatile std::uint32_t sink;

void convert(unsigned long times) {
  const bench::Samples samples = bench::samples("connection", 64);
  const threading::Field* const* const fields = samples.front()->record.fields();
  for (unsigned long i = 0; i < times; ++i) {
    test::RecordBuilder& record = samples[i % samples.size()]->record;
    flatbuffers::FlatBufferBuilder builder(logging::writer::kInitialBufferBytes);
    logging::writer::convert_record(builder, bench::kAgentId, record.size(), fields, record.vals());
    sink = builder.GetSize();
  }
}

void store(unsigned long times) {
  const test::TempDir folder;
  std::filesystem::create_directory("orvik-spool");
  const std::string message(400, 'x');
  PersistentQueue spool;
  for (unsigned long i = 0; i < times; ++i)
    spool.Store(static_cast<std::uint16_t>(message.size()), message.data());
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  char* end = nullptr;
  const unsigned long times = argc == 3 ? std::strtoul(argv[2], &end, 10) : 0;
  const bool counted = argc == 3 && *argv[2] != '\0' && *end == '\0';
  if (argc == 2 && what == "--environment") {
    std::printf("%s, FlatBuffers %d.%d\n", ZMQWRITER_BENCH_ENVIRONMENT, FLATBUFFERS_VERSION_MAJOR,
                FLATBUFFERS_VERSION_MINOR);
  } else if (counted && what == "conversion") {
    convert(times);
  } else if (counted && what == "store") {
    store(times);
  } else {
    std::fprintf(stderr, "usage: InstructionCount conversion|store TIMES | --environment\n");
    return 2;
  }
  return 0;
}
