// Darwin's <mach/mach.h>: page size and page counts of this machine, read from /proc/meminfo.
//
// All functions are thread-safe. They are hidden: only the object that links them can call them.
#pragma once

#include <stdint.h>

typedef int integer_t;
typedef unsigned int natural_t;
typedef natural_t mach_port_t;
typedef natural_t mach_msg_type_number_t;
typedef mach_port_t host_t;
typedef int kern_return_t;
typedef uintptr_t vm_size_t;
typedef integer_t host_flavor_t;
typedef integer_t* host_info_t;

#define KERN_SUCCESS 0
#define KERN_INVALID_ARGUMENT 4
#define KERN_FAILURE 5

/// host_statistics
#define HOST_VM_INFO 2

/// Page counts. As on Darwin, every page of physical memory is free, active, inactive or wired.
/// Active and inactive are the kernel's lists of that name (programs' memory and file cache). Wired
/// is all the rest (the kernel's own memory, page tables, locked pages).
struct vm_statistics {
  natural_t free_count;
  natural_t active_count;
  natural_t inactive_count;
  natural_t wire_count;
  natural_t zero_fill_count;
  natural_t reactivations;
  natural_t pageins;
  natural_t pageouts;
  natural_t faults;
  natural_t cow_faults;
  natural_t lookups;
  natural_t hits;
  natural_t purgeable_count;
  natural_t purges;
  natural_t speculative_count;
};
typedef struct vm_statistics* vm_statistics_t;
typedef struct vm_statistics vm_statistics_data_t;

#define HOST_VM_INFO_COUNT \
  ((mach_msg_type_number_t)(sizeof(vm_statistics_data_t) / sizeof(integer_t)))

#ifdef __cplusplus
static_assert(HOST_VM_INFO_COUNT == 15, "page counts");
#endif

#pragma GCC visibility push(hidden)
#ifdef __cplusplus
extern "C" {
#endif

/// The port of this machine, for the two functions below.
mach_port_t mach_host_self(void);

/// Bytes per page of virtual memory.
kern_return_t host_page_size(host_t host, vm_size_t* page_size);

/// HOST_VM_INFO: fills a struct vm_statistics. *count is its size in integers, at least
/// HOST_VM_INFO_COUNT. On failure (not KERN_SUCCESS) nothing is written.
kern_return_t host_statistics(host_t host, host_flavor_t flavor, host_info_t info,
                              mach_msg_type_number_t* count);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
