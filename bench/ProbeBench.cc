// One query of the socket probe beside what a user would run for the same answer.
//
// For 1,000 and 10,000 TCP sockets, shared out to 500 processes: the whole query of detectUser for
// the process that is listed first, in the middle and last; a bare look at every descriptor of
// every process as the floor of the last; `ss -tnp` and `lsof -nP -i` as whole processes, their
// output thrown away. Run as root, else the tools and the probe see only processes of one's own.
//
// And one reading of the host's figures, SystemStats::getStats, beside `df`, which gives a part of
// them.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Bench.h"
#include "SystemStats.h"
#include "UserDetect.h"

// The host's headers.
#include "Conn.h"
#include "IPAddr.h"
#include "Val.h"

#include "standin/Scripts.h"

namespace {

using bench::give_up;

constexpr int kProcesses = 500;

/// One of the two ends of a connection within a process.
struct Endpoints {
  std::uint32_t port_a;  ///< network byte order
  std::uint32_t port_b;
};

sockaddr_in loopback() {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

std::uint16_t local_port(int fd) {
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    give_up("getsockname");
  return address.sin_port;
}

/// Opens `sockets` / 2 connections with both ends here and gives the last one. They stay open.
Endpoints open_connections(int sockets) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback();
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 16) != 0)
    give_up("listen");
  address.sin_port = local_port(listener);
  Endpoints last = {};
  for (int i = 0; i < sockets / 2; ++i) {
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    if (client < 0 || connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        accept(listener, nullptr, nullptr) < 0)
      give_up("connect");
    last = {local_port(client), address.sin_port};
  }
  return last;
}

/// Processes that hold sockets until this object or this process goes.
class Crowd {
 public:
  Crowd(int processes, int sockets) {
    for (int i = 0; i < processes; ++i)
      start(sockets / processes);
  }

  ~Crowd() {
    for (const pid_t pid : pids_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }

  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  /// A connection of each process, in the order in which they were started.
  const std::vector<Endpoints>& connections() const { return connections_; }

 private:
  void start(int sockets) {
    int report[2];
    if (pipe(report) != 0)
      give_up("pipe");
    const pid_t pid = fork();
    if (pid < 0)
      give_up("fork");
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const Endpoints last = open_connections(sockets);
      if (write(report[1], &last, sizeof last) != static_cast<ssize_t>(sizeof last))
        _exit(1);
      close(report[0]);
      close(report[1]);
      for (;;)
        pause();
    }
    Endpoints last;
    close(report[1]);
    if (read(report[0], &last, sizeof last) != static_cast<ssize_t>(sizeof last))
      give_up("a process of the crowd");
    close(report[0]);
    pids_.push_back(pid);
    connections_.push_back(last);
  }

  std::vector<pid_t> pids_;
  std::vector<Endpoints> connections_;
};

/// The whole query, as a script makes it. Ends the program when nobody is found: then there is
/// nothing to measure.
void query(const Endpoints& endpoints) {
  ConnID id;
  id.src_addr = IPAddr("127.0.0.1");
  id.dst_addr = IPAddr("127.0.0.1");
  id.src_port = endpoints.port_a;
  id.dst_port = endpoints.port_b;
  id.is_one_way = false;
  Connection* conn = new Connection(nullptr, nullptr, 1.0, &id, 0, 0, 0, nullptr);
  const VectorVal* names = UserDetect::detectUser(conn);
  const bool found = names->Lookup(0u)->AsString()->Len() > 0;
  Unref(const_cast<VectorVal*>(names));
  Unref(conn);
  if (!found)
    give_up("the owner of a socket was not found");
}

/// What nobody can do without who wants to know where all descriptors lead: each process's list,
/// and each link read. Nothing is made of what they say.
void look_at_all_descriptors() {
  std::size_t links = 0;
  DIR* const processes = opendir("/proc");
  if (!processes)
    give_up("/proc");
  while (const dirent* process = readdir(processes)) {
    if (process->d_name[0] < '0' || process->d_name[0] > '9')
      continue;
    const int folder =
        openat(dirfd(processes), (std::string(process->d_name) + "/fd").c_str(), O_DIRECTORY);
    DIR* const descriptors = folder < 0 ? nullptr : fdopendir(folder);
    if (!descriptors)
      continue;
    char link[64];
    while (const dirent* descriptor = readdir(descriptors))
      if (descriptor->d_name[0] != '.')
        links += readlinkat(folder, descriptor->d_name, link, sizeof link) > 0;
    closedir(descriptors);
  }
  closedir(processes);
  if (links == 0)
    give_up("/proc/PID/fd");
}

/// The only crowd that there is, with so many sockets. To change their number takes long: bench/run
/// starts the program once for each.
const std::vector<Endpoints>& crowd(int sockets) {
  static int present = 0;
  static std::unique_ptr<Crowd> crowd;
  if (sockets != present) {
    crowd.reset();
    crowd = std::make_unique<Crowd>(kProcesses, sockets);
    present = sockets;
  }
  return crowd->connections();
}

void add(int sockets, const std::string& owner, const std::string& side,
         const std::function<void(const std::vector<Endpoints>&)>& work) {
  const std::string of =
      std::to_string(sockets) + " sockets, " + std::to_string(kProcesses) + " processes" + owner;
  bench::add("UserDetect query", of, side,
             [=](bench::State& state) {
               const std::vector<Endpoints>& connections = crowd(sockets);
               for (auto _ : state)
                 work(connections);
             })
      ->Iterations(1)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
}

void add_reading(const std::string& side, int calls, const std::function<void()>& work) {
  bench::add("SystemStats reading", "", side,
             [work](bench::State& state) {
               for (auto _ : state)
                 work();
             })
      ->Iterations(calls)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
}

void add_all(bool) {
  standin::load_script(ZMQWRITER_SCRIPTS "/__preload__.bro");
  add_reading("ours", 1000, [] { Unref(SystemStats::getStats()); });
  if (bench::run({"df"}))  // and is in the system's cache from now on
    add_reading("df", 1, [] { bench::run({"df"}); });
  bench::allow_many_descriptors();
  for (const int sockets : {1000, 10000}) {
    // The newest process is listed first.
    add(sockets, ", owner first", "ours", [](const auto& all) { query(all.back()); });
    add(sockets, ", owner in the middle", "ours",
        [](const auto& all) { query(all[all.size() / 2]); });
    add(sockets, ", owner last", "ours", [](const auto& all) { query(all.front()); });
    add(sockets, ", owner last", "every descriptor looked at",
        [](const auto&) { look_at_all_descriptors(); });
    for (const auto& tool :
         std::vector<std::vector<std::string>>{{"ss", "-tnp"}, {"lsof", "-nP", "-i"}})
      if (bench::run(tool))
        add(sockets, "", tool.front(), [=](const auto&) { bench::run(tool); });
  }
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, add_all);
}
