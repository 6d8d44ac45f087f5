// One query of the socket probe beside what a user would run for the same answer.
//
//     ProbeBench [--runs N] [--processes N] [--csv FILE] [--quick]
//
// For 1,000 and 10,000 TCP sockets, shared out to 500 processes: the whole query of detectUser for
// the process that is listed first, in the middle and last; a bare look at every descriptor of
// every process as the floor of the last; `ss -tnp` and `lsof -nP -i` as whole processes, their
// output thrown away. Medians, taking turns in one run. Run as root, else the tools and the probe
// see only processes of one's own. --quick: fewer runs, and 1,000 sockets only. The file of --csv
// is as BenchReport.h says.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Command.h"
#include "UserDetect.h"

// The host's headers.
#include "Conn.h"
#include "IPAddr.h"
#include "Val.h"

namespace {

/// One of the two ends of a connection within a process.
struct Endpoints {
  std::uint32_t port_a;  ///< network byte order
  std::uint32_t port_b;
};

[[noreturn]] void die(const char* what) {
  std::perror(what);
  std::exit(1);
}

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
    die("getsockname");
  return address.sin_port;
}

/// Opens `sockets` / 2 connections with both ends here and gives the last one. They stay open.
Endpoints open_connections(int sockets) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback();
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 16) != 0)
    die("listen");
  address.sin_port = local_port(listener);
  Endpoints last = {};
  for (int i = 0; i < sockets / 2; ++i) {
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    if (client < 0 || connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        accept(listener, nullptr, nullptr) < 0)
      die("connect");
    last = {local_port(client), address.sin_port};
  }
  return last;
}

/// Processes that hold sockets until this object goes.
class Crowd {
 public:
  Crowd(int processes, int sockets) {
    if (pipe(release_) != 0)
      die("pipe");
    for (int i = 0; i < processes; ++i)
      start(sockets / processes);
  }

  ~Crowd() {
    close(release_[1]);
    close(release_[0]);
    for (const pid_t pid : pids_)
      waitpid(pid, nullptr, 0);
  }

  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  /// A connection of each process, in the order in which they were started.
  const std::vector<Endpoints>& connections() const { return connections_; }

 private:
  void start(int sockets) {
    int report[2];
    if (pipe(report) != 0)
      die("pipe");
    const pid_t pid = fork();
    if (pid < 0)
      die("fork");
    if (pid == 0) {
      close(release_[1]);
      const Endpoints last = open_connections(sockets);
      char byte;
      if (write(report[1], &last, sizeof last) != static_cast<ssize_t>(sizeof last))
        _exit(1);
      close(report[0]);
      close(report[1]);
      _exit(read(release_[0], &byte, 1) == 0 ? 0 : 1);
    }
    Endpoints last;
    close(report[1]);
    if (read(report[0], &last, sizeof last) != static_cast<ssize_t>(sizeof last))
      die("a process of the crowd");
    close(report[0]);
    pids_.push_back(pid);
    connections_.push_back(last);
  }

  int release_[2];
  std::vector<pid_t> pids_;
  std::vector<Endpoints> connections_;
};

double milliseconds(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
  return took.count();
}

/// Medians, the candidates taking turns, after one turn to warm up.
std::vector<double> medians_ms(int runs, const std::vector<std::function<void()>>& candidates) {
  std::vector<std::vector<double>> times(candidates.size());
  for (int i = 0; i <= runs; ++i)
    for (std::size_t k = 0; k < candidates.size(); ++k) {
      const double ms = milliseconds(candidates[k]);
      if (i > 0)
        times[k].push_back(ms);
    }
  std::vector<double> medians;
  for (std::vector<double>& of_one : times) {
    std::nth_element(of_one.begin(), of_one.begin() + runs / 2, of_one.end());
    medians.push_back(of_one[static_cast<std::size_t>(runs / 2)]);
  }
  return medians;
}

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
  if (!found) {
    std::fprintf(stderr, "ProbeBench: the owner of a socket was not found\n");
    std::exit(1);
  }
}

/// What nobody can do without who wants to know where all descriptors lead: each process's list,
/// and each link read. Nothing is made of what they say.
void look_at_all_descriptors() {
  std::size_t links = 0;
  DIR* const processes = opendir("/proc");
  if (!processes)
    die("/proc");
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
    die("/proc/PID/fd");
}

/// Stands for the time of a tool that could not be run.
constexpr double kNotRun = -1;

struct Row {
  int sockets;
  double first_ms, middle_ms, last_ms, floor_ms;
  double ss_ms = kNotRun, lsof_ms = kNotRun;

  /// The faster tool of those that could be run.
  double tool_ms() const {
    double fastest_ms = kNotRun;
    for (const double ms : {ss_ms, lsof_ms})
      if (ms != kNotRun && (fastest_ms == kNotRun || ms < fastest_ms))
        fastest_ms = ms;
    return fastest_ms;
  }

  /// How many times the query fits into the run of the faster tool.
  double ratio(double query_ms) const {
    return tool_ms() == kNotRun ? kNotRun : tool_ms() / query_ms;
  }
};

