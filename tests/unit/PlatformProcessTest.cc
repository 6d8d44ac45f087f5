// Darwin's process calls on Linux, held against what this process knows of itself.

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libproc.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "TempDir.h"

namespace {

/// Runs `ask` in a child that has nothing but its own threads; true when it returned true.
bool holds_in_child(const std::function<bool()>& ask) {
  const pid_t pid = fork();
  if (pid == 0)
    _exit(ask() ? 0 : 1);
  int status = -1;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class PlatformProcessTest : public testing::Test {
 protected:
  ~PlatformProcessTest() override {
    for (const int fd : open_)
      close(fd);
  }

  int keep(int fd) {
    EXPECT_GE(fd, 0);
    open_.push_back(fd);
    return fd;
  }

  static std::vector<std::int32_t> list_pids(std::size_t room) {
    std::vector<std::int32_t> pids(room);
    const int bytes = proc_listpids(PROC_ALL_PIDS, 0, pids.data(), static_cast<int>(room * 4));
    EXPECT_EQ(bytes % 4, 0);
    pids.resize(static_cast<std::size_t>(bytes) / 4);
    return pids;
  }

  /// The descriptors of a process: number to type.
  static std::map<int, std::uint32_t> list_descriptors(int pid) {
    const int told = proc_pidinfo(pid, PROC_PIDLISTFDS, 0, nullptr, 0);
    std::vector<proc_fdinfo> entries(static_cast<std::size_t>(told) / sizeof(proc_fdinfo));
    const int bytes = proc_pidinfo(pid, PROC_PIDLISTFDS, 0, entries.data(), told);
    EXPECT_LE(bytes, told);
    entries.resize(static_cast<std::size_t>(bytes) / sizeof(proc_fdinfo));
    std::map<int, std::uint32_t> types;
    for (const proc_fdinfo& entry : entries)
      types[entry.proc_fd] = entry.proc_fdtype;
    return types;
  }

  /// The handle that a socket's information gives; 0 when it gives none.
  static std::uint64_t handle(int pid, int fd) {
    socket_fdinfo info;
    const int bytes = proc_pidfdinfo(pid, fd, PROC_PIDFDSOCKETINFO, &info, sizeof info);
    EXPECT_TRUE(bytes == 0 || bytes == 792);
    return bytes == 0 ? 0 : info.psi.soi_pcb;
  }

  static std::uint64_t inode(int fd) {
    struct stat status;
    EXPECT_EQ(fstat(fd, &status), 0);
    return status.st_ino;
  }

  std::vector<int> open_;
};

TEST_F(PlatformProcessTest, PidsAreListedHighestFirst) {
  const std::vector<std::int32_t> pids = list_pids(100000);
  EXPECT_THAT(pids, testing::IsSupersetOf({getpid(), getppid()}));
  EXPECT_TRUE(std::is_sorted(pids.rbegin(), pids.rend()));
  EXPECT_EQ(std::adjacent_find(pids.begin(), pids.end()), pids.end());
}

TEST_F(PlatformProcessTest, ShortBufferGetsTheHighestPids) {
  // Processes come and go meanwhile, so the list is taken before and after.
  EXPECT_TRUE(test::wait_until([] {
    const std::vector<std::int32_t> before = list_pids(100000);
    const std::vector<std::int32_t> two = list_pids(2);
    const std::vector<std::int32_t> after = list_pids(100000);
    return before == after && two == std::vector<std::int32_t>(before.begin(), before.begin() + 2);
  }));
}

TEST_F(PlatformProcessTest, NothingIsWrittenBehindTheBuffer) {
  const auto list_pids = [](void* buffer, int room) {
    return proc_listpids(PROC_ALL_PIDS, 0, buffer, room);
  };
  const auto list_descriptors = [](void* buffer, int room) {
    return proc_pidinfo(getpid(), PROC_PIDLISTFDS, 0, buffer, room);
  };
  for (const auto& [list, entry] :
       std::map<int (*)(void*, int), int>{{list_pids, 4}, {list_descriptors, 8}}) {
    std::string buffer(32, '\x5a');
    EXPECT_EQ(list(buffer.data(), entry - 1), 0);
    EXPECT_EQ(list(buffer.data(), 2 * entry - 1), entry);
    EXPECT_EQ(buffer.find_first_not_of('\x5a', static_cast<std::size_t>(entry)), std::string::npos);
    EXPECT_NE(buffer.find_first_not_of('\x5a'), std::string::npos);
  }
}

TEST_F(PlatformProcessTest, SocketsAreToldFromOtherDescriptors) {
  const test::TempDir folder;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  keep(ends[1]);
  const int others[] = {keep(ends[0]), keep(epoll_create1(0)),
                        keep(open(folder.file("socket:[1]").c_str(), O_CREAT | O_RDWR, 0600))};
  const int sockets[] = {keep(socket(AF_INET, SOCK_STREAM, 0)),
                         keep(socket(AF_UNIX, SOCK_DGRAM, 0))};
  std::map<int, std::uint32_t> types = list_descriptors(getpid());
  for (const int fd : sockets)
    EXPECT_EQ(types[fd], 2u);
  for (const int fd : others) {
    ASSERT_EQ(types.count(fd), 1u);
    EXPECT_NE(types[fd], 2u);
  }
}

TEST_F(PlatformProcessTest, HandleOfASocketIsItsInode) {
  const int fd = keep(socket(AF_INET, SOCK_STREAM, 0));
  EXPECT_EQ(handle(getpid(), fd), inode(fd));
  list_descriptors(getpid());
  EXPECT_EQ(handle(getpid(), fd), inode(fd));
}

TEST_F(PlatformProcessTest, WhatAListingSawIsForgottenAfterAMoment) {
  const int fd = keep(socket(AF_INET, SOCK_STREAM, 0));
  list_descriptors(getpid());
  ASSERT_EQ(dup2(0, fd), fd);
  EXPECT_TRUE(test::wait_until([&] { return handle(getpid(), fd) == 0; }));
}

TEST_F(PlatformProcessTest, OnlySocketsHaveSocketInformation) {
  const int fd = keep(dup(0));
  EXPECT_EQ(handle(getpid(), fd), 0u);
  EXPECT_EQ(errno, ENOTSUP);
  EXPECT_EQ(handle(getpid(), 99999), 0u);
  EXPECT_EQ(handle(getpid(), -1), 0u);
}

TEST_F(PlatformProcessTest, NameWithBracketsAndBlanksIsWhole) {
  for (const char* name : {"a) R 1 (b", ") (", "(", "fifteen-letters", ""}) {
    EXPECT_TRUE(holds_in_child([&] {
      proc_taskallinfo info;
      prctl(PR_SET_NAME, name);
      return proc_pidinfo(getpid(), PROC_PIDTASKALLINFO, 1, &info, sizeof info) == 232 &&
             std::strcmp(info.pbsd.pbi_comm, name) == 0 &&
             info.pbsd.pbi_ppid == static_cast<std::uint32_t>(getppid());
    })) << name;
  }
}

TEST_F(PlatformProcessTest, UserIdIsTheEffectiveOne) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can change its user id";
  EXPECT_TRUE(holds_in_child([] {
    proc_taskallinfo info;
    return setresuid(11, 22, 33) == 0 &&
           proc_pidinfo(getpid(), PROC_PIDTASKALLINFO, 1, &info, sizeof info) == 232 &&
           info.pbsd.pbi_ruid == 11 && info.pbsd.pbi_uid == 22 && info.pbsd.pbi_svuid == 33;
  }));
}

TEST_F(PlatformProcessTest, EndedProcessHasNothing) {
  const pid_t pid = fork();
  if (pid == 0)
    _exit(0);
  ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
  char buffer[800];
  EXPECT_EQ(proc_pidinfo(pid, PROC_PIDLISTFDS, 0, nullptr, 0), 0);
  EXPECT_EQ(proc_pidinfo(pid, PROC_PIDLISTFDS, 0, buffer, sizeof buffer), 0);
  EXPECT_EQ(proc_pidinfo(pid, PROC_PIDTASKALLINFO, 1, buffer, sizeof buffer), 0);
  EXPECT_EQ(proc_pidfdinfo(pid, 0, PROC_PIDFDSOCKETINFO, buffer, 792), 0);
}
}  // namespace
