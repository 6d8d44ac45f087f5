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
#include <iostream>
#include <string>

#include "ReceivingSocket.h"

namespace {

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

void expect(bench::ReceivingSocket* socket, std::uint64_t warm_up, std::uint64_t messages) {
  static std::uint64_t wire_before = 0;
  std::uint64_t bytes = 0;
  const auto count = [&bytes](const void*, std::size_t size) { bytes += size; };
  for (std::uint64_t i = 0; i < warm_up; ++i)
    socket->receive(count);
  auto begin = std::chrono::steady_clock::now();
  for (std::uint64_t i = 0; i < messages; ++i) {
    socket->receive(count);
    if (warm_up == 0 && i == 0)
      begin = std::chrono::steady_clock::now();
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  const std::uint64_t wire = wire_bytes();
  std::printf("received %llu %llu %llu %.9f\n", static_cast<unsigned long long>(messages),
              static_cast<unsigned long long>(bytes),
              static_cast<unsigned long long>(wire - wire_before), took.count());
  wire_before = wire;
}

}  // namespace

int main() {
  bench::ReceivingSocket socket;
  std::puts(socket.greeting().c_str());
  std::fflush(stdout);
  std::string command;
  while (std::cin >> command) {
    std::uint64_t warm_up = 0;
    std::uint64_t messages = 0;
    if (command == "close") {
      socket.close();
      std::puts("closed");
    } else if (command == "open") {
      socket.open();
      std::puts("opened");
    } else if (command == "expect" && std::cin >> warm_up >> messages && messages > 0) {
      expect(&socket, warm_up, messages);
    } else {
      std::fprintf(stderr, "Sink: what is '%s'?\n", command.c_str());
      return 2;
    }
    std::fflush(stdout);
  }
  return 0;
}