/// A figure, or "-" where there is none.
std::string figure(double value, int decimals) {
  if (value == kNotRun)
    return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

Row measure(int processes, int sockets, int runs) {
  const Crowd crowd(processes, sockets);
  const std::vector<Endpoints>& connections = crowd.connections();
  Row row;
  row.sockets = sockets;
  // The newest process is listed first.
  std::vector<std::function<void()>> candidates = {
      [&] { query(connections.back()); }, [&] { query(connections[connections.size() / 2]); },
      [&] { query(connections.front()); }, look_at_all_descriptors};
  std::vector<double Row::*> results = {&Row::first_ms, &Row::middle_ms, &Row::last_ms,
                                        &Row::floor_ms};
  const std::vector<std::string> ss = {"ss", "-tnp"};
  const std::vector<std::string> lsof = {"lsof", "-nP", "-i"};
  for (const auto& tool : {std::make_pair(&ss, &Row::ss_ms), std::make_pair(&lsof, &Row::lsof_ms)})
    if (bench::run(*tool.first)) {
      candidates.push_back([tool] { bench::run(*tool.first); });
      results.push_back(tool.second);
    }
  const std::vector<double> medians = medians_ms(runs, candidates);
  for (std::size_t i = 0; i < medians.size(); ++i)
    row.*results[i] = medians[i];
  return row;
}

void write_csv(const char* path, int processes, const std::vector<Row>& rows) {
  FILE* file = std::fopen(path, "w");
  if (!file)
    die(path);
  std::fprintf(file, "measure,case,unit,ours,peer_name,peer,ratio,goal,lowest,highest\n");
  for (const Row& row : rows) {
    for (const auto& query :
         {std::make_pair("first", row.first_ms), std::make_pair("in the middle", row.middle_ms),
          std::make_pair("last", row.last_ms)}) {
      std::fprintf(file, "UserDetect query,\"%d sockets, %d processes, owner %s\",ms,%.4g,",
                   row.sockets, processes, query.first, query.second);
      if (row.tool_ms() == kNotRun)
        std::fprintf(file, ",,,,,\n");
      else
        std::fprintf(file, "%s,%.4g,%.4g,<= 0.2,,\n",
                     row.tool_ms() == row.ss_ms ? "ss -tnp" : "lsof -nP -i", row.tool_ms(),
                     query.second / row.tool_ms());
    }
    std::fprintf(file,
                 "UserDetect query,\"%d sockets, %d processes, owner last\",ms,%.4g,"
                 "every descriptor looked at,%.4g,%.4g,,,\n",
                 row.sockets, processes, row.last_ms, row.floor_ms, row.last_ms / row.floor_ms);
  }
  std::fclose(file);
}

void allow_many_descriptors() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

struct Options {
  int runs = 11;
  int processes = 500;
  const char* csv = nullptr;
  bool quick = false;
};

/// False for anything but "0 < number <= 100000".
bool parse_count(const char* word, int* count) {
  char* end = nullptr;
  const long number = std::strtol(word, &end, 10);
  *count = static_cast<int>(number);
  return end != word && *end == '\0' && number > 0 && number <= 100000;
}

bool parse(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--quick") {
      options->quick = true;
      options->runs = std::min(options->runs, 3);
      --i;
      continue;
    }
    if (i + 1 == argc)
      return false;
    if (option == "--csv")
      options->csv = argv[i + 1];
    else if (!(option == "--runs" && parse_count(argv[i + 1], &options->runs)) &&
             !(option == "--processes" && parse_count(argv[i + 1], &options->processes)))
      return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, &options)) {
    std::fprintf(stderr, "usage: ProbeBench [--runs N] [--processes N] [--csv FILE] [--quick]\n");
    return 2;
  }
  const int runs = options.runs;
  const int processes = options.processes;
  allow_many_descriptors();
  std::vector<Row> rows;
  std::printf("milliseconds, %d processes, median of %d; ratio: the faster tool to the query\n",
              processes, runs);
  std::printf("%8s %9s %9s %9s %10s %9s %9s  %s\n", "sockets", "first", "middle", "last",
              "bare look", "ss -tnp", "lsof -i", "ratio first/middle/last");
  for (const int sockets : {1000, 10000}) {
    if (options.quick && sockets > 1000)
      break;
    rows.push_back(measure(processes, sockets, runs));
    const Row& row = rows.back();
    std::printf("%8d %9.3f %9.3f %9.3f %10.3f %9s %9s  %s / %s / %s\n", row.sockets, row.first_ms,
                row.middle_ms, row.last_ms, row.floor_ms, figure(row.ss_ms, 3).c_str(),
                figure(row.lsof_ms, 3).c_str(), figure(row.ratio(row.first_ms), 1).c_str(),
                figure(row.ratio(row.middle_ms), 1).c_str(),
                figure(row.ratio(row.last_ms), 1).c_str());
    std::fflush(stdout);
  }
  if (options.csv)
    write_csv(options.csv, processes, rows);
}
