#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <libproc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <functional>

#include "ProcFile.h"

namespace {

/// What is told beyond the present number when a caller asks how much room a list needs.
constexpr int kRoomForNewPids = 20;
constexpr int kRoomForNewDescriptors = 8;

int fail(int error) {
  errno = error;
  return 0;
}

/// What a descriptor is and, of a socket, its inode.
struct Descriptor {
  uint32_t type;
  uint64_t inode;
};

/// What the text of a link in /proc/PID/fd says, such as "socket:[4711]". The file itself is never
/// touched: it may lie on a file system that does not answer.
Descriptor describe(const char* link) {
  static const char kSocket[] = "socket:[";
  if (strncmp(link, kSocket, sizeof kSocket - 1) == 0)
    return {PROX_FDTYPE_SOCKET, strtoull(link + sizeof kSocket - 1, nullptr, 10)};
  if (strncmp(link, "pipe:", 5) == 0)
    return {PROX_FDTYPE_PIPE, 0};
  if (strcmp(link, "anon_inode:[eventpoll]") == 0)
    return {PROX_FDTYPE_KQUEUE, 0};
  return {PROX_FDTYPE_VNODE, 0};
}

/// Looks at an entry of /proc/PID/fd; false when it is not there or may not be seen.
bool look_at(int folder, const char* name, Descriptor* descriptor) {
  char link[32];
  const ssize_t length = readlinkat(folder, name, link, sizeof link - 1);
  if (length < 0)
    return false;
  link[length] = '\0';
  *descriptor = describe(link);
  return true;
}

/// The sockets of the process that this thread listed last. Whoever lists descriptors asks for the
/// socket information of each right afterwards, and looking at a descriptor is most of the cost of
/// either. So what was seen then is good for a moment; sockets that find no room are looked at
/// again.
class SeenSockets {
 public:
  void start(int pid) {
    pid_ = pid;
    until_ms_ = now_ms() + kGoodForMs;
    ++listing_;
  }

  void add(int32_t fd, uint64_t inode) { slot(fd) = {inode, listing_, fd}; }

  bool find(int pid, int32_t fd, uint64_t* inode) {
    const Slot& seen = slot(fd);
    if (pid != pid_ || seen.listing != listing_ || seen.fd != fd || now_ms() > until_ms_)
      return false;
    *inode = seen.inode;
    return true;
  }

 private:
  static constexpr int64_t kGoodForMs = 20;
  static constexpr uint32_t kSlots = 1024;

  struct Slot {
    uint64_t inode;
    uint32_t listing;
    int32_t fd;
  };

  Slot& slot(int32_t fd) { return slots_[static_cast<uint32_t>(fd) % kSlots]; }

  static int64_t now_ms() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
  }

  int pid_ = 0;
  uint32_t listing_ = 0;
  int64_t until_ms_ = 0;
  Slot slots_[kSlots] = {};
};

thread_local SeenSockets seen_sockets;

/// Newer kernels (6.2) tell the number of descriptors as the size of the folder; older ones give 0.
int told_count(const struct stat& folder) {
  return static_cast<int>(folder.st_size);
}

bool kernel_tells_descriptor_count() {
  static const bool tells = [] {
    const int own = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct stat status;
    const bool told = own >= 0 && fstat(own, &status) == 0 && told_count(status) > 0;
    if (own >= 0)
      close(own);
    return told;
  }();
  return tells;
}

int count_descriptors(const char* path) {
  if (kernel_tells_descriptor_count()) {
    struct stat status;
    return stat(path, &status) == 0 ? told_count(status) : 0;
  }
  procfs::NumberedEntries entries(path);
  int count = 0;
  for (int32_t fd; entries.next(&fd);)
    ++count;
  return count;
}

