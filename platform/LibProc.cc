#include <errno.h>
#include <fcntl.h>
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
#include <vector>

#include "ProcFile.h"

namespace {

/// Spare entries that are added when a caller asks for the size of a list.
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

/// Reads the target of a link in /proc/PID/fd, e.g. "socket:[4711]". The file itself is never
/// opened: its file system may not answer.
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

/// Reads the link `name` in the folder /proc/PID/fd. False if it is gone or may not be read.
bool read_link(int folder, const char* name, Descriptor* descriptor) {
  char link[32];
  const ssize_t length = readlinkat(folder, name, link, sizeof link - 1);
  if (length < 0)
    return false;
  link[length] = '\0';
  *descriptor = describe(link);
  return true;
}

/// The descriptors of the process that this thread read last. Reading the links is most of the cost
/// of a query. A caller asks for the size of the list, then for the list, then for each socket, so
/// one reading answers all three. It is valid for 20 ms.
class Listing {
 public:
  /// Reads every descriptor of a process. Empty if that is not possible.
  void read(int pid) {
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/fd", pid);
    entries_.clear();
    next_ = 0;
    pid_ = pid;
    until_ms_ = now_ms() + kGoodForMs;
    procfs::NumberedEntries folder(path);
    int32_t fd;
    while (folder.next(&fd)) {
      char name[16];
      Descriptor descriptor;
      *std::to_chars(name, name + sizeof name - 1, fd).ptr = '\0';
      if (read_link(folder.fd(), name, &descriptor))  // else it was closed meanwhile
        entries_.push_back({fd, descriptor});
    }
  }

  bool is_of(int pid) const { return pid == pid_ && now_ms() <= until_ms_; }

  int count() const { return static_cast<int>(entries_.size()); }

  /// Copies at most `most` descriptors into the buffer; returns their number.
  int copy(char* buffer, int most) const {
    const int copied = std::min(most, count());
    for (int i = 0; i < copied; ++i) {
      const Entry& entry = entries_[static_cast<size_t>(i)];
      const struct proc_fdinfo info = {entry.fd, entry.descriptor.type};
      memcpy(buffer + static_cast<size_t>(i) * sizeof info, &info, sizeof info);
    }
    return copied;
  }

  /// Null if the process had no such descriptor. Callers ask in the order of the list, so the
  /// search begins where the last one ended.
  const Descriptor* find(int32_t fd) {
    for (size_t tried = 0; tried < entries_.size(); ++tried) {
      const Entry& entry = entries_[next_];
      next_ = (next_ + 1) % entries_.size();
      if (entry.fd == fd)
        return &entry.descriptor;
    }
    return nullptr;
  }

 private:
  static constexpr int64_t kGoodForMs = 20;

  struct Entry {
    int32_t fd;
    Descriptor descriptor;
  };

  static int64_t now_ms() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
  }

  int pid_ = 0;
  int64_t until_ms_ = 0;
  std::vector<Entry> entries_;
  size_t next_ = 0;
};

thread_local Listing listing;
/// Whether the listing was made for the size of the list, and the list was not asked for yet.
thread_local bool listing_is_for_fetch = false;

int list_descriptors(int pid, void* buffer, int buffersize) {
  const int entry_bytes = static_cast<int>(sizeof(struct proc_fdinfo));
  const bool sizing = buffer == nullptr;
  if (sizing || !listing_is_for_fetch || !listing.is_of(pid))
    listing.read(pid);
  listing_is_for_fetch = sizing;
  if (!sizing)
    return listing.copy(static_cast<char*>(buffer), buffersize / entry_bytes) * entry_bytes;
  // No spare room for a process without descriptors (a kernel thread, a zombie): the caller would
  // ask again for nothing.
  return listing.count() == 0 ? 0 : (listing.count() + kRoomForNewDescriptors) * entry_bytes;
}

