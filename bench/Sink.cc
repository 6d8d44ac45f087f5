// The receiving end of the delivery benchmarks: a PULL socket with CURVE that only counts.
//
//     Sink
//
// Talks in lines over standard input and output:
//
//     (at the start)   -> ENDPOINT PUBLIC_KEY PUBLIC_KEY_Z85    a port of the system's choice; the
//                                                               key as 64 upper-case hex digits too
//     close            -> closed                                stops listening
//     open             -> opened                                listens there again
//     expect W N       -> received N BYTES WIRE_BYTES SECONDS   once W + N more messages have come
//     (end of input)                                            ends the program
//
// BYTES are those of the W + N messages, WIRE_BYTES those of the TCP connections that are open then
// (0 where the system does not tell), since the last answer. SECONDS passed between the message
// before the N and the last; with W = 0 since the first of them. When none comes for a minute, the
// program ends with status 1.

#ifdef __linux__
#include <linux/tcp.h>
#endif
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include <zmq.h>

namespace {

constexpr int kPatience_ms = 60000;

void check(bool good, const char* what) {
  if (good)
    return;
  std::fprintf(stderr, "Sink: %s: %s\n", what, zmq_strerror(zmq_errno()));
  std::exit(1);
}

/// Bytes received so far over all TCP connections that this process has.
std::uint64_t wire_bytes() {
  std::uint64_t sum = 0;
#ifdef __linux__
  // libzmq does not tell its descriptors; they are small numbers.
  for (int fd = 0; fd < 1024; ++fd) {
    tcp_info info = {};
    socklen_t length = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0)
      sum += info.tcpi_bytes_received;
  }
#endif
  return sum;
}

class Sink {
 public:
  Sink() : context_(zmq_ctx_new()), socket_(zmq_socket(context_, ZMQ_PULL)) {
    char public_key[41];
    char secret_key[41];
    const int yes = 1;
    check(zmq_curve_keypair(public_key, secret_key) == 0, "CURVE");
    zmq_setsockopt(socket_, ZMQ_CURVE_SERVER, &yes, sizeof yes);
    zmq_setsockopt(socket_, ZMQ_CURVE_SECRETKEY, secret_key, sizeof secret_key);
    zmq_setsockopt(socket_, ZMQ_RCVTIMEO, &kPatience_ms, sizeof kPatience_ms);
    check(zmq_bind(socket_, "tcp://127.0.0.1:*") == 0, "bind");
    char endpoint[256];
    std::size_t length = sizeof endpoint;
    zmq_getsockopt(socket_, ZMQ_LAST_ENDPOINT, endpoint, &length);
    endpoint_ = endpoint;
    std::uint8_t bytes[32];
    zmq_z85_decode(bytes, public_key);
    std::printf("%s ", endpoint);
    for (const std::uint8_t byte : bytes)
      std::printf("%02X", byte);
    std::printf(" %s\n", public_key);
    std::fflush(stdout);
  }

  ~Sink() {
    zmq_close(socket_);
    zmq_ctx_term(context_);
  }

  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  void close() { check(zmq_unbind(socket_, endpoint_.c_str()) == 0, "unbind"); }
  void open() { check(zmq_bind(socket_, endpoint_.c_str()) == 0, "bind"); }

  void expect(std::uint64_t warm_up, std::uint64_t messages) {
    std::uint64_t bytes = 0;
    for (std::uint64_t i = 0; i < warm_up; ++i)
      bytes += receive();
    auto begin = std::chrono::steady_clock::now();
    for (std::uint64_t i = 0; i < messages; ++i) {
      bytes += receive();
      if (warm_up == 0 && i == 0)
        begin = std::chrono::steady_clock::now();
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    const std::uint64_t wire = wire_bytes();
    std::printf("received %llu %llu %llu %.9f\n", static_cast<unsigned long long>(messages),
                static_cast<unsigned long long>(bytes),
                static_cast<unsigned long long>(wire - wire_before_), took.count());
    wire_before_ = wire;
  }

 private:
  /// The length of the next message.
  std::size_t receive() {
    zmq_msg_t msg;
    zmq_msg_init(&msg);
    check(zmq_msg_recv(&msg, socket_, 0) >= 0, "receive");
    const std::size_t length = zmq_msg_size(&msg);
    zmq_msg_close(&msg);
    return length;
  }

  void* const context_;
  void* const socket_;
  std::string endpoint_;
  std::uint64_t wire_before_ = 0;
};

}  // namespace

int main() {
  Sink sink;
  std::string command;
  while (std::cin >> command) {
    std::uint64_t warm_up = 0;
    std::uint64_t messages = 0;
    if (command == "close") {
      sink.close();
      std::puts("closed");
    } else if (command == "open") {
      sink.open();
      std::puts("opened");
    } else if (command == "expect" && std::cin >> warm_up >> messages && messages > 0) {
      sink.expect(warm_up, messages);
    } else {
      std::fprintf(stderr, "Sink: what is '%s'?\n", command.c_str());
      return 2;
    }
    std::fflush(stdout);
  }
  return 0;
}
