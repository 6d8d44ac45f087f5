#include "UserDetect.h"

#include <libproc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/proc_info.h>
#include <sys/socket.h>
// The lists' records depend on each other in this order where the system brings them.
#include <sys/socketvar.h>
// clang-format off
#include <netinet/in_pcb.h>
#include <netinet/tcp_var.h>
// clang-format on
#include <sys/sysctl.h>
#include <sys/types.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>

// The host's headers.
#include "Conn.h"
#include "IPAddr.h"
#include "Type.h"
#include "Val.h"
#include "Var.h"
#include "util.h"

namespace {

constexpr int kMaxPids = 1024;
constexpr char kPcbList[] = "net.inet.tcp.pcblist";

constexpr std::size_t kHandleOffset =
    offsetof(struct xtcpcb, xt_socket) + offsetof(struct xsocket, so_pcb);
constexpr std::size_t kProtocolOffset =
    offsetof(struct xtcpcb, xt_socket) + offsetof(struct xsocket, xso_protocol);

// The figures of Darwin's kernel, whichever headers declare its records.
static_assert(sizeof(struct xinpgen) == 24, "header and trailer of the control block list");
static_assert(sizeof(struct inpcb) == 208, "control block");
static_assert(offsetof(struct xtcpcb, xt_socket) == 416, "socket in a record of the list");
static_assert(kHandleOffset == 432, "handle in a record of the list");
static_assert(kProtocolOffset == 436, "protocol in a record of the list");
static_assert(sizeof(struct xtcpcb) == 524, "record of the list");
static_assert(sizeof(struct proc_fdinfo) == 8, "entry of the descriptor list");
static_assert(sizeof(struct socket_fdinfo) == 792, "socket information");
static_assert(sizeof(struct proc_taskallinfo) == 232, "task information");

struct Free {
  void operator()(char* block) const { free(block); }
};
typedef std::unique_ptr<char, Free> Block;

/// Never null; zero bytes are as good as any other number.
Block allocate(std::size_t bytes) {
  Block block(static_cast<char*>(malloc(bytes > 0 ? bytes : 1)));
  if (!block)
    out_of_memory("malloc");
  return block;
}

/// The processes of this moment, newest first.
struct PidList {
  int32_t pids[kMaxPids];
  uint64_t count;
};

/// Neither call tells how many pids were delivered: the sizing call gives bytes, with some to
/// spare, and the processes may be more than fit. So the list is cleared first, and what is
/// non-zero afterwards is what was delivered (pid 0, the kernel, owns no socket).
void list_pids(PidList* list) {
  std::memset(list, 0, sizeof *list);
  if (proc_listpids(PROC_ALL_PIDS, 0, nullptr, 0) <= 0)
    return;
  proc_listpids(PROC_ALL_PIDS, 0, list->pids, static_cast<int>(sizeof list->pids));
  list->count = kMaxPids;
  while (list->count > 0 && list->pids[list->count - 1] == 0)
    --list->count;
}

/// The snapshot of all TCP control blocks; false when the system does not give it. There is no
/// second try when the list grew between the two calls.
bool take_snapshot(Block* snapshot, std::size_t* length) {
  if (sysctlbyname(kPcbList, nullptr, length, nullptr, 0) != 0)
    return false;
  const std::size_t allocated = *length;
  *snapshot = allocate(allocated);
  if (sysctlbyname(kPcbList, snapshot->get(), length, nullptr, 0) != 0)
    return false;
  if (*length > allocated)
    *length = allocated;
  return true;
}

struct Endpoints {
  uint32_t address_a;
  uint32_t port_a;
  uint32_t address_b;
  uint32_t port_b;
};

bool matches(const struct inpcb& pcb, const Endpoints& wanted) {
  const uint32_t local = pcb.inp_dependladdr.inp46_local.ia46_addr4.s_addr;
  const uint32_t foreign = pcb.inp_dependfaddr.inp46_foreign.ia46_addr4.s_addr;
  // Widened without sign: an argument with anything in its upper half matches no port.
  const uint32_t local_port = pcb.inp_lport;
  const uint32_t foreign_port = pcb.inp_fport;
  if (local == 0 && local_port == 0 && foreign == 0 && foreign_port == 0)
    return false;
  return (local == wanted.address_a && local_port == wanted.port_a && foreign == wanted.address_b &&
          foreign_port == wanted.port_b) ||
         (local == wanted.address_b && local_port == wanted.port_b && foreign == wanted.address_a &&
          foreign_port == wanted.port_a);
}

bool is_candidate(const struct xtcpcb& record, uint64_t generation) {
  return record.xt_socket.xso_protocol == IPPROTO_TCP && record.xt_inp.inp_gencnt <= generation &&
         (record.xt_inp.inp_vflag & (INP_IPV4 | INP_IPV6)) == INP_IPV4;
}

/// How much of a record is read: up to the last field that is looked at.
constexpr std::size_t kFieldBytes =
    kProtocolOffset + sizeof(static_cast<struct xsocket*>(nullptr)->xso_protocol);

/// Walks the snapshot for the socket between two endpoints and gives the handle of its control
/// block. The walk ends at the trailer, and at the latest at the end of the snapshot: lengths come
/// from outside. A record too short for the fields is stepped over. Records are copied out, since
/// nothing but their own lengths keeps them aligned.
bool find_handle(const char* snapshot, std::size_t length, const Endpoints& wanted,
                 uint32_t* handle) {
  if (length <= sizeof(struct xinpgen))
    return false;
  struct xinpgen header;
  std::memcpy(&header, snapshot, sizeof header);
  std::size_t offset = header.xig_len;
  uint32_t record_length = 0;
  while (offset <= length && length - offset >= sizeof record_length) {
    std::memcpy(&record_length, snapshot + offset, sizeof record_length);
    if (record_length <= sizeof(struct xinpgen))
      return false;
    if (record_length >= kFieldBytes && length - offset >= kFieldBytes) {
      struct xtcpcb record;
      std::memcpy(&record, snapshot + offset, kFieldBytes);
      if (is_candidate(record, header.xig_gen) && matches(record.xt_inp, wanted)) {
        *handle = record.xt_socket.so_pcb;
        return true;
      }
    }
    offset += record_length;
  }
  return false;
}

bool is_socket_of(int32_t pid, const struct proc_fdinfo& descriptor, uint32_t handle) {
  if (descriptor.proc_fdtype != PROX_FDTYPE_SOCKET)
    return false;
  struct socket_fdinfo info;
  std::memset(&info, 0, sizeof info);
  // The call's result is not looked at; where it fails this other handle stays, and no match.
  info.psi.soi_pcb = static_cast<uint32_t>(~handle);
  proc_pidfdinfo(pid, descriptor.proc_fd, PROC_PIDFDSOCKETINFO, &info,
                 static_cast<int>(sizeof info));
  // Compared by 32 bits: the control block list carries no more of a handle.
  return static_cast<uint32_t>(info.psi.soi_pcb) == handle;
}

bool owns_socket(int32_t pid, uint32_t handle) {
  const int bytes = proc_pidinfo(pid, PROC_PIDLISTFDS, 0, nullptr, 0);
  if (bytes <= 0)
    return false;
  const std::size_t size = static_cast<std::size_t>(bytes);
  const Block list = allocate(size);
  // The second call may deliver less than the first one told, or nothing: entries of zeros are not
  // sockets.
  std::memset(list.get(), 0, size);
  proc_pidinfo(pid, PROC_PIDLISTFDS, 0, list.get(), bytes);
  for (std::size_t i = 0; i < size / sizeof(struct proc_fdinfo); ++i) {
    struct proc_fdinfo descriptor;
    std::memcpy(&descriptor, list.get() + i * sizeof descriptor, sizeof descriptor);
    if (is_socket_of(pid, descriptor, handle))
      return true;
  }
  return false;
}

/// IPv4: the address. IPv6: its first four bytes. Network byte order either way.
uint32_t address_word(const IPAddr& address) {
  const uint32_t* words = nullptr;
  address.GetBytes(&words);
  return words[0];
}

std::string user_name(uint32_t uid) {
  // Root is no one: 0 is also what an unreadable process gives.
  if (uid == 0)
    return "";
  const struct passwd* entry = getpwuid(uid);
  return entry != nullptr && entry->pw_name != nullptr ? entry->pw_name : "";
}

}  // namespace