/// The inode of a socket. 0 and errno if the descriptor is no socket or cannot be read.
uint64_t socket_inode(int pid, int fd) {
  Descriptor descriptor;
  const Descriptor* seen = listing.is_of(pid) ? listing.find(fd) : nullptr;
  // A descriptor that was no socket may be one by now.
  if (seen != nullptr && seen->type == PROX_FDTYPE_SOCKET) {
    descriptor = *seen;
  } else {
    char path[48];
    snprintf(path, sizeof path, "/proc/%d/fd/%d", pid, fd);
    if (!read_link(AT_FDCWD, path, &descriptor))
      return 0;
  }
  if (descriptor.type != PROX_FDTYPE_SOCKET) {
    errno = ENOTSUP;
    return 0;
  }
  return descriptor.inode;
}

/// Reads the whole of /proc/PID/NAME.
template <size_t kSize>
bool read_file_of(int pid, const char* name, char (&text)[kSize]) {
  char path[32];
  snprintf(path, sizeof path, "/proc/%d/%s", pid, name);
  return procfs::read_text(path, text, kSize) > 0;
}

/// Takes the name and the parent from /proc/PID/stat. The name stands in brackets and may itself
/// contain brackets and blanks, so its end is the last bracket of the file.
bool fill_from_stat(int pid, struct proc_bsdinfo* info) {
  char text[1024];
  if (!read_file_of(pid, "stat", text))
    return false;
  const char* name = strchr(text, '(');
  const char* name_end = strrchr(text, ')');
  if (name == nullptr || name_end == nullptr || name_end < name)
    return false;
  const size_t length = static_cast<size_t>(name_end - name - 1);
  memcpy(info->pbi_comm, name + 1, std::min(length, sizeof info->pbi_comm - 1));
  memcpy(info->pbi_name, name + 1, std::min(length, sizeof info->pbi_name - 1));
  info->pbi_pid = static_cast<uint32_t>(pid);
  return sscanf(name_end + 1, " %*c %u", &info->pbi_ppid) == 1;
}

bool fill_ids_from_status(int pid, struct proc_bsdinfo* bsd) {
  char text[4096];
  if (!read_file_of(pid, "status", text))
    return false;
  const char* uids = strstr(text, "\nUid:");
  const char* gids = strstr(text, "\nGid:");
  return uids != nullptr && gids != nullptr &&
         sscanf(uids, "\nUid: %u %u %u", &bsd->pbi_ruid, &bsd->pbi_uid, &bsd->pbi_svuid) == 3 &&
         sscanf(gids, "\nGid: %u %u %u", &bsd->pbi_rgid, &bsd->pbi_gid, &bsd->pbi_svgid) == 3;
}

int task_information(int pid, void* buffer, int buffersize) {
  struct proc_taskallinfo info;
  if (buffer == nullptr || buffersize < static_cast<int>(sizeof info))
    return fail(ENOMEM);
  memset(&info, 0, sizeof info);
  if (!fill_from_stat(pid, &info.pbsd) || !fill_ids_from_status(pid, &info.pbsd))
    return fail(ESRCH);
  memcpy(buffer, &info, sizeof info);
  return static_cast<int>(sizeof info);
}

}  // namespace

int proc_listpids(uint32_t type, uint32_t, void* buffer, int buffersize) {
  if (type != PROC_ALL_PIDS)
    return fail(EINVAL);
  const int pid_bytes = static_cast<int>(sizeof(int32_t));
  if (buffer == nullptr) {
    // The link count of /proc is the kernel's count of processes. It costs far less than a listing.
    struct stat status;
    return stat("/proc", &status) != 0
               ? 0
               : (static_cast<int>(status.st_nlink) + kRoomForNewPids) * pid_bytes;
  }
  procfs::NumberedEntries entries("/proc");
  if (entries.fd() < 0)
    return 0;
  int32_t pid = 0;
  // Darwin lists the newest process first; here that is roughly the highest pid. A short buffer
  // leaves out the lowest pids, which are the kernel's threads. The buffer is a heap with the
  // lowest pid at the front.
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
  info.psi.soi_so = inode;
  info.psi.soi_pcb = inode;
  memcpy(buffer, &info, sizeof info);
  return static_cast<int>(sizeof info);
}
