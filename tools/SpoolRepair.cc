#include "SpoolRepair.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "SpoolFormat.h"

namespace spool {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& what) {
  throw std::runtime_error(path + ": " + what + ": " + std::strerror(errno));
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0)
      close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

bool write_all(int fd, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, bytes, size);
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0)
      return false;
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool copy_bytes(int from, int to) {
  char bytes[65536];
  for (;;) {
    const ssize_t got = read(from, bytes, sizeof bytes);
    if (got < 0 && errno == EINTR)
      continue;
    if (got <= 0)
      return got == 0;
    if (!write_all(to, bytes, static_cast<std::size_t>(got)))
      return false;
  }
}

/// Creates the first of "PATH.before-repair", "PATH.before-repair.2", ... that is not taken.
int create_copy(const std::string& path, mode_t mode, std::string* copy) {
  for (unsigned attempt = 1; attempt < 10000; ++attempt) {
    *copy = path + ".before-repair" + (attempt == 1 ? "" : "." + std::to_string(attempt));
    const int fd = open(copy->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST)
      return fd;
  }
  return -1;
}

/// The name of a new file is on disk only once its folder is.
bool sync_folder_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const Descriptor descriptor(open(folder.c_str(), O_RDONLY | O_CLOEXEC));
  return descriptor.get() >= 0 && fsync(descriptor.get()) == 0;
}

std::string keep_copy(const std::string& path, int from) {
  struct stat status;
  if (fstat(from, &status) != 0)
    fail(path, "cannot be read");
  std::string copy;
  const Descriptor to(create_copy(path, status.st_mode & 0777, &copy));
  if (to.get() < 0)
    fail(copy, "cannot be created");
  if (!copy_bytes(from, to.get()) || fsync(to.get()) != 0 || !sync_folder_of(copy)) {
    const int error = errno;
    unlink(copy.c_str());
    errno = error;
    fail(copy, "cannot be written");
  }
  return copy;
}

// Files behind a gap move down to close it. Lowest first: each takes a number that is free.
void plan_renamings(const std::string& folder, const std::vector<std::uint32_t>& numbers,
                    const std::function<bool(const std::string&)>& is_event, RepairPlan* plan) {
  std::uint32_t next = static_cast<std::uint32_t>(count_in_sequence(numbers));
  for (std::size_t i = next; i < numbers.size(); ++i, ++next) {
    const ChunkFile file(folder, numbers[i]);
    const Diagnosis diagnosis = diagnose(file, is_event);
    if (!diagnosis.damage.empty() && !diagnosis.repairable) {
      plan->refused.push_back(file.name() + ": stays behind the gap in the numbers, and so do " +
                              "those after it");
      return;
    }
    char to[spool_format::kPathSize];
    plan->renamings.push_back({file.path(), spool_format::chunk_path(folder.c_str(), next, to)});
  }
}

}  // namespace

RepairPlan plan_repair(const std::string& folder, const std::vector<std::uint32_t>& numbers,
                       const std::function<bool(const std::string& payload)>& is_event) {
  RepairPlan plan;
  for (const std::uint32_t number : numbers) {
    const ChunkFile file(folder, number);
    const Diagnosis diagnosis = diagnose(file, is_event);
    if (diagnosis.damage.empty())
      continue;
    if (!diagnosis.repairable) {
      plan.refused.push_back(file.name() + ": " + diagnosis.damage);
      continue;
    }
    plan.headers.push_back({file.path(), static_cast<std::uint32_t>(bytes_used(diagnosis.found)),
                            static_cast<std::uint32_t>(diagnosis.found.size()),
                            diagnosis.counted.size()});
  }
  plan_renamings(folder, numbers, is_event, &plan);
  return plan;
}

std::string repair_header(const HeaderRepair& repair) {
  const Descriptor file(open(repair.path.c_str(), O_RDWR | O_CLOEXEC));
  if (file.get() < 0)
    fail(repair.path, "cannot be opened for writing");
  const std::string copy = keep_copy(repair.path, file.get());

  unsigned char header[spool_format::kHeaderSize];
  spool_format::encode_header(repair.used_size, repair.record_count, header);
  if (lseek(file.get(), 0, SEEK_SET) != 0 ||
      !write_all(file.get(), reinterpret_cast<const char*>(header), sizeof header) ||
      fsync(file.get()) != 0)
    fail(repair.path, "cannot be written (its copy is " + copy + ")");
  return copy;
}

void rename_chunk(const Renaming& renaming) {
  // link refuses to replace what rename would; where the file system has no links, look first.
  if (link(renaming.from.c_str(), renaming.to.c_str()) == 0) {
    if (unlink(renaming.from.c_str()) != 0)
      fail(renaming.from, "cannot be renamed");
    return;
  }
  if (errno == EEXIST || access(renaming.to.c_str(), F_OK) == 0) {
    errno = EEXIST;
    fail(renaming.to, "cannot take the name");
  }
  if (rename(renaming.from.c_str(), renaming.to.c_str()) != 0)
    fail(renaming.from, "cannot be renamed");
}

}  // namespace spool
