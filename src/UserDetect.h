// Who owns the local end of a monitored connection: process name and user name.
//
// A query takes one snapshot of the system's TCP control blocks, looks for the block between the
// connection's two endpoints, in either direction, and then for the first process that holds a
// descriptor of it. Only IPv4 TCP sockets of this machine can be found.
//
// Threads: a query keeps nothing between calls and every buffer belongs to one call, so queries
// need no lock; detectUser makes host values and so belongs to the host's main thread.
// Errors: whatever the system refuses to tell ends as "not found" without a report; only a failed
// allocation is fatal, through the host's out_of_memory("malloc").
#pragma once

#include <stdint.h>

class Connection;
class VectorVal;

class UserDetect {
 public:
  /// A new `string_vec` of exactly two strings, owned by the caller: the short command name of the
  /// owning process and its user's login name. What is not found is the empty string. A socket of
  /// root gives the name and an empty user: user id 0 doubles as the mark for "not found".
  /// `conn` may be null (a connection record without its connection): two empty strings.
  static VectorVal* detectUser(Connection* conn);
};

/// The pid that owns the IPv4 TCP socket between endpoint a and endpoint b, in either direction;
/// 0 when there is none. Addresses are in network byte order; ports are too, in the low 16 bits.
uint32_t get_socket_pid(uint32_t address_a, uint32_t port_a, uint32_t address_b, uint32_t port_b);

/// The first of `pids[0]` to `pids[count - 1]` that has a socket descriptor whose control block has
/// the given handle (the low 32 bits of it); 0 when there is none.
uint32_t find_owning_pid(uint32_t handle, const int32_t* pids, uint64_t count);

/// Writes the short command name of `pid` to `name`, which has room for kProcessNameBytes with the
/// terminator, and returns its user id. When the process cannot be read: "" and 0.
uint32_t get_uid_for_pid(int32_t pid, char* name);

/// What get_uid_for_pid needs as room for a name.
constexpr int kProcessNameBytes = 16;
