// How fast the worker delivers, beside what libzmq itself gives with the same socket options.
//
//     DeliveryBench [--messages N] [--runs N] [--size BYTES] [--csv FILE] [--flat N]
//
// Four ways, one after the other in each run, each to a collecting process of its own over CURVE on
// the loopback:
//     bare loop     zmq_msg_init_data of a copy and a blocking zmq_sendmsg, nothing else
//     looking loop  the same, with the worker's bounded look for writability before each send
//     worker, 1     the worker, fed by one thread
//     worker, 4     the worker, fed by four
// The feeders wait while many messages are queued, so that the spool stays out of it.
//
// Figures are medians over the runs: messages a second until the last has arrived, CPU time of the
// sending process for each message (feeders and libzmq's thread included), and both as
// ratios to the looking loop of the same run. --flat N then sends N messages through one worker
// and says how its memory grew.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <zmq.h>

#include "TempDir.h"
#include "WriterStatus.h"
#include "ZmqWorker.h"

using logging::writer::ZmqWorker;

namespace {

struct Options {
  std::uint64_t messages = 200000;
  int runs = 5;
  std::size_t size = 200;
  std::uint64_t flat = 0;
  std::string csv;
};

struct Result {
  double per_second;
  double cpu_us;
};

double cpu_seconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Largest memory of this process so far, in kB.
long peak_kb() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
#ifdef __APPLE__
  return usage.ru_maxrss / 1024;
#else
  return usage.ru_maxrss;
#endif
}

[[noreturn]] void give_up(const char* what) {
  std::fprintf(stderr, "DeliveryBench: %s: %s\n", what, zmq_strerror(zmq_errno()));
  std::_Exit(1);
}

/// The collecting process: says where it listens and with which key, then counts.
class Collector {
 public:
  explicit Collector(std::uint64_t messages) {
    int pipe_ends[2];
    if (pipe(pipe_ends) != 0)
      give_up("pipe");
    child_ = fork();
    if (child_ < 0)
      give_up("fork");
    if (child_ == 0) {
      close(pipe_ends[0]);
      collect(pipe_ends[1], messages);
    }
    close(pipe_ends[1]);
    from_child_ = pipe_ends[0];
    char greeting[128] = {0};
    if (read(from_child_, greeting, sizeof greeting) != sizeof greeting)
      give_up("the collecting process did not start");
    key = std::string(greeting, 64);
    endpoint = greeting + 64;
  }

  ~Collector() {
    close(from_child_);
    waitpid(child_, nullptr, 0);
  }

  /// Until all messages have arrived.
  void wait() {
    char done;
    if (read(from_child_, &done, 1) != 1)
      give_up("the collecting process ended early");
  }

  std::string key;  // public, as 64 upper-case hexadecimal digits
  std::string endpoint;

 private:
  [[noreturn]] static void collect(int to_parent, std::uint64_t messages) {
    void* const context = zmq_ctx_new();
    void* const socket = zmq_socket(context, ZMQ_PULL);
    char z85_public[41];
    char z85_secret[41];
    std::uint8_t public_key[32];
    zmq_curve_keypair(z85_public, z85_secret);
    zmq_z85_decode(public_key, z85_public);
    const int yes = 1;
    zmq_setsockopt(socket, ZMQ_CURVE_SERVER, &yes, sizeof yes);
    zmq_setsockopt(socket, ZMQ_CURVE_SECRETKEY, z85_secret, sizeof z85_secret);
    if (zmq_bind(socket, "tcp://127.0.0.1:*") != 0)
      give_up("bind");
    char greeting[128] = {0};
    for (int i = 0; i < 32; ++i)
      std::snprintf(greeting + 2 * i, 3, "%02X", public_key[i]);
    std::size_t length = 64;
    zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, greeting + 64, &length);
    if (write(to_parent, greeting, sizeof greeting) != sizeof greeting)
      give_up("greeting");
    zmq_msg_t msg;
    zmq_msg_init(&msg);
    for (std::uint64_t i = 0; i < messages; ++i)
      if (zmq_msg_recv(&msg, socket, 0) < 0)
        give_up("receive");
    const char done = 1;
    std::_Exit(write(to_parent, &done, 1) == 1 ? 0 : 1);
  }

  pid_t child_;
  int from_child_;
};

void* copy_of(const std::string& body) {
  void* copy = std::malloc(body.size());
  std::memcpy(copy, body.data(), body.size());
  return copy;
}

void release(void* data, void*) {
  std::free(data);
}

/// The worker's look, with its bounds.
void look(void* socket, int* looks) {
  for (int i = 0; i < *looks; ++i) {
    int events = 0;
    std::size_t length = sizeof events;
    if (zmq_getsockopt(socket, ZMQ_EVENTS, &events, &length) != 0)
      return;
    if (events & ZMQ_POLLOUT) {
      *looks = std::min(*looks * 2, 64);
      return;
    }
  }
  *looks = std::max(*looks / 2, 1);
}

/// A floor: libzmq by itself on a socket that the worker's Connect has made.
void loop(void* socket, const Options& options, bool looking) {
  const std::string body(options.size, 'x');
  int looks = 64;
  for (std::uint64_t i = 0; i < options.messages; ++i) {
    zmq_msg_t msg;
    zmq_msg_init_data(&msg, copy_of(body), body.size(), release, nullptr);
    if (looking)
      look(socket, &looks);
    if (zmq_sendmsg(socket, &msg, 0) < 0)
      give_up("send");
  }
}

DravenholtZmqWriterStatus status_of(ZmqWorker* worker) {
  DravenholtZmqWriterStatus status = {};
  worker->FillStatus(&status);
  return status;
}

