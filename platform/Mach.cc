#include <mach/mach.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include "ProcFile.h"

namespace {

/// Any number but 0, which means "no port" on Darwin.
constexpr mach_port_t kThisHost = 1;

uint64_t page_bytes() {
  return static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

bool read_page_counts(struct vm_statistics* counts) {
  char text[4096];
  uint64_t total = 0, free = 0, active = 0, inactive = 0;
  if (procfs::read_text("/proc/meminfo", text, sizeof text) <= 0 ||
      !procfs::find_number(text, "MemTotal:", &total) ||
      !procfs::find_number(text, "MemFree:", &free) ||
      !procfs::find_number(text, "Active:", &active) ||
      !procfs::find_number(text, "Inactive:", &inactive))
    return false;
  // The kernel takes these counts at different moments, so their sum may exceed the total a little.
  const uint64_t known = free + active + inactive;
  const uint64_t wired = total > known ? total - known : 0;
  const uint64_t page_kib = page_bytes() / 1024;
  memset(counts, 0, sizeof *counts);
  counts->free_count = static_cast<natural_t>(free / page_kib);
  counts->active_count = static_cast<natural_t>(active / page_kib);
  counts->inactive_count = static_cast<natural_t>(inactive / page_kib);
  counts->wire_count = static_cast<natural_t>(wired / page_kib);
  return true;
}

}  // namespace

mach_port_t mach_host_self(void) {
  return kThisHost;
}

kern_return_t host_page_size(host_t host, vm_size_t* page_size) {
  if (host != kThisHost || page_size == nullptr)
    return KERN_INVALID_ARGUMENT;
  *page_size = static_cast<vm_size_t>(page_bytes());
  return KERN_SUCCESS;
}

kern_return_t host_statistics(host_t host, host_flavor_t flavor, host_info_t info,
                              mach_msg_type_number_t* count) {
  if (host != kThisHost || flavor != HOST_VM_INFO || info == nullptr || count == nullptr)
    return KERN_INVALID_ARGUMENT;
  if (*count < HOST_VM_INFO_COUNT)
    return KERN_FAILURE;
  struct vm_statistics counts;
  if (!read_page_counts(&counts))
    return KERN_FAILURE;
  memcpy(info, &counts, sizeof counts);
  *count = HOST_VM_INFO_COUNT;
  return KERN_SUCCESS;
}
