// Darwin's <libproc.h>: processes and their descriptors, here out of /proc.
//
// All functions are thread-safe. The sockets of the process that a thread listed last are kept for
// 20 ms, for its calls of proc_pidfdinfo. What the caller may not look at (processes of other
// users, for an ordinary user) is as if it had no descriptors. Hidden, so that they stay inside the
// object that links them.
#pragma once

#include <stdint.h>
#include <sys/proc_info.h>
#include <sys/types.h>

#pragma GCC visibility push(hidden)
#ifdef __cplusplus
extern "C" {
#endif

/// The pids of all processes (`type` PROC_ALL_PIDS), highest first, as 32-bit integers into a
/// buffer of `buffersize` bytes; what does not fit is left out. Returns the bytes written; without
/// a buffer the bytes needed, with room for some new processes. 0 and errno on failure.
int proc_listpids(uint32_t type, uint32_t typeinfo, void* buffer, int buffersize);

/// PROC_PIDLISTFDS: one struct proc_fdinfo per open descriptor, as many as fit; without a buffer
/// the bytes needed, with room for some new ones. PROC_PIDTASKALLINFO: one struct proc_taskallinfo.
/// Returns the bytes written; 0 and errno when the process cannot be read.
int proc_pidinfo(int pid, int flavor, uint64_t arg, void* buffer, int buffersize);

/// PROC_PIDFDSOCKETINFO: one struct socket_fdinfo, in which the handle psi.soi_pcb is the same as
/// in the record of the socket's control block. Returns the bytes written; 0 and errno when the
/// descriptor cannot be read or is no socket.
int proc_pidfdinfo(int pid, int fd, int flavor, void* buffer, int buffersize);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
