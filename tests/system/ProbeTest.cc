// The probes on this machine: real processes, sockets and users, and on Linux figures that /proc
// and other programs tell too.

#include <gtest/gtest.h>
#include <pwd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "SystemStats.h"
#include "TempDir.h"
#include "UserDetect.h"

// The host's headers.
#include "LoopbackPair.h"
#include "Val.h"
#include "standin/Scripts.h"

namespace {

using Names = std::pair<std::string, std::string>;

#ifdef __linux__
constexpr char kHolderName[] = "probe-holder";
#else
constexpr char kHolderName[] = "ProbeTest";
#endif

/// A process with both ends of a TCP connection, of another user if one is given.
class Holder {
 public:
  explicit Holder(int family = AF_INET, std::optional<uid_t> user_id = std::nullopt) {
    int to[2], from[2], ports[2] = {};
    EXPECT_EQ(pipe(to) + pipe(from), 0);
    pid_ = fork();
    if (pid_ == 0) {
      close(to[1]);
      close(from[0]);
      Hold(family, user_id, to[0], from[1]);
    }
    close(to[0]);
    close(from[1]);
    input_ = to[1];
    output_ = from[0];
    EXPECT_EQ(read(output_, ports, sizeof ports), static_cast<ssize_t>(sizeof ports));
    client_port = ports[0];
    server_port = ports[1];
    EXPECT_NE(server_port, 0) << "the process that holds the sockets did not start";
  }

  ~Holder() {
    close(input_);
    close(output_);
    waitpid(pid_, nullptr, 0);
  }

  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  void close_sockets() {
    char answer = 0;
    EXPECT_EQ(write(input_, &answer, 1), 1);
    EXPECT_EQ(read(output_, &answer, 1), 1);
  }

  pid_t pid() const { return pid_; }

  int client_port = 0;
  int server_port = 0;

 private:
  /// Until the input ends. A byte of input closes the sockets, and is sent back.
  [[noreturn]] static void Hold(int family, std::optional<uid_t> user_id, int input, int output) {
#ifdef __linux__
    prctl(PR_SET_NAME, kHolderName);
#endif
    if (user_id && (setgid(*user_id) != 0 || setuid(*user_id) != 0))
      _exit(1);
    char command;
    {
      const LoopbackPair pair(family);
      const int ports[] = {pair.client_port(), pair.server_port()};
      if (write(output, ports, sizeof ports) < 0 || read(input, &command, 1) <= 0)
        _exit(0);
    }
    if (write(output, &command, 1) == 1)
      while (read(input, &command, 1) > 0) {
      }
    _exit(0);
  }

