// The floor of `collect --to`: a bare loop of libnats' asynchronous publication.
//
//     PublishLoop URL WINDOW EVENTS [fed]
//
// Publishes so many events, with an id in the header as the collector's and with at most WINDOW
// unacknowledged. When all are acknowledged, prints
//
//     EVENTS_PER_SECOND CPU_US
//
// by the clock, and of processor time per event. With "fed" the events come from a PULL socket with
// CURVE, by a bare loop of zmq_msg_recv; "ENDPOINT PUBLIC_KEY PUBLIC_KEY_Z85" is printed first, and
// the clock starts with the first event.

#include <nats/nats.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ReceivingSocket.h"
#include "SampleRecords.h"
#include "System.h"

namespace {

constexpr char kSubject[] = "zmqwriter.GeneralData.";
constexpr std::size_t kAgents = 64;

void check(natsStatus status, const char* what) {
  if (status != NATS_OK)
    bench::give_up(std::string(what) + ": " + natsStatus_GetText(status));
}

class Publication {
 public:
  Publication(const char* url, std::int64_t window) {
    check(natsConnection_ConnectTo(&connection_, url), "connect");
    jsOptions options;
    jsOptions_Init(&options);
    options.PublishAsync.MaxPending = window;
    options.PublishAsync.StallWait = 60000;
    options.PublishAsync.ErrHandler = [](jsCtx*, jsPubAckErr* error, void*) {
      check(error->Err, "an acknowledgement");
    };
    check(natsConnection_JetStream(&stream_, connection_, &options), "JetStream");
  }

  void publish(const std::string& subject, const void* data, std::size_t size) {
    char id[40];
    std::snprintf(id, sizeof id, "0123456789abcdef-%016" PRIx64, count_++);
    natsMsg* message = nullptr;
    check(natsMsg_Create(&message, subject.c_str(), nullptr, static_cast<const char*>(data),
                         static_cast<int>(size)),
          "make a message");
    check(natsMsgHeader_Set(message, "Nats-Msg-Id", id), "make a header");
    check(js_PublishMsgAsync(stream_, &message, nullptr), "publish");
  }

  void complete() {
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = 60000;
    check(js_PublishAsyncComplete(stream_, &options), "wait for acknowledgements");
  }

 private:
  natsConnection* connection_ = nullptr;
  jsCtx* stream_ = nullptr;
  std::uint64_t count_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: PublishLoop URL WINDOW EVENTS [fed]\n");
    return 2;
  }
  Publication publication(argv[1], std::atoll(argv[2]));
  const std::uint64_t events = std::strtoull(argv[3], nullptr, 10);
  std::vector<std::string> subjects;
  for (std::size_t i = 0; i < kAgents; ++i)
    subjects.push_back(kSubject + bench::agent_name(i));
  const double cpu_before = bench::cpu_seconds();
  double seconds;
  if (argc > 4) {
    bench::ReceivingSocket socket;
    std::puts(socket.greeting().c_str());
    std::fflush(stdout);
    std::size_t next = 0;
    const auto publish = [&](const void* data, std::size_t size) {
      publication.publish(subjects[next++ % kAgents], data, size);
    };
    for (std::size_t i = 0; i < kAgents; ++i)
      socket.receive(publish);
    seconds = bench::seconds([&] {
      for (std::uint64_t i = kAgents; i < events; ++i)
        socket.receive(publish);
      publication.complete();
    });
  } else {
    const std::vector<std::string> payloads = bench::messages(kAgents);
    seconds = bench::seconds([&] {
      for (std::uint64_t i = 0; i < events; ++i)
        publication.publish(subjects[i % kAgents], payloads[i % kAgents].data(),
                            payloads[i % kAgents].size());
      publication.complete();
    });
  }
  std::printf("%.1f %.3f\n", static_cast<double>(events) / seconds,
              (bench::cpu_seconds() - cpu_before) * 1e6 / static_cast<double>(events));
  std::fflush(stdout);
  std::_Exit(0);
}