int list_descriptors(int pid, void* buffer, int buffersize) {
  const int entry_bytes = static_cast<int>(sizeof(struct proc_fdinfo));
  char path[32];
  snprintf(path, sizeof path, "/proc/%d/fd", pid);
  if (buffer == nullptr) {
    // A process without descriptors (a kernel thread, a zombie) is left at that: room for new ones
    // would only make the caller ask again for nothing.
    const int count = count_descriptors(path);
    return count == 0 ? 0 : (count + kRoomForNewDescriptors) * entry_bytes;
  }
  procfs::NumberedEntries entries(path);
  if (entries.fd() < 0)
    return 0;
  seen_sockets.start(pid);
  int written = 0;
  struct proc_fdinfo entry;
  while (buffersize - written >= entry_bytes && entries.next(&entry.proc_fd)) {
    char name[16];
    Descriptor descriptor;
    *std::to_chars(name, name + sizeof name - 1, entry.proc_fd).ptr = '\0';
    if (!look_at(entries.fd(), name, &descriptor))
      continue;  // closed since the folder was read
    if (descriptor.type == PROX_FDTYPE_SOCKET)
      seen_sockets.add(entry.proc_fd, descriptor.inode);
    entry.proc_fdtype = descriptor.type;
    memcpy(static_cast<char*>(buffer) + written, &entry, sizeof entry);
    written += entry_bytes;
  }
  return written;
}

/// The inode of a socket; 0 and errno when it is none or cannot be looked at.
uint64_t socket_inode(int pid, int fd) {
  uint64_t inode = 0;
  if (seen_sockets.find(pid, fd, &inode))
    return inode;
  char path[48];
  Descriptor descriptor;
  snprintf(path, sizeof path, "/proc/%d/fd/%d", pid, fd);
  if (!look_at(AT_FDCWD, path, &descriptor))
    return 0;
  if (descriptor.type != PROX_FDTYPE_SOCKET) {
    errno = ENOTSUP;
    return 0;
  }
  return descriptor.inode;
}

/// Reads /proc/PID/NAME whole.
template <size_t kSize>
bool read_file_of(int pid, const char* name, char (&text)[kSize]) {
  char path[32];
  snprintf(path, sizeof path, "/proc/%d/%s", pid, name);
  return procfs::read_text(path, text, kSize) > 0;
}

/// What /proc/PID/stat tells. The command name in it is enclosed in brackets and may itself contain
/// brackets and blanks, so its end is the last bracket of the file.
bool fill_from_stat(int pid, struct proc_taskallinfo* info) {
  char text[1024];
  if (!read_file_of(pid, "stat", text))
    return false;
  const char* name = strchr(text, '(');
  const char* name_end = strrchr(text, ')');
  if (name == nullptr || name_end == nullptr || name_end < name)
    return false;
  const size_t length = static_cast<size_t>(name_end - name - 1);
  memcpy(info->pbsd.pbi_comm, name + 1, std::min(length, sizeof info->pbsd.pbi_comm - 1));
  memcpy(info->pbsd.pbi_name, name + 1, std::min(length, sizeof info->pbsd.pbi_name - 1));

  unsigned ppid = 0, pgid = 0;
  int terminal_pgid = 0, priority = 0, nice = 0, threads = 0;
  uint64_t user_ticks = 0, system_ticks = 0, virtual_bytes = 0, resident_pages = 0;
  const int found = sscanf(name_end + 1,
                           " %*c %u %u %*d %*d %d %*u %*u %*u %*u %*u %" SCNu64 " %" SCNu64
                           " %*d %*d %d %d %d %*d %*u %" SCNu64 " %" SCNu64,
                           &ppid, &pgid, &terminal_pgid, &user_ticks, &system_ticks, &priority,
                           &nice, &threads, &virtual_bytes, &resident_pages);
  if (found != 10)
    return false;
  info->pbsd.pbi_pid = static_cast<uint32_t>(pid);
  info->pbsd.pbi_ppid = ppid;
  info->pbsd.pbi_pgid = pgid;
  info->pbsd.e_tpgid = static_cast<uint32_t>(terminal_pgid);
  info->pbsd.pbi_nice = nice;
  const uint64_t tick_ns = 1000000000u / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  info->ptinfo.pti_total_user = user_ticks * tick_ns;
  info->ptinfo.pti_total_system = system_ticks * tick_ns;
  info->ptinfo.pti_virtual_size = virtual_bytes;
  info->ptinfo.pti_resident_size = resident_pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  info->ptinfo.pti_threadnum = threads;
  info->ptinfo.pti_priority = priority;
  return true;
}

