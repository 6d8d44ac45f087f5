#include "SystemStats.h"

#include <mach/mach.h>
#include <stdint.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/sysctl.h>
#include <sys/time.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

// The host's headers.
#include "Type.h"
#include "Val.h"
#include "Var.h"

namespace {

constexpr double kGiB = 1073741824.0;
constexpr int64_t kMiB = 1048576;
constexpr int kMiBShift = 20;
constexpr std::size_t kPathBytes = 1024;

// Fields of system_stats, by position.
enum Field {
  kCpuUsage,
  kPriority,
  kPhMemTotal,
  kPhMemUsed,
  kVirtMemTotal,
  kVirtMemUsed,
  kHddVolume,
  kHddUsed,
  kHddAvail
};

// Darwin counts blocks in 32 bits, others in 64, so their product with a block's size is a
// double's.
static_assert(std::is_unsigned<fsblkcnt_t>::value &&
                  (sizeof(fsblkcnt_t) == 4 || sizeof(fsblkcnt_t) == 8),
              "count of blocks");
static_assert(sizeof(static_cast<struct statvfs*>(nullptr)->f_bsize) == 8, "size of a block");

/// Looked up once and kept, with a reference of its own, for as long as the process lives.
RecordType* record_type = nullptr;

/// Installed memory in MiB; cut to 32 bits, as the figure is defined.
int32_t memory_total_mib() {
  int name[2] = {CTL_HW, HW_MEMSIZE};
  int64_t bytes = 0;
  std::size_t size = sizeof bytes;
  if (sysctl(name, 2, &bytes, &size, nullptr, 0) < 0)
    bytes = 0;
  return static_cast<int32_t>(bytes / kMiB);
}

/// Memory in use in MiB, 0 when it cannot be read. The sum of the page counts wraps at 2^32 and the
/// result is cut to 32 bits, as the figure is defined.
int32_t memory_used_mib() {
  const mach_port_t host = mach_host_self();
  vm_size_t page_bytes = 0;
  host_page_size(host, &page_bytes);
  vm_statistics_data_t pages;
  std::memset(&pages, 0, sizeof pages);
  mach_msg_type_number_t count = HOST_VM_INFO_COUNT;
  if (host_statistics(host, HOST_VM_INFO, reinterpret_cast<host_info_t>(&pages), &count) !=
      KERN_SUCCESS)
    return 0;
  const uint32_t in_use = static_cast<uint32_t>(pages.active_count) +
                          static_cast<uint32_t>(pages.inactive_count) +
                          static_cast<uint32_t>(pages.wire_count);
  const uint64_t bytes = static_cast<uint64_t>(in_use) * static_cast<uint64_t>(page_bytes);
  return static_cast<int32_t>(bytes >> kMiBShift);
}

struct DiskFigures {
  double volume_gib;
  double free_gib;
};

/// The file system of the working directory; zeros when it cannot be read. The block size is
/// f_bsize and the free blocks are f_bfree, those kept for the superuser included:
/// so the figures are defined.
DiskFigures disk_figures() {
  DiskFigures figures = {0.0, 0.0};
  char folder[kPathBytes] = "";
  struct statvfs status;
  std::memset(&status, 0, sizeof status);
  if (getcwd(folder, sizeof folder) == nullptr || statvfs(folder, &status) != 0)
    return figures;
  const double block_bytes = static_cast<double>(static_cast<uint64_t>(status.f_bsize));
  figures.volume_gib = static_cast<double>(status.f_blocks) * block_bytes / kGiB;
  figures.free_gib = static_cast<double>(status.f_bfree) * block_bytes / kGiB;
  return figures;
}

/// A count out of a signed 32-bit figure. The host keeps a count as an unsigned 64-bit number and
/// converts nothing, so the widening happens here.
Val* make_count(int32_t value) {
  return new Val(static_cast<uint64_t>(static_cast<int64_t>(value)), TYPE_COUNT);
}

Val* make_double(double value) {
  return new Val(value, TYPE_DOUBLE);
}

}  // namespace

double getCpuUsage() {
  int name[2] = {CTL_VM, VM_LOADAVG};
  struct loadavg load;
  std::memset(&load, 0, sizeof load);
  std::size_t size = sizeof load;
  if (sysctl(name, 2, &load, &size, nullptr, 0) < 0)
    return -1.0;
  return static_cast<double>(load.ldavg[0]) / static_cast<double>(load.fscale);
}

RecordVal* SystemStats::getStats() {
  if (record_type == nullptr) {
    record_type = internal_type("system_stats")->AsRecordType();
    Ref(record_type);
  }
  const int32_t memory_total = memory_total_mib();
  const int32_t memory_used = memory_used_mib();
  const DiskFigures disk = disk_figures();
  const int32_t priority = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));

  RecordVal* stats = new RecordVal(record_type);
  stats->Assign(kCpuUsage, make_double(getCpuUsage()));
  stats->Assign(kPriority, new Val(priority, TYPE_INT));
  stats->Assign(kPhMemTotal, make_count(memory_total));
  stats->Assign(kPhMemUsed, make_count(memory_used));
  // Only one pair of figures is measured; the virtual ones are defined to repeat it.
  stats->Assign(kVirtMemTotal, make_count(memory_total));
  stats->Assign(kVirtMemUsed, make_count(memory_used));
  stats->Assign(kHddVolume, make_double(disk.volume_gib));
  stats->Assign(kHddUsed, make_double(disk.volume_gib - disk.free_gib));
  stats->Assign(kHddAvail, make_double(disk.free_gib));
  return stats;
}
