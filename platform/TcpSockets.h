// Reads the machine's TCP sockets from the kernel.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace platform {

/// A TCP socket that a process holds. Addresses and ports are in network byte order.
struct TcpSocket {
  bool is_v6;         ///< false also for an IPv4 connection of an IPv6 socket
  uint32_t local[4];  ///< IPv4: the first word
  uint32_t foreign[4];
  uint16_t local_port;
  uint16_t foreign_port;
  uint32_t inode;  ///< never 0
};

/// Receives the sockets one by one.
class TcpSocketSink {
 public:
  virtual ~TcpSocketSink() {}
  /// False if there is no room.
  virtual bool add(const TcpSocket& socket) = 0;
};

/// Gives every socket that a process holds to `sink`. Connections that are not accepted yet and
/// those in TIME_WAIT have no process. Return 0, ENOMEM if the sink had no room, or the error of
/// reading. Thread-safe.
///
/// The first uses netlink, which is many times faster but not permitted everywhere; it allocates
/// nothing. The second reads /proc/net/tcp and /proc/net/tcp6.
int read_tcp_sockets_by_netlink(TcpSocketSink* sink);
int read_tcp_sockets_from_proc(TcpSocketSink* sink);

/// The approximate number of sockets. Far cheaper than reading them.
size_t count_tcp_sockets();

}  // namespace platform
