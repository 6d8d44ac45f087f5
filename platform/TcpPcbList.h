// The value of the sysctl "net.inet.tcp.pcblist": the machine's TCP sockets in the layout of
// <netinet/tcp_var.h>.
#pragma once

#include <stddef.h>

namespace platform {

/// Bytes that the list needs now, with room for some new sockets. Never fails.
size_t tcp_pcb_list_size();

/// Writes a list to `buffer`, which has room for `size` bytes, and sets *written. A socket's inode
/// is its handle. Sockets that no process holds are left out. Returns 0, ENOMEM when the list does
/// not fit, or what reading failed with.
int write_tcp_pcb_list(char* buffer, size_t size, size_t* written);

}  // namespace platform
