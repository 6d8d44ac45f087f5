// What the programs ask of the system: clocks, other processes, descriptors.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

extern char** environ;

namespace bench {

/// There is nothing to measure.
[[noreturn]] inline void give_up(const std::string& what) {
  std::fprintf(stderr, "the benchmark failed: %s\n", what.c_str());
  std::_Exit(1);
}

/// Seconds that the work took by the clock.
inline double seconds(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  return took.count();
}

/// Processor time of this process so far, all threads.
inline double cpu_seconds() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  const auto of = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

inline void allow_many_descriptors() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

/// Runs a command to its end, with its output thrown away. False when it cannot be run or fails.
inline bool run(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& word : command)
    arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  int status = -1;
  const bool started =
      posix_spawnp(&pid, arguments[0], &files, nullptr, arguments.data(), environ) == 0;
  posix_spawn_file_actions_destroy(&files);
  return started && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

}  // namespace bench
