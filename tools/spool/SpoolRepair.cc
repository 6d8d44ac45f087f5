#include "SpoolRepair.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "EventJson.h"
#include "Files.h"
#include "SpoolFormat.h"

namespace zmqwriter {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& what) {
  throw std::runtime_error(path + ": " + what + ": " + std::strerror(errno));
}

[[noreturn]] void fail_to_copy(const std::string& path, const std::string& copy) {
  throw std::runtime_error(copy + ": cannot be written: " + std::strerror(errno) + "; " + path +
                           " is not repaired; --copy-to DIR writes the copy to another folder");
}

bool copy_bytes(int from, int to) {
  char bytes[65536];
  for (;;) {
    const ssize_t got = read(from, bytes, sizeof bytes);
    if (got < 0 && errno == EINTR)
      continue;
    if (got <= 0)
      return got == 0;
    const std::string_view piece(bytes, static_cast<std::size_t>(got));
    if (write_fully(to, piece) < piece.size())
      return false;
  }
}

/// Creates the first of "FILE.before-repair", "FILE.before-repair.2", ... that is not taken, in the
/// folder of the copies.
int create_copy(const std::string& path, const std::string& copy_folder, mode_t mode,
                std::string* copy) {
  const std::string start = copy_folder.empty() ? path : copy_folder + path.substr(path.rfind('/'));
  for (unsigned attempt = 1; attempt < 10000; ++attempt) {
    *copy = start + ".before-repair" + (attempt == 1 ? "" : "." + std::to_string(attempt));
    const int fd = open(copy->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST)
      return fd;
  }
  return -1;
}

std::string keep_copy(const std::string& path, const std::string& copy_folder, int from) {
  struct stat status;
  if (fstat(from, &status) != 0)
    fail(path, "cannot be read");
  std::string copy;
  const FileDescriptor to(create_copy(path, copy_folder, status.st_mode & 0777, &copy));
  if (to.get() < 0)
    fail_to_copy(path, copy);
  if (!copy_bytes(from, to.get()) || fsync(to.get()) != 0 || !sync_folder_of(copy)) {
    const int error = errno;
    unlink(copy.c_str());
    errno = error;
    fail_to_copy(path, copy);
  }
  return copy;
}

bool write_header(int file, std::uint32_t used_size, std::uint32_t record_count) {
  unsigned char header[spool_format::kHeaderSize];
  spool_format::encode_header(used_size, record_count, header);
  const std::string_view bytes(reinterpret_cast<const char*>(header), sizeof header);
  return lseek(file, 0, SEEK_SET) == 0 && write_fully(file, bytes) == bytes.size();
}

}  // namespace

RepairPlan plan_repair(const std::string& folder, const std::vector<std::uint32_t>& numbers,
                       const IsEvent& is_event) {
  RepairPlan plan;
  const std::size_t in_sequence = count_in_sequence(folder, numbers);
  auto next = static_cast<std::uint32_t>(in_sequence);  // lowest number without a file
  bool is_blocked = false;                              // by a file that cannot be moved down

  // Returns whether the file may be part of the sequence. The plug-in reads a file with damage that
  // no header can repair, too.
  const auto plan_header = [&](const ChunkFile& file) {
    const Diagnosis diagnosis = diagnose(file, is_event);
    if (!diagnosis.damage.empty() && !diagnosis.repairable)
      plan.refused.push_back(file.name() + ": " + diagnosis.damage);
    else if (!diagnosis.damage.empty())
      plan.headers.push_back({file.path(), static_cast<std::uint32_t>(bytes_used(diagnosis.found)),
                              static_cast<std::uint32_t>(diagnosis.found.size()),
                              diagnosis.counted.size()});
    return file.problem().empty() && (file.has_signature() || diagnosis.repairable);
  };
  const auto rename = [&](const ChunkFile& file) {
    plan.renamings.push_back({file.path(), chunk_path(folder, next++)});
  };
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const ChunkFile file(folder, numbers[i]);
    const bool good = plan_header(file);
    if (i < in_sequence || is_blocked)
      continue;
    // Files after a gap close it, the lowest first: each takes a free number.
    if (good)
      rename(file);
    else
      plan.refused.push_back(
          file.name() + ": stays after the gap in the numbers, and so do the files that follow it");
    is_blocked = !good;
  }
  // Files that were set aside follow all others, in their order.
  for (const std::string& path : find_set_aside(folder)) {
    const ChunkFile file(path);
    const bool good = plan_header(file);
    if (good && !is_blocked)
      rename(file);
    else if (good)
      plan.refused.push_back(file.name() + ": stays set aside");
  }
  return plan;
}

std::string repair_header(const HeaderRepair& repair, const std::string& copy_folder) {
  const FileDescriptor file(open(repair.path.c_str(), O_RDWR | O_CLOEXEC));
  if (file.get() < 0)
    fail(repair.path, "cannot be opened for writing");
  const std::string copy = keep_copy(repair.path, copy_folder, file.get());
  if (!write_header(file.get(), repair.used_size, repair.record_count) || fsync(file.get()) != 0)
    fail(repair.path, "cannot be written (its copy is " + copy + ")");
  return copy;
}

void close_spool(const std::string& folder) {
  constexpr int kMostLooks = 100;
  constexpr useconds_t kBetweenLooksUs = 10000;
  const std::string path = chunk_path(folder, 0);
  int sound = 0;
  for (int looks = 0; looks < kMostLooks && sound < 2; ++looks) {
    const Diagnosis head = diagnose(ChunkFile(path), is_event);
    if (!head.repairable) {
      ++sound;
    } else {
      sound = 0;
      const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
      if (!write_header(file.get(), static_cast<std::uint32_t>(bytes_used(head.found)),
                        static_cast<std::uint32_t>(head.found.size())))
        fail(path, "cannot be written; 'zmqwriter spool repair " + folder + "' has to repair it");
    }
    usleep(kBetweenLooksUs);
  }
}

void rename_chunk(const Renaming& renaming) {
  if (!rename_without_replacing(renaming.from, renaming.to))
    fail(renaming.from, "cannot be renamed to " + renaming.to);
}

}  // namespace zmqwriter