/// One of so many feeders: all of them together look as often as one would.
void feed(ZmqWorker* worker, std::uint64_t messages, std::size_t size, int feeders) {
  const std::string body(size, 'x');
  for (std::uint64_t i = 0; i < messages; ++i) {
    while (i % 16 == 0 && status_of(worker).queued > 400)
      std::this_thread::sleep_for(std::chrono::microseconds(250 * feeders));
    worker->Write(body.size(), body.data());
  }
}

Result measure(const Options& options, const std::function<void()>& send,
               const std::function<void()>& wait) {
  const double cpu = cpu_seconds();
  const auto start = std::chrono::steady_clock::now();
  send();
  wait();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  const double messages = static_cast<double>(options.messages);
  return {messages / elapsed.count(), (cpu_seconds() - cpu) * 1e6 / messages};
}

Result measure_worker(const Options& options, int threads) {
  Collector collector(options.messages);
  ZmqWorker* const worker = new ZmqWorker();
  worker->Init(collector.endpoint, collector.key, "");
  worker->Start();
  const Result result = measure(
      options,
      [&] {
        std::vector<std::thread> feeders;
        const std::uint64_t share = options.messages / static_cast<std::uint64_t>(threads);
        for (int i = 0; i < threads; ++i)
          feeders.emplace_back([&, i] {
            feed(worker, i ? share : options.messages - share * (threads - 1), options.size,
                 threads);
          });
        for (std::thread& feeder : feeders)
          feeder.join();
      },
      [&] { collector.wait(); });
  worker->Stop();
  delete worker;
  return result;
}

Result measure_loop(const Options& options, bool looking) {
  Collector collector(options.messages);
  // The worker is only here for its socket: it is never given a message.
  ZmqWorker* const worker = new ZmqWorker();
  worker->Init(collector.endpoint, collector.key, "");
  worker->Start();
  void* socket = nullptr;
  std::thread([&] { socket = worker->Connect(collector.endpoint); }).join();
  const Result result = measure(
      options, [&] { loop(socket, options, looking); }, [&] { collector.wait(); });
  zmq_close(socket);
  worker->Stop();
  delete worker;
  return result;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void show_flat(const Options& options) {
  Options run = options;
  run.messages = options.flat;
  Collector collector(run.messages);
  ZmqWorker* const worker = new ZmqWorker();
  worker->Init(collector.endpoint, collector.key, "");
  worker->Start();
  feed(worker, run.messages / 10, run.size, 1);
  const long early = peak_kb();
  feed(worker, run.messages - run.messages / 10, run.size, 1);
  collector.wait();
  const long late = peak_kb();
  worker->Stop();
  delete worker;
  std::printf("peak memory after %llu messages %ld kB, after %llu messages %ld kB\n",
              static_cast<unsigned long long>(run.messages / 10), early,
              static_cast<unsigned long long>(run.messages), late);
}

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const char* const value = argv[i + 1];
    if (name == "--messages")
      options.messages = std::strtoull(value, nullptr, 10);
    else if (name == "--runs")
      options.runs = std::atoi(value);
    else if (name == "--size")
      options.size = std::strtoul(value, nullptr, 10);
    else if (name == "--flat")
      options.flat = std::strtoull(value, nullptr, 10);
    else if (name == "--csv")
      options.csv = value;
    else
      argc = 0;
  }
  if (argc % 2 == 0 || options.messages < 4 || options.runs < 1 || options.size < 1) {
    std::fprintf(stderr,
                 "usage: DeliveryBench [--messages N] [--runs N] [--size BYTES] "
                 "[--csv FILE] [--flat N]\n");
    std::exit(2);
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  std::ofstream csv;
  if (!options.csv.empty()) {
    csv.open(options.csv);
    if (!csv) {
      std::fprintf(stderr, "DeliveryBench: cannot write %s\n", options.csv.c_str());
      return 1;
    }
    csv << "run,variant,messages,size,per_second,cpu_us\n";
  }
  const test::TempDir folder;  // for the spool

  const std::vector<std::pair<std::string, std::function<Result()>>> variants = {
      {"bare loop", [&] { return measure_loop(options, false); }},
      {"looking loop", [&] { return measure_loop(options, true); }},
      {"worker, 1", [&] { return measure_worker(options, 1); }},
      {"worker, 4", [&] { return measure_worker(options, 4); }},
  };
  std::map<std::string, std::vector<double>> per_second, cpu_us, ratio;
  for (int run = 0; run < options.runs; ++run) {
    std::map<std::string, Result> results;
    for (const auto& variant : variants) {
      const Result result = variant.second();
      results[variant.first] = result;
      if (csv.is_open())
        csv << run << ",\"" << variant.first << "\"," << options.messages << "," << options.size
            << "," << result.per_second << "," << result.cpu_us << "\n";
    }
    for (const auto& variant : variants) {
      const Result& result = results[variant.first];
      per_second[variant.first].push_back(result.per_second);
      cpu_us[variant.first].push_back(result.cpu_us);
      ratio[variant.first].push_back(result.per_second / results["looking loop"].per_second);
    }
  }

  std::printf("\n%llu messages of %zu bytes, median of %d runs\n",
              static_cast<unsigned long long>(options.messages), options.size, options.runs);
  std::printf("%-14s %12s %14s %24s\n", "", "messages/s", "CPU us/message", "to the looking loop");
  for (const auto& variant : variants) {
    const std::string& name = variant.first;
    std::printf("%-14s %12.0f %14.2f %24.2f\n", name.c_str(), median(per_second[name]),
                median(cpu_us[name]), median(ratio[name]));
  }
  if (options.flat > 0)
    show_flat(options);
  return 0;
}