uint32_t find_owning_pid(uint32_t handle, const int32_t* pids, uint64_t count) {
  for (uint64_t i = 0; i < count; ++i) {
    if (owns_socket(pids[i], handle))
      return static_cast<uint32_t>(pids[i]);
  }
  return 0;
}

uint32_t get_socket_pid(uint32_t address_a, uint32_t port_a, uint32_t address_b, uint32_t port_b) {
  PidList processes;
  list_pids(&processes);
  const Endpoints wanted = {address_a, port_a, address_b, port_b};
  Block snapshot;
  std::size_t length = 0;
  uint32_t handle = 0;
  if (!take_snapshot(&snapshot, &length) || !find_handle(snapshot.get(), length, wanted, &handle))
    return 0;
  return find_owning_pid(handle, processes.pids, processes.count);
}

uint32_t get_uid_for_pid(int32_t pid, char* name) {
  name[0] = '\0';
  struct proc_taskallinfo info;
  std::memset(&info, 0, sizeof info);
  const int bytes = proc_pidinfo(pid, PROC_PIDTASKALLINFO, 1, &info, static_cast<int>(sizeof info));
  if (bytes <= 0)
    return 0;
  static_assert(sizeof info.pbsd.pbi_comm >= kProcessNameBytes, "room of a command name");
  std::memcpy(name, info.pbsd.pbi_comm, kProcessNameBytes - 1);
  name[kProcessNameBytes - 1] = '\0';
  return info.pbsd.pbi_uid;
}

VectorVal* UserDetect::detectUser(Connection* conn) {
  VectorVal* result = new VectorVal(internal_type("string_vec")->AsVectorType());
  char process[kProcessNameBytes] = "";
  uint32_t uid = 0;
  if (conn != nullptr) {
    const uint32_t pid = get_socket_pid(address_word(conn->OrigAddr()), conn->OrigPort(),
                                        address_word(conn->RespAddr()), conn->RespPort());
    if (pid != 0)
      uid = get_uid_for_pid(static_cast<int32_t>(pid), process);
  }
  result->Assign(0u, new StringVal(process));
  result->Assign(1u, new StringVal(user_name(uid)));
  return result;
}
