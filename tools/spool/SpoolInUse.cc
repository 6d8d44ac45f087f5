#include "SpoolInUse.h"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <utility>

extern char** environ;

namespace zmqwriter {

namespace {

using FileId = std::pair<dev_t, ino_t>;

bool is_number(const char* text) {
  return *text && std::string(text).find_first_not_of("0123456789") == std::string::npos;
}

/// Names in a folder; false when it cannot be read.
bool list(const std::string& folder, std::vector<std::string>* names) {
  DIR* listing = opendir(folder.c_str());
  if (!listing)
    return false;
  while (const dirent* entry = readdir(listing))
    names->push_back(entry->d_name);
  closedir(listing);
  return true;
}

SpoolUsers look_into_proc(const std::set<FileId>& files) {
  SpoolUsers users;
  std::vector<std::string> processes;
  list("/proc", &processes);
  for (const std::string& process : processes) {
    if (!is_number(process.c_str()))
      continue;
    const std::string descriptors = "/proc/" + process + "/fd";
    std::vector<std::string> names;
    if (!list(descriptors, &names)) {
      if (errno == EACCES || errno == EPERM)
        users.doubt = "not every process may be looked into; the superuser can";
      continue;
    }
    for (const std::string& name : names) {
      struct stat status;
      if (is_number(name.c_str()) && stat((descriptors + "/" + name).c_str(), &status) == 0 &&
          files.count({status.st_dev, status.st_ino})) {
        users.processes.push_back(std::stol(process));
        break;
      }
    }
  }
  return users;
}

// lsof -t prints process ids, one a line, and fails when it finds none.
SpoolUsers ask_lsof(const std::vector<std::string>& paths) {
  SpoolUsers users;
  std::vector<char*> arguments;
  for (const char* word : {"lsof", "-t", "--"})
    arguments.push_back(const_cast<char*>(word));
  for (const std::string& path : paths)
    arguments.push_back(const_cast<char*>(path.c_str()));
  arguments.push_back(nullptr);

  int ends[2];
  if (pipe(ends) != 0) {
    users.doubt = "lsof could not be run";
    return users;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, ends[0]);
  posix_spawn_file_actions_addclose(&actions, ends[1]);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child;
  const int spawned = posix_spawnp(&child, "lsof", &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  std::string output;
  char bytes[4096];
  ssize_t got;
  while (spawned == 0 && (got = read(ends[0], bytes, sizeof bytes)) > 0)
    output.append(bytes, static_cast<std::size_t>(got));
  close(ends[0]);
  int status = 127 << 8;
  if (spawned == 0)
    waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 127)
    users.doubt = "there is neither /proc nor lsof to find out with";

  for (const char* at = output.c_str(); *at;) {
    char* end;
    const long process = std::strtol(at, &end, 10);
    if (end == at)
      break;
    users.processes.push_back(process);
    at = end + (*end == '\n');
  }
  return users;
}

}  // namespace

SpoolUsers find_spool_users(const std::vector<std::string>& paths) {
  std::set<FileId> files;
  for (const std::string& path : paths) {
    struct stat status;
    if (stat(path.c_str(), &status) == 0)
      files.insert({status.st_dev, status.st_ino});
  }
  if (files.empty())
    return SpoolUsers();
  const bool has_proc = access("/proc/self/fd", F_OK) == 0;
  SpoolUsers users = has_proc ? look_into_proc(files) : ask_lsof(paths);
  std::sort(users.processes.begin(), users.processes.end());
  return users;
}

}  // namespace zmqwriter
