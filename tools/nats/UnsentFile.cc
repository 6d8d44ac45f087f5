#include "UnsentFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "EventJson.h"
#include "Files.h"
#include "RawEvents.h"

namespace zmqwriter {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& what) {
  throw std::runtime_error(path + ": " + what + ": " + std::strerror(errno));
}

}  // namespace

int lock_unsent_file(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    throw std::runtime_error(path + ": is not a file of unsent events");
  const std::string name = path + ".lock";
  FileDescriptor lock(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (lock.get() < 0)
    fail(name, "cannot be made");
  if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK)
      throw std::runtime_error(path +
                               ": in use by another collector; each needs its own --unsent FILE");
    fail(name, "cannot be locked");
  }
  return lock.Release();
}

void write_unsent_file(const std::string& path, const std::vector<UnsentEvent>& events) {
  const std::string fresh = path + ".new";
  unlink(fresh.c_str());
  FileDescriptor file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (file.get() < 0)
    fail(fresh, "cannot be made");
  std::string record;
  for (const UnsentEvent& event : events) {
    record.clear();
    append_raw_event(&record, event.raw + event.id);
    if (write_fully(file.get(), record) != record.size())
      fail(fresh, "cannot be written");
  }
  if (fsync(file.get()) != 0 || std::rename(fresh.c_str(), path.c_str()) != 0 ||
      !sync_folder_of(path))
    fail(path, "cannot be written");
}

std::vector<UnsentEvent> read_unsent_file(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                             std::fclose);
  std::vector<UnsentEvent> events;
  if (!file) {
    if (errno != ENOENT)
      fail(path, "cannot be read");
    return events;
  }
  RawEventReader reader(file.get());
  for (std::string record; reader.Next(&record);) {
    const std::size_t size = record.size() < kIdLength ? 0 : record.size() - kIdLength;
    const bool has_id = record.find_first_not_of("0123456789abcdef-", size) == std::string::npos;
    if (!has_id || !EventMessage(record.data(), size).valid())
      throw std::runtime_error(path +
                               ": is not a file of unsent events; name another one with "
                               "--unsent");
    events.push_back({record.substr(size), record.substr(0, size)});
  }
  if (!reader.problem().empty())
    throw std::runtime_error(path + ": " + reader.problem());
  return events;
}

}  // namespace zmqwriter