  pid_t pid_ = 0;
  int input_ = -1;
  int output_ = -1;
};

std::string text(const Val* value) {
  const BroString* string = value->AsString();
  return std::string(reinterpret_cast<const char*>(string->Bytes()),
                     static_cast<std::size_t>(string->Len()));
}

/// What a script gets for a connection between two local ports.
Names detect(const char* address, int orig_port, int resp_port) {
  Connection* conn = connection_between(address, orig_port, resp_port);
  VectorVal* vector = UserDetect::detectUser(conn);
  const VectorVal& content = *vector;
  EXPECT_EQ(content.Size(), 2u);
  const Names names(text(content.Lookup(0u)), text(content.Lookup(1u)));
  Unref(vector);
  Unref(conn);
  return names;
}

void expect_in_both_directions(const Holder& holder, const Names& names) {
  EXPECT_EQ(detect("127.0.0.1", holder.client_port, holder.server_port), names);
  EXPECT_EQ(detect("127.0.0.1", holder.server_port, holder.client_port), names);
}

bool is_root() {
  return geteuid() == 0;
}

/// An ordinary user of this machine.
const passwd* ordinary_user() {
  return getpwnam("nobody");
}

TEST(ProbeTest, ProcessOfAnotherUserIsNamedInBothDirections) {
  if (!is_root())
    GTEST_SKIP() << "only root sees other users' processes";
  const passwd* user = ordinary_user();
  ASSERT_NE(user, nullptr);
  const std::string name = user->pw_name;
  const Holder holder(AF_INET, user->pw_uid);
  expect_in_both_directions(holder, Names(kHolderName, name));
}

TEST(ProbeTest, OwnProcessIsNamedInBothDirections) {
  const Holder holder;
  const std::string user = is_root() ? "" : getpwuid(geteuid())->pw_name;
  expect_in_both_directions(holder, Names(kHolderName, user));
}

TEST(ProbeTest, RootAndUserWithoutPasswordEntryHaveANameAndNoUser) {
  if (!is_root())
    GTEST_SKIP() << "only root can start it";
  uid_t unknown = 64321;
  while (getpwuid(unknown))
    ++unknown;
  for (const uid_t user_id : {uid_t{0}, unknown}) {
    const Holder holder(AF_INET, user_id);
    expect_in_both_directions(holder, Names(kHolderName, ""));
  }
}

TEST(ProbeTest, ClosedConnectionHasNoOwner) {
  Holder holder;
  holder.close_sockets();
  expect_in_both_directions(holder, Names("", ""));
}

TEST(ProbeTest, EndedProcessOwnsNothing) {
  int client_port = 0, server_port = 0;
  {
    const Holder holder;
    client_port = holder.client_port;
    server_port = holder.server_port;
  }
  EXPECT_EQ(detect("127.0.0.1", client_port, server_port), Names("", ""));
}

TEST(ProbeTest, ConnectionOverIPv6HasNoOwner) {
  if (LoopbackPair(AF_INET6).server_port() == 0)
    GTEST_SKIP() << "no IPv6 here";
  const Holder holder(AF_INET6);
  EXPECT_EQ(detect("::1", holder.client_port, holder.server_port), Names("", ""));
  EXPECT_EQ(detect("127.0.0.1", holder.client_port, holder.server_port), Names("", ""));
}

TEST(ProbeTest, OrdinaryUserDoesNotSeeOwnersOfOtherUsersSockets) {
  if (!is_root())
    GTEST_SKIP() << "only root can start it";
  const Holder holder(AF_INET, 0);
  const passwd* user = ordinary_user();
  ASSERT_NE(user, nullptr);
  const uid_t uid = user->pw_uid;
  const pid_t pid = fork();
  if (pid == 0) {
    const bool became = setgid(uid) == 0 && setuid(uid) == 0;
    _exit(became && detect("127.0.0.1", holder.client_port, holder.server_port) == Names("", "")
              ? 0
              : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
}

TEST(ProbeTest, QueriesMayRunAtTheSameTime) {
  const Holder first, second;
  const std::uint32_t address = htonl(INADDR_LOOPBACK);
  const auto owner = [&](const Holder& holder) {
    return get_socket_pid(address, htons(static_cast<std::uint16_t>(holder.client_port)), address,
                          htons(static_cast<std::uint16_t>(holder.server_port)));
  };
  std::vector<std::thread> threads;
  std::atomic<int> right{0};
  for (const Holder* holder : {&first, &second, &first, &second}) {
    threads.emplace_back([&, holder] {
      for (int i = 0; i < 10; ++i)
        right += owner(*holder) == static_cast<std::uint32_t>(holder->pid());
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(right, 40);
}

class Scripts : public testing::Environment {
 public:
  void SetUp() override { standin::load_script(ZMQWRITER_SCRIPTS "/__preload__.bro"); }
};
const testing::Environment* const scripts = testing::AddGlobalTestEnvironment(new Scripts);

struct Stats {
  Stats() {
    RecordVal* record = SystemStats::getStats();
    cpu_usage = record->Lookup("cpu_usage")->AsDouble();
    priority = record->Lookup("priority")->AsInt();
    ph_mem_total = record->Lookup("ph_mem_total")->AsCount();
    ph_mem_used = record->Lookup("ph_mem_used")->AsCount();
    hdd_volume = record->Lookup("hdd_volume")->AsDouble();
    hdd_used = record->Lookup("hdd_used")->AsDouble();
    hdd_avail = record->Lookup("hdd_avail")->AsDouble();
    EXPECT_EQ(record->Lookup("virt_mem_total")->AsCount(), ph_mem_total);
    EXPECT_EQ(record->Lookup("virt_mem_used")->AsCount(), ph_mem_used);
    Unref(record);
  }

  double cpu_usage;
  std::int64_t priority;
  std::uint64_t ph_mem_total, ph_mem_used;
  double hdd_volume, hdd_used, hdd_avail;
};

TEST(ProbeTest, PriorityIsTheNiceValue) {
  const pid_t pid = fork();
  if (pid == 0) {
    const bool set = setpriority(PRIO_PROCESS, 0, 17) == 0;
    _exit(set && Stats().priority == 17 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
}

#ifdef __linux__

std::string output_of(const char* command) {
  std::string output;
  FILE* pipe = popen(command, "r");
  for (int c; pipe && (c = std::fgetc(pipe)) != EOF;)
    output += static_cast<char>(c);
  if (pipe)
    pclose(pipe);
  return output;
}

double told_by(const char* command) {
  return std::strtod(output_of(command).c_str(), nullptr);
}

/// The first number behind `name` in /proc/meminfo, in MiB.
double meminfo_mib(const char* name) {
  const std::string text = test::read_file("/proc/meminfo");
  const std::size_t at = text.find(name);
  EXPECT_NE(at, std::string::npos);
  return std::strtod(text.c_str() + at + std::strlen(name), nullptr) / 1024;
}

TEST(ProbeTest, LoadIsThatOfTheKernel) {
  // Between two equal readings the figure did not change.
  EXPECT_TRUE(test::wait_until([] {
    const double before = told_by("cat /proc/loadavg");
    const double sampled = Stats().cpu_usage;
    const double single = getCpuUsage();
    const double after = told_by("cat /proc/loadavg");
    return before == after && sampled == before && single == before;
  }));
}

TEST(ProbeTest, MemoryTotalIsThatOfGetconf) {
  const double bytes = told_by("getconf _PHYS_PAGES") * told_by("getconf PAGESIZE");
  EXPECT_EQ(static_cast<double>(Stats().ph_mem_total), std::floor(bytes / 1048576));
}

TEST(ProbeTest, MemoryUsedIsWhatIsNotFree) {
  // Other processes come and go: a moment is waited for in which two readings agree.
  EXPECT_TRUE(test::wait_until([] {
    const double before = meminfo_mib("MemTotal:") - meminfo_mib("MemFree:");
    const double used = static_cast<double>(Stats().ph_mem_used);
    const double after = meminfo_mib("MemTotal:") - meminfo_mib("MemFree:");
    return std::abs(before - after) <= 4 && std::abs(used - before) <= 6;
  }));
}

TEST(ProbeTest, DiskFiguresAreThoseOfDf) {
  struct Df {
    Df() {
      std::istringstream text(output_of("df -B1 --output=size,used . | tail -n 1"));
      text >> size >> used;
      size /= 1073741824.0;
      used /= 1073741824.0;
    }
    double size = 0, used = 0;
  };
  EXPECT_TRUE(test::wait_until([] {
    const Df before;
    const Stats stats;
    const Df after;
    const double slack = 0.01 + std::abs(before.used - after.used);
    return before.size > 0 && stats.hdd_volume == before.size &&
           std::abs(stats.hdd_used - before.used) <= slack &&
           std::abs(stats.hdd_volume - stats.hdd_used - stats.hdd_avail) < 1e-6;
  }));
}

TEST(ProbeTest, DiskFiguresAreThoseOfTheWorkingFolder) {
  // /proc has no blocks at all.
  const test::TempDir folder;
  ASSERT_EQ(chdir("/proc"), 0);
  const Stats stats;
  ASSERT_EQ(chdir(folder.path().c_str()), 0);
  EXPECT_EQ(stats.hdd_volume, 0.0);
  EXPECT_EQ(stats.hdd_avail, 0.0);
  EXPECT_GT(Stats().hdd_volume, 0.0);
}

#endif

}  // namespace
