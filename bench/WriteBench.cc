// What a record costs the host: DoWrite from the record to the worker's queue, beside the
// conversion with one malloc and one memcpy of the message, each with one to sixteen threads.
//
// The queue never fills and nothing is sent: the worker gets no socket, and every thread empties
// the queue itself after some records, as the floor frees its copies. Each thread has as many
// records, however many threads there are. Costs are processor time of the whole process per
// record; rates are records of all threads per second of the clock. The growth curve is the seconds
// by the clock that all records of 1 to 16 threads take.

#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// Compiled in here, since the worker that all writers share is private to it.
#include "SharedWorker.cc"

#include "RecordConversion.h"
#include "ZMQ.h"

#include "Agent.h"
#include "Bench.h"
#include "SampleRecords.h"

/// In place of libzmq's: without a socket the worker collects messages and sends none.
extern "C" void* zmq_socket(void*, int) {
  return nullptr;
}

namespace {

using bench::Samples;

const std::size_t kSamples = 64;
/// After how many records a thread empties the queue: with 16 threads that is at most half of what
/// the worker keeps in memory.
const std::size_t kBatch = 16;

/// What one thread works with.
class Writer {
 public:
  explicit Writer(const std::string& kind) : samples_(bench::samples(kind, kSamples)) {
    writer_.init();
  }

  void write(std::size_t i) {
    test::RecordBuilder& record = samples_[i % kSamples]->record;
    if (!writer_->DoWrite(record.size(), fields(), record.vals()))
      abort();
    if (i % kBatch == kBatch - 1)
      empty_queue();
  }

  void convert_and_copy(std::size_t i) {
    test::RecordBuilder& record = samples_[i % kSamples]->record;
    flatbuffers::FlatBufferBuilder builder(logging::writer::kInitialBufferBytes);
    logging::writer::convert_record(builder, bench::kAgentId, record.size(), fields(),
                                    record.vals());
    void* const copy = malloc(builder.GetSize());
    memcpy(copy, builder.GetBufferPointer(), builder.GetSize());
    copies_[i % kBatch] = copy;
    if (i % kBatch == kBatch - 1)
      for (void* each : copies_)
        free(each);
  }

 private:
  /// The columns of all records: a writer's are the same for each.
  const threading::Field* const* fields() const { return samples_.front()->record.fields(); }

  static void empty_queue() {
    logging::writer::ZmqWorker* const worker = logging::writer::shared_worker::worker;
    std::queue<logging::writer::zmq_message*> taken;
    pthread_mutex_lock(&worker->mutex);
    taken.swap(worker->queue);
    pthread_mutex_unlock(&worker->mutex);
    for (; !taken.empty(); taken.pop()) {
      free(taken.front()->data);
      free(taken.front());
    }
  }

  Samples samples_;
  test::WriterUnderTest writer_;
  void* copies_[kBatch] = {};
};

using Writers = std::vector<std::unique_ptr<Writer>>;
using Work = void (Writer::*)(std::size_t);

void run(const Writers& writers, std::size_t count, std::size_t each, Work work) {
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < count; ++t)
    threads.emplace_back([&writers, t, each, work] {
      for (std::size_t i = 0; i < each; ++i)
        (*writers[t].*work)(i);
    });
  for (std::thread& thread : threads)
    thread.join();
}

/// What the plug-in expects around it, and its writers.
struct Surroundings {
  Surroundings() {
    while (writers.size() < 16)
      writers.push_back(std::make_unique<Writer>("connection"));
  }
  const bench::AgentSurroundings folder;
  const test::ScriptConstants constants;
  Writers writers;
};

void add(const std::string& of, const std::string& side, std::size_t count, std::size_t each,
         Work work) {
  bench::add_counters("DoWrite", of, side, [=](benchmark::UserCounters& counters) {
    static const Surroundings surroundings;
    const auto all = static_cast<double>(each * count);
    const double cpu = bench::cpu_seconds();
    const double clock = bench::seconds([&] { run(surroundings.writers, count, each, work); });
    counters["[ns/record]"] = (bench::cpu_seconds() - cpu) / all * 1e9;
    counters["all writers [1/s]"] = all / clock;
    counters["writers: DoWrite [s]"] = clock;
    if (!std::filesystem::is_empty(paths::kSpoolFolder))
      bench::give_up("the queue was full: the figures hold for the spool too");
  });
}

void add_all(bool quick) {
  const std::size_t each = (quick ? 5000 : 64000) / kBatch * kBatch;  // of a thread
  for (const std::size_t count : {1, 2, 4, 8, 16}) {
    const std::string of = std::to_string(count) + (count == 1 ? " writer" : " writers");
    add(of, "ours", count, each, &Writer::write);
    add(of, "conversion + malloc + memcpy", count, each, &Writer::convert_and_copy);
    if (count == 8)
      add(of, "1 writer", 1, each, &Writer::write);
  }
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, add_all);
}
