// Darwin's <libproc.h>: processes and their descriptors, read from /proc.
//
// All functions are thread-safe. Each thread keeps the sockets of the process that it listed last
// for 20 ms, for its calls of proc_pidfdinfo. A process that the caller may not inspect seems to
// have no descriptors. The functions are hidden: only the object that links them can call them.
#pragma once

#include <stdint.h>
#include <sys/proc_info.h>
#include <sys/types.h>

#pragma GCC visibility push(hidden)
#ifdef __cplusplus
extern "C" {
#endif

/// Writes the pids of all processes (`type` PROC_ALL_PIDS) as 32-bit integers, highest first, into
/// a buffer of `buffersize` bytes; pids that do not fit are left out. Returns the bytes written, or
/// for a null buffer the bytes needed with room for some new processes. 0 and errno on failure.
int proc_listpids(uint32_t type, uint32_t typeinfo, void* buffer, int buffersize);

/// PROC_PIDLISTFDS: writes a struct proc_fdinfo for each open descriptor, as many as fit; for a
/// null buffer only returns the bytes needed, with room for some new ones. PROC_PIDTASKALLINFO:
/// writes a struct proc_taskallinfo. Returns the bytes written; 0 and errno if the process cannot
/// be read.
int proc_pidinfo(int pid, int flavor, uint64_t arg, void* buffer, int buffersize);

/// PROC_PIDFDSOCKETINFO: writes a struct socket_fdinfo, whose handle psi.soi_pcb is also that of
/// the socket's record in the list of TCP sockets. Returns the bytes written; 0 and errno if the
/// descriptor cannot be read or is no socket.
int proc_pidfdinfo(int pid, int fd, int flavor, void* buffer, int buffersize);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
