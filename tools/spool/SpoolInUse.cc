#include "SpoolInUse.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <set>
#include <utility>

#include "Files.h"
#include "SpoolReader.h"
#include "Text.h"

namespace zmqwriter {

namespace {

using FileId = std::pair<dev_t, ino_t>;

SpoolUsers look_into_proc(const std::set<FileId>& files) {
  SpoolUsers users;
  std::vector<std::string> processes;
  list_folder("/proc", &processes);
  for (const std::string& process : processes) {
    const auto id = number_in<long>(process);
    if (!id)
      continue;
    const std::string descriptors = "/proc/" + process + "/fd";
    std::vector<std::string> names;
    if (!list_folder(descriptors, &names)) {
      if (errno == EACCES || errno == EPERM)
        users.doubt = "the open files of some processes may be read by root only";
      continue;
    }
    for (const std::string& name : names) {
      struct stat status;
      if (stat((descriptors + "/" + name).c_str(), &status) == 0 &&
          files.count({status.st_dev, status.st_ino})) {
        users.processes.push_back(*id);
        break;
      }
    }
  }
  return users;
}

// lsof -t prints process ids, one a line, and fails when it finds none.
SpoolUsers ask_lsof(const std::vector<std::string>& paths) {
  SpoolUsers users;
  std::string command = "exec lsof -t --";
  for (const std::string& path : paths) {
    command += " '";
    for (const char c : path)
      command += c == '\'' ? "'\\''" : std::string(1, c);
    command += "'";
  }
  std::FILE* const lsof = popen((command + " 2>/dev/null").c_str(), "r");
  long process;
  while (lsof && std::fscanf(lsof, "%ld", &process) == 1)
    users.processes.push_back(process);
  const int status = lsof ? pclose(lsof) : -1;
  if (status == -1 || WEXITSTATUS(status) == 127)
    users.doubt = "there is neither /proc nor lsof";
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

std::vector<long> other_spool_processes(const std::string& folder) {
  std::vector<std::string> paths = find_set_aside(folder);
  for (const std::uint32_t number : find_chunks(folder))
    paths.push_back(chunk_path(folder, number));
  std::vector<long> processes = find_spool_users(paths).processes;
  processes.erase(std::remove(processes.begin(), processes.end(), getpid()), processes.end());
  return processes;
}

std::string other_spool_users(const std::string& folder) {
  std::string named;
  for (const long process : other_spool_processes(folder))
    named += (named.empty() ? "process " : ", ") + std::to_string(process);
  return named;
}

}  // namespace zmqwriter
