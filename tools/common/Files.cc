#include "Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace zmqwriter {

int FileDescriptor::Release() {
  return std::exchange(number_, -1);
}

void FileDescriptor::Reset(int number) {
  if (number_ >= 0)
    close(number_);
  number_ = number;
}

std::size_t write_fully(int descriptor, std::string_view bytes, int patience_ms) {
  // A pipe that is ready accepts PIPE_BUF bytes without blocking.
  const std::size_t piece = patience_ms < 0 ? bytes.size() : PIPE_BUF;
  bool wait = patience_ms >= 0;
  std::size_t done = 0;
  while (done < bytes.size()) {
    pollfd output = {descriptor, POLLOUT, 0};
    const int ready = wait ? poll(&output, 1, patience_ms) : 1;
    if (ready == 0)
      errno = EAGAIN;
    if (ready == 0 || (ready < 0 && errno != EINTR))
      break;
    const ssize_t written =
        ready < 0 ? -1
                  : write(descriptor, bytes.data() + done, std::min(piece, bytes.size() - done));
    if (written >= 0)
      done += static_cast<std::size_t>(written);
    else if (errno == EAGAIN || errno == EWOULDBLOCK)
      wait = true;
    else if (errno != EINTR)
      break;
  }
  return done;
}

std::string read_small_file(const std::string& path, std::size_t longest) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                             std::fclose);
  std::string content(longest + 1, '\0');
  if (file)
    content.resize(std::fread(&content[0], 1, content.size(), file.get()));
  if (!file || std::ferror(file.get()))
    throw std::runtime_error(path + ": cannot be read: " + std::strerror(errno));
  if (content.size() > longest)
    throw std::runtime_error(path + ": longer than " + std::to_string(longest) + " bytes");
  return content;
}

bool leads_to(const std::string& path, int descriptor) {
  struct stat there, open_file;
  return stat(path.c_str(), &there) == 0 && fstat(descriptor, &open_file) == 0 &&
         there.st_ino == open_file.st_ino && there.st_dev == open_file.st_dev;
}

bool rename_without_replacing(const std::string& from, const std::string& to) {
  if (link(from.c_str(), to.c_str()) == 0)
    return unlink(from.c_str()) == 0;
  struct stat status;
  if (errno != EEXIST && lstat(to.c_str(), &status) != 0)
    return std::rename(from.c_str(), to.c_str()) == 0;
  errno = EEXIST;
  return false;
}

bool sync_folder_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const FileDescriptor descriptor(open(folder.c_str(), O_RDONLY | O_CLOEXEC));
  return descriptor.get() >= 0 && fsync(descriptor.get()) == 0;
}

std::uint64_t raise_open_files() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
    return UINT64_MAX;
  rlimit raised = limit;
  raised.rlim_cur = limit.rlim_max;
#ifdef __APPLE__
  // On macOS the hard limit may be more than the system accepts.
  raised.rlim_cur = std::min<rlim_t>(raised.rlim_cur, OPEN_MAX);
#endif
  if (raised.rlim_cur > limit.rlim_cur && setrlimit(RLIMIT_NOFILE, &raised) == 0)
    limit = raised;
  return limit.rlim_cur;
}

bool list_folder(const std::string& folder, std::vector<std::string>* names) {
  DIR* const listing = opendir(folder.c_str());
  if (!listing)
    return false;
  while (const dirent* entry = readdir(listing))
    names->push_back(entry->d_name);
  closedir(listing);
  return true;
}

std::optional<std::uint64_t> disk_free(const std::string& path) {
  std::error_code error;
  const auto space = std::filesystem::space(path, error);
  return error ? std::nullopt : std::optional<std::uint64_t>(space.available);
}

}  // namespace zmqwriter
