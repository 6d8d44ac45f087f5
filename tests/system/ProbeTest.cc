// The probes on this machine: real processes, sockets and users, and on Linux figures that /proc
// and other programs tell too.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "SystemStats.h"
#include "TempDir.h"
#include "UserDetect.h"

// The host's headers.
#include "Conn.h"
#include "IPAddr.h"
#include "Val.h"
#include "standin/Scripts.h"

extern char** environ;

namespace {

using Names = std::pair<std::string, std::string>;

constexpr char kHolderName[] = "probe-holder";

/// A running probe-holder.
class Holder {
 public:
  explicit Holder(const char* family) { start({PROBE_HOLDER, family}); }
  Holder(const char* family, uid_t user_id) {
    start({PROBE_HOLDER, family, std::to_string(user_id)});
  }

  ~Holder() {
    std::fclose(input_);
    std::fclose(output_);
    waitpid(pid_, nullptr, 0);
  }

  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  void close_sockets() {
    char answer[16] = "";
    std::fputs("\n", input_);
    std::fflush(input_);
    EXPECT_EQ(std::fscanf(output_, "%15s", answer), 1);
    EXPECT_STREQ(answer, "closed");
  }

  pid_t pid() const { return pid_; }

  int client_port = 0;
  int server_port = 0;

 private:
  void start(const std::vector<std::string>& words) {
    std::vector<char*> arguments;
    for (const std::string& word : words)
      arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    int to[2], from[2];
    ASSERT_EQ(pipe(to), 0);
    ASSERT_EQ(pipe(from), 0);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, to[0], 0);
    posix_spawn_file_actions_adddup2(&files, from[1], 1);
    for (const int fd : {to[0], to[1], from[0], from[1]})
      posix_spawn_file_actions_addclose(&files, fd);
    ASSERT_EQ(posix_spawn(&pid_, arguments[0], &files, nullptr, arguments.data(), environ), 0);
    posix_spawn_file_actions_destroy(&files);
    close(to[0]);
    close(from[1]);
    input_ = fdopen(to[1], "w");
    output_ = fdopen(from[0], "r");
    ASSERT_EQ(std::fscanf(output_, "%d %d", &client_port, &server_port), 2)
        << "the process that holds the sockets did not start";
  }

  pid_t pid_ = 0;
  FILE* input_ = nullptr;
  FILE* output_ = nullptr;
};

std::string text(const Val* value) {
  const BroString* string = value->AsString();
  return std::string(reinterpret_cast<const char*>(string->Bytes()),
                     static_cast<std::size_t>(string->Len()));
}

/// What a script gets for a connection between two local ports.
Names detect(const char* address, int orig_port, int resp_port) {
  ConnID id;
  id.src_addr = IPAddr(address);
  id.dst_addr = IPAddr(address);
  id.src_port = htons(static_cast<std::uint16_t>(orig_port));
  id.dst_port = htons(static_cast<std::uint16_t>(resp_port));
  id.is_one_way = false;
  Connection* conn = new Connection(nullptr, nullptr, 1.0, &id, 0, 0, 0, nullptr);
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

bool has_ipv6() {
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const int fd = socket(AF_INET6, SOCK_STREAM, 0);
  const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return bound;
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
  const Holder holder("4", user->pw_uid);
  expect_in_both_directions(holder, Names(kHolderName, name));
}

TEST(ProbeTest, OwnProcessIsNamedInBothDirections) {
  const Holder holder("4");
  const std::string user = is_root() ? "" : getpwuid(geteuid())->pw_name;
  expect_in_both_directions(holder, Names(kHolderName, user));
}

TEST(ProbeTest, ProcessOfRootHasANameAndNoUser) {
  if (!is_root())
    GTEST_SKIP() << "only root can start it";
  const Holder holder("4", 0);
  expect_in_both_directions(holder, Names(kHolderName, ""));
}

TEST(ProbeTest, UserWithoutPasswordEntryIsEmpty) {
  if (!is_root())
    GTEST_SKIP() << "only root can start it";
  uid_t user_id = 64321;
  while (getpwuid(user_id))
    ++user_id;
  const Holder holder("4", user_id);
  expect_in_both_directions(holder, Names(kHolderName, ""));
}

TEST(ProbeTest, ClosedConnectionHasNoOwner) {
  Holder holder("4");
  holder.close_sockets();
  expect_in_both_directions(holder, Names("", ""));
}

TEST(ProbeTest, EndedProcessOwnsNothing) {
  int client_port = 0, server_port = 0;
  {
    const Holder holder("4");
    client_port = holder.client_port;
    server_port = holder.server_port;
  }
  EXPECT_EQ(detect("127.0.0.1", client_port, server_port), Names("", ""));
}

TEST(ProbeTest, ConnectionOverIPv6HasNoOwner) {
  if (!has_ipv6())
    GTEST_SKIP() << "no IPv6 here";
  const Holder holder("6");
  EXPECT_EQ(detect("::1", holder.client_port, holder.server_port), Names("", ""));
  EXPECT_EQ(detect("127.0.0.1", holder.client_port, holder.server_port), Names("", ""));
}

TEST(ProbeTest, OrdinaryUserDoesNotSeeOwnersOfOtherUsersSockets) {
  if (!is_root())
    GTEST_SKIP() << "only root can start it";
  const Holder holder("4", 0);
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
  const Holder first("4"), second("4");
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
