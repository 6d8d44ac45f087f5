#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <libproc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

/// The target of a descriptor's link when it is a socket: "socket:[inode]".
bool parse_socket_link(const char* target, uint64_t* inode) {
  static const char kPrefix[] = "socket:[";
  if (strncmp(target, kPrefix, sizeof kPrefix - 1) != 0)
    return false;
  *inode = strtoull(target + sizeof kPrefix - 1, nullptr, 10);
  return true;
}

/// Reads a link; the text is cut to the buffer and ended with NUL.
bool read_link(int folder, const char* name, char* target, size_t size) {
  const ssize_t length = readlinkat(folder, name, target, size - 1);
  if (length < 0)
    return false;
  target[length] = '\0';
  return true;
}

uint32_t descriptor_type(const char* target) {
  uint64_t inode = 0;
  if (parse_socket_link(target, &inode))
    return PROX_FDTYPE_SOCKET;
  if (strncmp(target, "pipe:", 5) == 0)
    return PROX_FDTYPE_PIPE;
  if (strncmp(target, "anon_inode:[eventpoll]", 22) == 0)
    return PROX_FDTYPE_KQUEUE;
  return PROX_FDTYPE_VNODE;
}

/// Newer kernels (6.2) tell the number of descriptors as the size of the folder.
off_t told_size(int folder) {
  struct stat status;
  return fstat(folder, &status) == 0 ? status.st_size : 0;
}

bool kernel_tells_descriptor_count() {
  static const bool tells = [] {
    procfs::NumberedEntries own("/proc/self/fd");
    return own.fd() >= 0 && told_size(own.fd()) > 0;
  }();
  return tells;
}

int count_descriptors(procfs::NumberedEntries* entries) {
  if (kernel_tells_descriptor_count())
    return static_cast<int>(told_size(entries->fd()));
  int count = 0;
  for (int32_t fd; entries->next(&fd);)
    ++count;
  return count;
}

int list_descriptors(int pid, void* buffer, int buffersize) {
  char path[32];
  snprintf(path, sizeof path, "/proc/%d/fd", pid);
  procfs::NumberedEntries entries(path);
  if (entries.fd() < 0)
    return 0;
  const int entry_bytes = static_cast<int>(sizeof(struct proc_fdinfo));
  if (buffer == nullptr) {
    // A process without descriptors (a kernel thread, a zombie) is left at that: room for new ones
    // would only make the caller ask again for nothing.
    const int count = count_descriptors(&entries);
    return count == 0 ? 0 : (count + kRoomForNewDescriptors) * entry_bytes;
  }
  int written = 0;
  struct proc_fdinfo info;
  while (buffersize - written >= entry_bytes && entries.next(&info.proc_fd)) {
    char name[16];
    char target[32];
    snprintf(name, sizeof name, "%d", info.proc_fd);
    if (!read_link(entries.fd(), name, target, sizeof target))
      continue;  // closed since the folder was read
    info.proc_fdtype = descriptor_type(target);
    memcpy(static_cast<char*>(buffer) + written, &info, sizeof info);
    written += entry_bytes;
  }
  return written;
}

/// What /proc/PID/stat tells. The command name in it is enclosed in brackets and may itself contain
/// brackets and blanks, so its end is the last bracket of the file.
bool fill_from_stat(int pid, struct proc_taskallinfo* info) {
  char path[32];
  char text[1024];
  snprintf(path, sizeof path, "/proc/%d/stat", pid);
  if (procfs::read_text(path, text, sizeof text) <= 0)
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
  char path[32];
  char text[4096];
  snprintf(path, sizeof path, "/proc/%d/status", pid);
  if (procfs::read_text(path, text, sizeof text) <= 0)
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
  char path[48];
  char target[32];
  uint64_t inode = 0;
  snprintf(path, sizeof path, "/proc/%d/fd/%d", pid, fd);
  if (!read_link(AT_FDCWD, path, target, sizeof target))
    return 0;
  if (!parse_socket_link(target, &inode))
    return fail(ENOTSUP);
  memset(&info, 0, sizeof info);
  info.psi.soi_stat.vst_ino = inode;
  info.psi.soi_so = inode;
  info.psi.soi_pcb = inode;
  info.psi.soi_kind = SOCKINFO_GENERIC;
  memcpy(buffer, &info, sizeof info);
  return static_cast<int>(sizeof info);
}
