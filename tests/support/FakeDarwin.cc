#include "FakeDarwin.h"

#include <dlfcn.h>
#include <libproc.h>
#include <mach/mach.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "LibcNoexcept.h"

namespace {

test::FakeDarwin* fake = nullptr;

// Where the fields stand in a record of the list, counted from its beginning.
constexpr std::size_t kLengthAt = 0;
constexpr std::size_t kForeignPortAt = 4 + 16;
constexpr std::size_t kLocalPortAt = 4 + 18;
constexpr std::size_t kGenerationAt = 4 + 60;
constexpr std::size_t kFamilyFlagsAt = 4 + 76;
constexpr std::size_t kForeignAddressAt = 4 + 80 + 12;
constexpr std::size_t kLocalAddressAt = 4 + 96 + 12;
constexpr std::size_t kHandleAt = 432;
constexpr std::size_t kProtocolAt = 436;

test::FakeProcess* find_process(int pid) {
  if (!fake)
    return nullptr;
  const auto found = std::find_if(fake->processes.begin(), fake->processes.end(),
                                  [&](const test::FakeProcess& p) { return p.pid == pid; });
  return found == fake->processes.end() ? nullptr : &*found;
}

int copy_value(const void* value, std::size_t length, void* out, std::size_t* out_length) {
  if (*out_length < length) {
    errno = ENOMEM;
    return -1;
  }
  if (length > 0)
    std::memcpy(out, value, length);
  *out_length = length;
  return 0;
}

int fail(int error) {
  errno = error;
  return -1;
}

int list_descriptors(const test::FakeProcess& process, void* buffer, int size) {
  const int entry_bytes = static_cast<int>(sizeof(proc_fdinfo));
  const int told =
      process.descriptor_bytes.value_or(static_cast<int>(process.descriptors.size()) * entry_bytes);
  if (!buffer)
    return told;
  if (!process.list_fetch_works)
    return 0;
  int written = 0;
  for (const auto& [fd, type] : process.descriptors) {
    if (size - written < entry_bytes)
      break;
    proc_fdinfo entry;
    entry.proc_fd = fd;
    entry.proc_fdtype = type;
    std::memcpy(static_cast<char*>(buffer) + written, &entry, sizeof entry);
    written += entry_bytes;
  }
  return written;
}

int task_information(const test::FakeProcess& process, void* buffer, int size) {
  if (!process.has_task_information || size < static_cast<int>(sizeof(proc_taskallinfo)))
    return 0;
  proc_taskallinfo info;
  std::memset(&info, 0, sizeof info);
  info.pbsd.pbi_pid = static_cast<std::uint32_t>(process.pid);
  info.pbsd.pbi_uid = process.uid;
  std::memcpy(info.pbsd.pbi_comm, process.name.data(),
              std::min(process.name.size(), sizeof info.pbsd.pbi_comm));
  // What stands right behind must never come out with a name that fills its field.
  std::memset(info.pbsd.pbi_name, '#', sizeof info.pbsd.pbi_name);
  std::memcpy(buffer, &info, sizeof info);
  return static_cast<int>(sizeof info);
}

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace test {

FakeProcess& FakeProcess::socket(std::int32_t fd, std::uint64_t handle) {
  return other(fd, PROX_FDTYPE_SOCKET, handle);
}

FakeProcess& FakeProcess::other(std::int32_t fd, std::uint32_t type, std::uint64_t handle) {
  descriptors.emplace_back(fd, type);
  handles[fd] = handle;
  return *this;
}

PcbList::PcbList(std::uint64_t generation) : generation_(generation) {
  append_generation();
}

template <typename T>
void PcbList::put(std::size_t offset, T value) {
  std::memcpy(bytes_.data() + offset, &value, sizeof value);
}

void PcbList::append_generation() {
  const std::size_t begin = bytes_.size();
  bytes_.resize(begin + kGenerationBytes);
  put(begin, kGenerationBytes);
  put(begin + 8, generation_);
}

PcbList& PcbList::add(const Pcb& pcb) {
  const std::size_t begin = bytes_.size();
  // A length that is nonsense still has a whole record behind it; what lies between and was not
  // set is not zero, so that a field read at a wrong place shows.
  const bool sensible = pcb.length >= kProtocolAt + 4 && pcb.length < 10 * kRecordBytes;
  bytes_.resize(begin + (sensible ? pcb.length : kRecordBytes), '\x7e');
  put(begin + kLengthAt, pcb.length);
  put(begin + kForeignPortAt, pcb.foreign_port);
  put(begin + kLocalPortAt, pcb.local_port);
  put(begin + kGenerationAt, pcb.generation);
  put(begin + kFamilyFlagsAt, pcb.family_flags);
  put(begin + kForeignAddressAt, pcb.foreign_address);
  put(begin + kLocalAddressAt, pcb.local_address);
  put(begin + kHandleAt, pcb.handle);
  put(begin + kProtocolAt, pcb.protocol);
  return *this;
}

PcbList& PcbList::end() {
  append_generation();
  return *this;
}

PcbList& PcbList::cut(std::size_t bytes) {
  bytes_.resize(bytes);
  return *this;
}

PcbList& PcbList::header_length(std::uint32_t length) {
  put(0, length);
  return *this;
}

FakeDarwin::FakeDarwin() {
  fake = this;
}

FakeDarwin::~FakeDarwin() {
  fake = nullptr;
}

}  // namespace test

extern "C" {

int proc_listpids(std::uint32_t type, std::uint32_t, void* buffer, int size) {
  if (!fake || type != PROC_ALL_PIDS)
    return 0;
  const int needed = static_cast<int>(fake->processes.size() * sizeof(std::int32_t));
  if (!buffer)
    return fake->pid_sizing.value_or(needed + 80);
  int written = 0;
  for (const test::FakeProcess& process : fake->processes) {
    if (size - written < static_cast<int>(sizeof process.pid))
      break;
    std::memcpy(static_cast<char*>(buffer) + written, &process.pid, sizeof process.pid);
    written += static_cast<int>(sizeof process.pid);
  }
  return written;
}

int proc_pidinfo(int pid, int flavor, std::uint64_t, void* buffer, int size) {
  const bool lists = flavor == PROC_PIDLISTFDS;
  if (fake)
    fake->calls.push_back("pidinfo " + std::to_string(pid) + (lists ? " fds" : " task") +
                          (buffer ? "" : " size"));
  const test::FakeProcess* process = find_process(pid);
  if (!process)
    return 0;
  return lists ? list_descriptors(*process, buffer, size)
               : task_information(*process, buffer, size);
}

int proc_pidfdinfo(int pid, int fd, int flavor, void* buffer, int size) {
  if (fake)
    fake->calls.push_back("fdinfo " + std::to_string(pid) + " " + std::to_string(fd));
  const test::FakeProcess* process = find_process(pid);
  if (!process || !process->socket_information_works || flavor != PROC_PIDFDSOCKETINFO ||
      size < static_cast<int>(sizeof(socket_fdinfo)) || !process->handles.count(fd))
    return 0;
  socket_fdinfo info;
  std::memset(&info, 0, sizeof info);
  info.psi.soi_pcb = process->handles.at(fd);
  std::memcpy(buffer, &info, sizeof info);
  return static_cast<int>(sizeof info);
}

int sysctlbyname(const char* name, void* out, std::size_t* length, void*, std::size_t) {
  if (!fake || std::strcmp(name, "net.inet.tcp.pcblist") != 0)
    return fail(ENOENT);
  if (!out) {
    *length = fake->pcb_sizing.value_or(fake->pcb_list.size());
    return fake->pcb_sizing_works ? 0 : fail(EPERM);
  }
  if (!fake->pcb_fetch_works)
    return fail(ENOMEM);
  const int result = copy_value(fake->pcb_list.data(), fake->pcb_list.size(), out, length);
  *length = fake->pcb_fetched.value_or(*length);
  return result;
}

int sysctl(int* name, unsigned int levels, void* out, std::size_t* length, void*, std::size_t) {
  if (!fake || levels != 2)
    return fail(ENOENT);
  if (name[0] == CTL_VM && name[1] == VM_LOADAVG && fake->load_works) {
    struct loadavg load;
    std::memset(&load, 0, sizeof load);
    load.ldavg[0] = fake->load_average;
    load.ldavg[1] = load.ldavg[2] = ~fake->load_average;
    load.fscale = fake->load_scale;
    return copy_value(&load, sizeof load, out, length);
  }
  if (name[0] == CTL_HW && name[1] == HW_MEMSIZE && fake->memory_size_works)
    return copy_value(&fake->memory_bytes, sizeof fake->memory_bytes, out, length);
  return fail(ENOENT);
}

mach_port_t mach_host_self(void) {
  return 77;
}

kern_return_t host_page_size(host_t host, vm_size_t* page_size) {
  if (!fake || host != 77 || !fake->page_size_works)
    return KERN_INVALID_ARGUMENT;
  *page_size = static_cast<vm_size_t>(fake->page_bytes);
  return KERN_SUCCESS;
}

kern_return_t host_statistics(host_t host, host_flavor_t flavor, host_info_t info,
                              mach_msg_type_number_t* count) {
  if (!fake || host != 77 || flavor != HOST_VM_INFO || *count != 15 || !fake->page_counts_work)
    return KERN_FAILURE;
  vm_statistics_data_t pages;
  std::memset(&pages, 0x11, sizeof pages);
  pages.active_count = fake->active_pages;
  pages.inactive_count = fake->inactive_pages;
  pages.wire_count = fake->wired_pages;
  std::memcpy(info, &pages, sizeof pages);
  return KERN_SUCCESS;
}

struct passwd* getpwuid(uid_t uid) {
  if (!fake)
    return real<struct passwd*(uid_t)>("getpwuid")(uid);
  fake->calls.push_back("getpwuid " + std::to_string(uid));
  const auto found = fake->users.find(uid);
  if (found == fake->users.end())
    return nullptr;
  static struct passwd entry;
  entry = {};
  entry.pw_uid = uid;
  entry.pw_name = &found->second[0];
  return &entry;
}

#ifdef __GLIBC__
int getpriority(__priority_which_t which, id_t who) LIBC_NOEXCEPT {
#else
int getpriority(int which, id_t who) {
#endif
  if (!fake)
    return real<int(int, id_t)>("getpriority")(static_cast<int>(which), who);
  const bool own = which == PRIO_PROCESS && who == static_cast<id_t>(getpid());
  return own ? fake->priority : fail(ESRCH);
}
}
