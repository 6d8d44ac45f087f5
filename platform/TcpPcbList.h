// The value of the sysctl "net.inet.tcp.pcblist": the machine's TCP sockets in the layout of
// <netinet/tcp_var.h>.
#pragma once

#include <stddef.h>

namespace platform {

/// The size of the list in bytes, with room for some new sockets. Never fails.
size_t tcp_pcb_list_size();

/// Writes the list into `buffer` of `size` bytes; *written is its size in bytes. A socket's handle
/// is its inode. Sockets without a process are left out. Returns 0, ENOMEM if the list does not
/// fit, or the error of reading the sockets.
int write_tcp_pcb_list(char* buffer, size_t size, size_t* written);

}  // namespace platform