bool fill_ids_from_status(int pid, struct proc_taskallinfo* info) {
  char text[4096];
  if (!read_file_of(pid, "status", text))
    return false;
  const char* uids = strstr(text, "\nUid:");
  const char* gids = strstr(text, "\nGid:");
  struct proc_bsdinfo* bsd = &info->pbsd;
  return uids != nullptr && gids != nullptr &&
         sscanf(uids, "\nUid: %u %u %u", &bsd->pbi_ruid, &bsd->pbi_uid, &bsd->pbi_svuid) == 3 &&
         sscanf(gids, "\nGid: %u %u %u", &bsd->pbi_rgid, &bsd->pbi_gid, &bsd->pbi_svgid) == 3;
}

int task_information(int pid, void* buffer, int buffersize) {
  struct proc_taskallinfo info;
  if (buffer == nullptr || buffersize < static_cast<int>(sizeof info))
    return fail(ENOMEM);
  memset(&info, 0, sizeof info);
  if (!fill_from_stat(pid, &info) || !fill_ids_from_status(pid, &info))
    return fail(ESRCH);
  memcpy(buffer, &info, sizeof info);
  return static_cast<int>(sizeof info);
}

}  // namespace

int proc_listpids(uint32_t type, uint32_t, void* buffer, int buffersize) {
  if (type != PROC_ALL_PIDS)
    return fail(EINVAL);
  procfs::NumberedEntries entries("/proc");
  if (entries.fd() < 0)
    return 0;
  int32_t pid = 0;
  const int pid_bytes = static_cast<int>(sizeof pid);
  if (buffer == nullptr) {
    int count = 0;
    while (entries.next(&pid))
      ++count;
    return (count + kRoomForNewPids) * pid_bytes;
  }
  // Darwin lists the newest process first; here that is roughly the highest pid. So where the
  // buffer is too short, it is the long-lived kernel threads that are left out. The buffer serves
  // as a heap with its lowest pid at the front.
  int32_t* const begin = static_cast<int32_t*>(buffer);
  int32_t* end = begin;
  const int room = buffersize / pid_bytes;
  while (room > 0 && entries.next(&pid)) {
    if (end - begin == room) {
      if (pid < *begin)
        continue;
      std::pop_heap(begin, end, std::greater<int32_t>());
      --end;
    }
    *end++ = pid;
    std::push_heap(begin, end, std::greater<int32_t>());
  }
  std::sort_heap(begin, end, std::greater<int32_t>());
  return static_cast<int>(end - begin) * pid_bytes;
}

int proc_pidinfo(int pid, int flavor, uint64_t, void* buffer, int buffersize) {
  if (pid < 1)
    return fail(ESRCH);
  switch (flavor) {
    case PROC_PIDLISTFDS:
      return list_descriptors(pid, buffer, buffersize);
    case PROC_PIDTASKALLINFO:
      return task_information(pid, buffer, buffersize);
    default:
      return fail(EINVAL);
  }
}

int proc_pidfdinfo(int pid, int fd, int flavor, void* buffer, int buffersize) {
  if (flavor != PROC_PIDFDSOCKETINFO)
    return fail(EINVAL);
  struct socket_fdinfo info;
  if (buffer == nullptr || buffersize < static_cast<int>(sizeof info))
    return fail(ENOMEM);
  if (pid < 1)
    return fail(ESRCH);
  const uint64_t inode = socket_inode(pid, fd);
  if (inode == 0)
    return 0;
  memset(&info, 0, sizeof info);
  info.psi.soi_stat.vst_ino = inode;
  info.psi.soi_so = inode;
  info.psi.soi_pcb = inode;
  info.psi.soi_kind = SOCKINFO_GENERIC;
  memcpy(buffer, &info, sizeof info);
  return static_cast<int>(sizeof info);
}
