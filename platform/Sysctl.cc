#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysctl.h>

#include "ProcFile.h"
#include "TcpPcbList.h"

namespace {

/// /proc/loadavg gives hundredths.
constexpr long kLoadScale = 100;

int fail(int error) {
  errno = error;
  return -1;
}

/// Hands out a value of fixed size.
int copy_out(const void* value, size_t size, void* oldp, size_t* oldlenp) {
  if (oldlenp == nullptr)
    return fail(EFAULT);
  if (oldp != nullptr) {
    if (*oldlenp < size)
      return fail(ENOMEM);
    memcpy(oldp, value, size);
  }
  *oldlenp = size;
  return 0;
}

/// "12.34" in hundredths; moves *text behind it.
bool read_hundredths(const char** text, fixpt_t* value) {
  char* end = nullptr;
  const unsigned long whole = strtoul(*text, &end, 10);
  if (end == *text || end[0] != '.' || end[1] < '0' || end[1] > '9' || end[2] < '0' || end[2] > '9')
    return false;
  *value = static_cast<fixpt_t>(whole * kLoadScale + static_cast<unsigned long>(end[1] - '0') * 10 +
                                static_cast<unsigned long>(end[2] - '0'));
  *text = end + 3;
  return true;
}

int load_average(void* oldp, size_t* oldlenp) {
  char text[128];
  if (procfs::read_text("/proc/loadavg", text, sizeof text) <= 0)
    return -1;
  struct loadavg load;
  memset(&load, 0, sizeof load);
  load.fscale = kLoadScale;
  const char* at = text;
  for (fixpt_t& average : load.ldavg) {
    if (!read_hundredths(&at, &average))
      return fail(EIO);
  }
  return copy_out(&load, sizeof load, oldp, oldlenp);
}

int memory_size(void* oldp, size_t* oldlenp) {
  char text[4096];
  uint64_t kib = 0;
  if (procfs::read_text("/proc/meminfo", text, sizeof text) <= 0)
    return -1;
  if (!procfs::find_number(text, "MemTotal:", &kib))
    return fail(EIO);
  const uint64_t bytes = kib * 1024;
  return copy_out(&bytes, sizeof bytes, oldp, oldlenp);
}

int tcp_pcb_list(void* oldp, size_t* oldlenp) {
  if (oldlenp == nullptr)
    return fail(EFAULT);
  if (oldp == nullptr) {
    *oldlenp = platform::tcp_pcb_list_size();
    return 0;
  }
  const int error = platform::write_tcp_pcb_list(static_cast<char*>(oldp), *oldlenp, oldlenp);
  return error == 0 ? 0 : fail(error);
}

}  // namespace

int sysctl(int* name, unsigned int namelen, void* oldp, size_t* oldlenp, void* newp, size_t) {
  if (newp != nullptr)
    return fail(EPERM);
  if (name != nullptr && namelen == 2) {
    if (name[0] == CTL_VM && name[1] == VM_LOADAVG)
      return load_average(oldp, oldlenp);
    if (name[0] == CTL_HW && name[1] == HW_MEMSIZE)
      return memory_size(oldp, oldlenp);
  }
  return fail(ENOENT);
}

int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t) {
  if (newp != nullptr)
    return fail(EPERM);
  if (name != nullptr && strcmp(name, "net.inet.tcp.pcblist") == 0)
    return tcp_pcb_list(oldp, oldlenp);
  return fail(ENOENT);
}
