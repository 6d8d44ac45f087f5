// A process with the real worker and the real spool in it, for the delivery tests. The spool lies
// in orvik-spool/work below the working directory.
//
//     delivery_writer SERVER KEY SECONDARIES    obeys standard input
//     delivery_writer spool                     takes everything out of the spool and prints it
//
// A message is its number ("3.00000017": the 18th of thread 3) and blanks up to its size. Commands,
// each answered by one line on standard output, among the lines of the worker:
//     write COUNT SIZE           "written TOTAL": all messages so far
//     flow THREADS RATE SIZE     "flowing": each thread writes RATE messages a second until...
//     halt                       ... "written TOTAL"
//     status                     "status QUEUED IN_WORK SPOOLED SENT FAILED"
//     stop                       "stopped DROPPED SENT FAILED": dropped by the flush
// Reports come as lines "warning: ...", "error: ...", "info: ...". End of input is a stop, too.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PersistentQueue.h"
#include "WriterStatus.h"
#include "ZmqWorker.h"

using logging::writer::ZmqWorker;

namespace {

void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

void say(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::fflush(stdout);
}

class Source {
 public:
  explicit Source(ZmqWorker* worker) : worker_(worker) {}

  void write(int thread, std::uint64_t number, std::size_t size) {
    char name[32];
    std::snprintf(name, sizeof name, "%d.%08llu", thread, static_cast<unsigned long long>(number));
    std::string body = name;
    body.resize(std::max(size, body.size()), ' ');
    worker_->Write(body.size(), body.data());
    total_ += 1;
  }

  void write_many(std::uint64_t count, std::size_t size) {
    for (std::uint64_t i = 0; i < count; ++i)
      write(0, next_++, size);
  }

  void flow(int threads, int rate, std::size_t size) {
    flowing_ = true;
    for (int thread = 1; thread <= threads; ++thread)
      threads_.emplace_back([=] {
        const auto pause = std::chrono::microseconds(1000000 / rate);
        auto due = std::chrono::steady_clock::now();
        while (flowing_) {
          write(thread, next_of_[static_cast<std::size_t>(thread)]++, size);
          std::this_thread::sleep_until(due += pause);
        }
      });
  }

  void halt() {
    flowing_ = false;
    for (std::thread& thread : threads_)
      thread.join();
    threads_.clear();
  }

  std::uint64_t total() const { return total_; }

 private:
  ZmqWorker* worker_;
  std::atomic<std::uint64_t> total_{0};
  std::uint64_t next_ = 0;
  std::vector<std::uint64_t> next_of_ = std::vector<std::uint64_t>(64);
  std::atomic<bool> flowing_{false};
  std::vector<std::thread> threads_;
};

int empty_the_spool() {
  PersistentQueue spool;
  while (!spool.IsEmpty()) {
    std::uint16_t length = 0;
    char* const body = static_cast<char*>(spool.Get(&length));
    if (body) {
      const std::string text(body, length);
      say("%s\n", text.substr(0, text.find(' ')).c_str());
    }
    std::free(body);
  }
  return 0;
}

void obey(ZmqWorker* worker) {
  Source source(worker);
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    unsigned long long first = 0;
    unsigned long long second = 0;
    unsigned long long third = 0;
    words >> first >> second >> third;
    if (command == "write") {
      source.write_many(first, second);
      say("written %llu\n", static_cast<unsigned long long>(source.total()));
    } else if (command == "flow") {
      source.flow(static_cast<int>(first), static_cast<int>(second), third);
      say("flowing\n");
    } else if (command == "halt") {
      source.halt();
      say("written %llu\n", static_cast<unsigned long long>(source.total()));
    } else if (command == "status") {
      DravenholtZmqWriterStatus status = {};
      worker->FillStatus(&status);
      say("status %llu %d %d %llu %llu\n", static_cast<unsigned long long>(status.queued),
          status.in_work, status.spooled, static_cast<unsigned long long>(status.sent),
          static_cast<unsigned long long>(status.failed));
    } else if (command == "stop") {
      break;
    }
  }
  source.halt();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "spool")
    return empty_the_spool();
  if (argc != 4) {
    std::fprintf(stderr, "usage: delivery_writer SERVER KEY SECONDARIES | spool\n");
    return 2;
  }
  ZmqWorker* const worker = new ZmqWorker();
  worker->Init(argv[1], argv[2], argv[3]);
  worker->Start();
  obey(worker);
  worker->Stop();
  DravenholtZmqWriterStatus status = {};
  worker->FillStatus(&status);
  say("stopped %llu %llu %llu\n", static_cast<unsigned long long>(worker->DroppedByFlush()),
      static_cast<unsigned long long>(status.sent), static_cast<unsigned long long>(status.failed));
  delete worker;
  return 0;
}
