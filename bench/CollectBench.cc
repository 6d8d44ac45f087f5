// `zmqwriter collect` beside a bare receive loop, in this process: a thread sends the same events
// over CURVE as fast as they are taken, and either a loop that only receives them or the collector,
// which verifies, counts and formats each into /dev/null, takes them.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <flatbuffers/flatbuffers.h>
#include <zmq.h>

#include "Bench.h"
#include "Collector.h"
#include "CurveKey.h"
#include "aggregator_generated.h"

namespace {

using namespace zmqwriter;

constexpr const char* kSecretFile = "collect-bench.secret";

void require(bool holds, const char* what) {
  if (holds)
    return;
  std::fprintf(stderr, "CollectBench: %s: %s\n", what, zmq_strerror(zmq_errno()));
  std::exit(1);
}

/// A connection record as the plug-in sends it.
std::string connection_event() {
  flatbuffers::FlatBufferBuilder b;
  const std::vector<std::int8_t> address = {10, 1, 2, 3};
  const auto payload = Dravenholt::CreateGeneralDataDirect(
      b, &address, "", 51234, &address, "", 443, Dravenholt::Transport_tcp, 1234, 4711, 81234, "SF",
      1, 0, 0, "", 17, 5000, 42, 83000, "someone", "browser", "ssl");
  b.Finish(Dravenholt::CreateNetworkEvent(
      b, b.CreateString("CsRx2w45OKnoww6xl4"), 1300475167.096535, -60,
      b.CreateString("agent-0123456789"), Dravenholt::Data_GeneralData, payload.Union()));
  return std::string(reinterpret_cast<const char*>(b.GetBufferPointer()), b.GetSize());
}

/// Sends events to an endpoint from its creation on.
class Sender {
 public:
  Sender(const std::string& endpoint, const CurveKey& server_key, std::uint64_t events)
      : thread_([=] { Send(endpoint, server_key, events); }) {}
  ~Sender() { thread_.join(); }

 private:
  static void Send(const std::string& endpoint, const CurveKey& server_key, std::uint64_t events) {
    void* const context = zmq_ctx_new();
    void* const socket = zmq_socket(context, ZMQ_PUSH);
    const CurveKeyPair keys = make_curve_key_pair();
    zmq_setsockopt(socket, ZMQ_CURVE_SERVERKEY, server_key.data(), server_key.size());
    zmq_setsockopt(socket, ZMQ_CURVE_PUBLICKEY, keys.public_key.data(), keys.public_key.size());
    zmq_setsockopt(socket, ZMQ_CURVE_SECRETKEY, keys.secret_key.data(), keys.secret_key.size());
    require(zmq_connect(socket, endpoint.c_str()) == 0, "cannot connect");
    const std::string event = connection_event();
    for (std::uint64_t i = 0; i < events; ++i)
      require(zmq_send(socket, event.data(), event.size(), 0) >= 0, "cannot send");
    zmq_close(socket);
    zmq_ctx_term(context);
  }

  std::thread thread_;
};

/// The key as the collector reads it.
class SecretFile {
 public:
  explicit SecretFile(const CurveKey& key) {
    std::ofstream(kSecretFile) << to_hex(key);
    std::filesystem::permissions(
        kSecretFile, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
  ~SecretFile() { std::filesystem::remove(kSecretFile); }
};

double thousands_a_second(std::uint64_t events, std::chrono::steady_clock::time_point start) {
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  return static_cast<double>(events) / seconds.count() / 1000;
}

double bare_loop(const CurveKeyPair& keys, std::uint64_t events) {
  ZmqContext context;
  PullSocket socket(&context, keys.secret_key, false);
  const Sender sender(socket.Bind("tcp://127.0.0.1:*"), keys.public_key, events);
  const auto start = std::chrono::steady_clock::now();
  zmq_msg_t message;
  zmq_msg_init(&message);
  for (std::uint64_t received = 0; received < events;) {
    if (socket.Receive(&message))
      ++received;
    else
      socket.Wait(100);
  }
  zmq_msg_close(&message);
  return thousands_a_second(events, start);
}

double collector(const CurveKeyPair& keys, std::uint64_t events, const char* format) {
  const SecretFile secret(keys.secret_key);
  CollectOptions options;
  options.endpoints = {"tcp://127.0.0.1:*"};
  options.secret_key_file = kSecretFile;
  options.sink.format = format;
  options.sink.path = "/dev/null";
  options.count = events;
  options.quiet = true;
  Collector collector(options);
  const Sender sender(collector.endpoints().front(), keys.public_key, events);
  const auto start = std::chrono::steady_clock::now();
  require(collector.Run() == 0, "the collector failed");
  return thousands_a_second(events, start);
}

void add_all(bool quick) {
  const std::uint64_t events = quick ? 5000 : 300000;
  const CurveKeyPair keys = make_curve_key_pair();
  const auto add = [](const std::string& format, const std::string& side,
                      const std::function<double()>& rate) {
    bench::add_counters("collect", format, side, [rate](benchmark::UserCounters& counters) {
      counters["[thousand events/s]"] = rate();
    });
  };
  add("", "bare receive loop", [=] { return bare_loop(keys, events); });
  for (const char* format : {"raw", "json", "text"})
    add(format, "ours", [=] { return collector(keys, events, format); });
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, add_all);
}
