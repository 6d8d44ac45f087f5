// Both ends of a TCP connection over loopback, held by this process.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include "Conn.h"
#include "IPAddr.h"

class LoopbackPair {
 public:
  explicit LoopbackPair(int family = AF_INET) {
    const int listener = socket(family, SOCK_STREAM, 0);
    client_ = socket(family, SOCK_STREAM, 0);
    sockaddr_in6 address = {};  // of AF_INET, the port stands at the same place
    if (family == AF_INET6)
      address.sin6_addr = in6addr_loopback;
    else
      reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const socklen_t size = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    address.sin6_family = static_cast<sa_family_t>(family);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
        listen(listener, 1) == 0) {
      address.sin6_port = htons(static_cast<std::uint16_t>(port_of(listener)));
      if (connect(client_, reinterpret_cast<sockaddr*>(&address), size) == 0)
        server_ = accept(listener, nullptr, nullptr);
    }
    close(listener);
  }

  ~LoopbackPair() {
    close(client_);
    close(server_);
  }

  LoopbackPair(const LoopbackPair&) = delete;
  LoopbackPair& operator=(const LoopbackPair&) = delete;

  /// 0 without a connection.
  int client_port() const { return port_of(client_); }
  int server_port() const { return port_of(server_); }

 private:
  static int port_of(int fd) {
    sockaddr_in6 address = {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin6_port);
  }

  int client_ = -1;
  int server_ = -1;
};

/// The host's view of a connection between two ports of an address.
inline Connection* connection_between(const char* address, int orig_port, int resp_port) {
  ConnID id;
  id.src_addr = IPAddr(address);
  id.dst_addr = IPAddr(address);
  id.src_port = htons(static_cast<std::uint16_t>(orig_port));
  id.dst_port = htons(static_cast<std::uint16_t>(resp_port));
  id.is_one_way = false;
  return new Connection(nullptr, nullptr, 1.0, &id, 0, 0, 0, nullptr);
}
