#include "RotatingFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "Output.h"

namespace {

constexpr mode_t kMode = 0666;  // less the umask
constexpr std::size_t kDigits = 6;

std::string reason(int error) {
  return std::strerror(error);
}

int open_retrying(const std::string& path, int flags) {
  int descriptor;
  do
    descriptor = open(path.c_str(), flags | O_CLOEXEC, kMode);
  while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

/// Unlike rename, link does not replace what somebody else has put there meanwhile; but not every
/// file system knows it.
bool move_aside(const std::string& from, const std::string& to) {
  if (link(from.c_str(), to.c_str()) == 0)
    return unlink(from.c_str()) == 0;
  return errno != EEXIST && std::rename(from.c_str(), to.c_str()) == 0;
}

/// The numbers of the finished files that lie beside `path`, in ascending order.
std::vector<std::uint64_t> finished_numbers(const std::string& path) {
  const std::filesystem::path current(path);
  const std::string prefix = current.filename().string() + '.';
  const auto folder = current.has_parent_path() ? current.parent_path() : ".";
  std::vector<std::uint64_t> numbers;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.size() < prefix.size() + kDigits || name.compare(0, prefix.size(), prefix) != 0)
      continue;
    std::uint64_t number = 0;
    const char* const last = name.data() + name.size();
    const auto parsed = std::from_chars(name.data() + prefix.size(), last, number);
    if (parsed.ec == std::errc() && parsed.ptr == last)
      numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

}  // namespace

RotatingFile::RotatingFile(const std::string& path, std::uint64_t keep, bool rotating)
    : path_(path), keep_(keep) {
  try {
    OpenFirst(rotating);
  } catch (...) {
    if (descriptor_ >= 0)
      close(descriptor_);
    throw;
  }
}

RotatingFile::~RotatingFile() {
  close(descriptor_);
}

void RotatingFile::OpenFirst(bool rotating) {
  descriptor_ = open_retrying(path_, O_WRONLY | O_CREAT | O_APPEND);
  struct stat status;
  if (descriptor_ < 0 || fstat(descriptor_, &status) != 0)
    throw std::runtime_error(path_ + ": cannot open the output: " + reason(errno));
  regular_ = S_ISREG(status.st_mode);
  if (!regular_) {
    if (rotating)
      throw std::runtime_error(path_ + ": only a regular file can be rotated");
    return;
  }
  if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0)
    throw std::runtime_error(path_ + ": " +
                             (errno == EWOULDBLOCK ? "in use by another collector"
                                                   : "cannot lock the output: " + reason(errno)));
  if (status.st_size > 0) {
    const std::string problem = Rotate();
    if (!problem.empty())
      throw std::runtime_error(problem);
    finished_ = 0;
  }
}

std::size_t RotatingFile::Append(std::string_view bytes) {
  const std::size_t written = write_fully(descriptor_, bytes);
  before_last_append_ = size_;
  size_ += written;
  return written;
}

void RotatingFile::CutLastAppend(std::size_t bytes) {
  const std::uint64_t size = before_last_append_ + bytes;
  if (regular_ && ftruncate(descriptor_, static_cast<off_t>(size)) == 0)
    size_ = size;
}

std::string RotatingFile::Rotate() {
  // Looked up anew each time: somebody may have put files of such names there meanwhile.
  const std::vector<std::uint64_t> numbers = finished_numbers(path_);
  if (!numbers.empty())
    next_number_ = std::max(next_number_, numbers.back() + 1);
  const std::string finished = Finished(next_number_);
  if (!move_aside(path_, finished))
    return path_ + ": cannot be moved aside to " + finished + ": " + reason(errno);
  const int fresh = open_retrying(path_, O_WRONLY | O_CREAT | O_EXCL | O_APPEND);
  if (fresh < 0) {
    const std::string problem = path_ + ": cannot open a new file: " + reason(errno);
    std::rename(finished.c_str(), path_.c_str());
    return problem;
  }
  flock(fresh, LOCK_EX | LOCK_NB);
  close(descriptor_);
  descriptor_ = fresh;
  size_ = 0;
  ++next_number_;
  ++finished_;
  RemoveOldest();
  return "";
}

std::string RotatingFile::Finished(std::uint64_t number) const {
  const std::string digits = std::to_string(number);
  return path_ + '.' + std::string(kDigits - std::min(kDigits, digits.size()), '0') + digits;
}

void RotatingFile::RemoveOldest() const {
  if (keep_ == 0)
    return;
  const std::vector<std::uint64_t> numbers = finished_numbers(path_);
  for (std::size_t i = 0; i + keep_ < numbers.size(); ++i)
    unlink(Finished(numbers[i]).c_str());
}
