#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp_var.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysctl.h>

#include "ProcFile.h"
#include "TcpSockets.h"

namespace {

/// /proc/loadavg gives hundredths.
constexpr long kLoadScale = 100;

constexpr size_t kRoomForNewSockets = 64;

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

/// Writes the machine's TCP sockets in the layout of <netinet/tcp_var.h> into the caller's buffer.
/// A socket's handle is its inode.
class ListWriter : public platform::TcpSocketSink {
 public:
  ListWriter(char* buffer, size_t size) : buffer_(buffer), size_(size) {}

  bool begin() { return append_generation(0); }

  bool add(const platform::TcpSocket& socket) override {
    struct xtcpcb record;
    memset(&record, 0, sizeof record);
    record.xt_len = sizeof record;
    record.xt_inp.inp_gencnt = ++count_;
    record.xt_inp.inp_lport = socket.local_port;
    record.xt_inp.inp_fport = socket.foreign_port;
    record.xt_inp.inp_ip_p = IPPROTO_TCP;
    if (socket.is_v6) {
      record.xt_inp.inp_vflag = INP_IPV6;
      memcpy(&record.xt_inp.inp_dependladdr, socket.local, sizeof socket.local);
      memcpy(&record.xt_inp.inp_dependfaddr, socket.foreign, sizeof socket.foreign);
    } else {
      record.xt_inp.inp_vflag = INP_IPV4;
      record.xt_inp.inp_dependladdr.inp46_local.ia46_addr4.s_addr = socket.local[0];
      record.xt_inp.inp_dependfaddr.inp46_foreign.ia46_addr4.s_addr = socket.foreign[0];
    }
    record.xt_socket.xso_len = sizeof record.xt_socket;
    record.xt_socket.so_type = SOCK_STREAM;
    record.xt_socket.xso_protocol = IPPROTO_TCP;
    record.xt_socket.xso_family = socket.is_v6 ? AF_INET6 : AF_INET;
    record.xt_socket.xso_so = socket.inode;
    record.xt_socket.so_pcb = socket.inode;
    return append_bytes(&record, sizeof record);
  }

  /// Writes the trailer, and the header again: now the count is known.
  bool end() {
    if (!append_generation(count_))
      return false;
    memcpy(buffer_, buffer_ + used_ - sizeof(struct xinpgen), sizeof(struct xinpgen));
    return true;
  }

  size_t used() const { return used_; }

 private:
  bool append_generation(uint32_t count) {
    struct xinpgen generation;
    memset(&generation, 0, sizeof generation);
    generation.xig_len = sizeof generation;
    generation.xig_count = count;
    generation.xig_gen = count;
    generation.xig_sogen = count;
    return append_bytes(&generation, sizeof generation);
  }

  bool append_bytes(const void* bytes, size_t length) {
    if (size_ - used_ < length)
      return false;
    memcpy(buffer_ + used_, bytes, length);
    used_ += length;
    return true;
  }

  char* buffer_;
  size_t size_;
  size_t used_ = 0;
  uint32_t count_ = 0;
};

/// Writes the list with one of the two functions that read sockets.
int write_list(int (*read_sockets)(platform::TcpSocketSink*), char* buffer, size_t size,
               size_t* written) {
  ListWriter list(buffer, size);
  if (!list.begin())
    return ENOMEM;
  int error = read_sockets(&list);
  if (error == 0 && !list.end())
    error = ENOMEM;
  *written = list.used();
  return error;
}

int tcp_pcb_list(void* oldp, size_t* oldlenp) {
  if (oldlenp == nullptr)
    return fail(EFAULT);
  if (oldp == nullptr) {
    const size_t count = platform::count_tcp_sockets();
    *oldlenp = 2 * sizeof(struct xinpgen) +
               (count + count / 8 + kRoomForNewSockets) * sizeof(struct xtcpcb);
    return 0;
  }
  char* const buffer = static_cast<char*>(oldp);
  const size_t size = *oldlenp;
  int error = write_list(platform::read_tcp_sockets_by_netlink, buffer, size, oldlenp);
  if (error != 0 && error != ENOMEM)
    error = write_list(platform::read_tcp_sockets_from_proc, buffer, size, oldlenp);
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
