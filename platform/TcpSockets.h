// The machine's TCP sockets, as the kernel tells them.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace platform {

/// A TCP socket that a process holds. Addresses and ports are in network byte order.
struct TcpSocket {
  bool is_v6;         ///< false for IPv4 connections of IPv6 sockets, too
  uint32_t local[4];  ///< IPv4: the first word
  uint32_t foreign[4];
  uint16_t local_port;
  uint16_t foreign_port;
  uint32_t inode;  ///< never 0
};

/// Takes the sockets one by one.
class TcpSocketSink {
 public:
  virtual ~TcpSocketSink() {}
  /// False: there is no room for more.
  virtual bool add(const TcpSocket& socket) = 0;
};

/// Hands every socket that a process holds to `sink`: not those that are still being accepted, nor
/// those that were closed and wait out their time. Return 0, ENOMEM when the sink had no room, or
/// what reading failed with. Thread-safe, without allocation.
///
/// The first asks the kernel by netlink, which is many times faster, but not possible everywhere;
/// the second reads /proc/net/tcp and /proc/net/tcp6.
int read_tcp_sockets_by_netlink(TcpSocketSink* sink);
int read_tcp_sockets_from_proc(TcpSocketSink* sink);

/// About how many there are. Costs far less than reading them.
size_t count_tcp_sockets();

}  // namespace platform
