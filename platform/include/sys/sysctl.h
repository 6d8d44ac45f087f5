// Darwin's <sys/sysctl.h>: the part of the sysctl tree that the probes read.
//
// Known here: {CTL_VM, VM_LOADAVG} (struct loadavg), {CTL_HW, HW_MEMSIZE} (a 64-bit byte count) and
// "net.inet.tcp.pcblist" (see <netinet/tcp_var.h>). Everything else fails with ENOENT.
//
// The functions are hidden: libc may export a function named sysctl, too, and no other library may
// be linked to this one.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#define CTL_VM 2
#define CTL_HW 6
#define VM_LOADAVG 2
#define HW_MEMSIZE 24

typedef uint32_t fixpt_t;

/// Load averages over 1, 5 and 15 minutes, each to be divided by fscale.
struct loadavg {
  fixpt_t ldavg[3];
  long fscale;
};

#pragma GCC visibility push(hidden)
#ifdef __cplusplus
extern "C" {
#endif

/// Both write the value into `oldp` of *oldlenp bytes and set *oldlenp to the bytes written. For a
/// null `oldp` they set *oldlenp to the bytes needed (for the list: with some room to grow). Return
/// 0, or -1 and errno: ENOMEM if the value does not fit, EPERM for a new value. Thread-safe.
int sysctl(int* name, unsigned int namelen, void* oldp, size_t* oldlenp, void* newp, size_t newlen);
int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t newlen);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
