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

#include "Output.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

constexpr mode_t kMode = 0666;  // less the umask
constexpr std::size_t kDigits = 6;
constexpr std::uint64_t kHighestNumber = 9999999;

std::string reason(int error) {
  return std::strerror(error);
}

int open_retrying(const std::string& path, int flags) {
  int descriptor;
  do
    descriptor = open(path.c_str(), flags | O_CLOEXEC, kMode);
  while (descriptor < 0 && errno == EINTR && !stop_requested());
  return descriptor;
}

std::string finished_name(const std::string& path, std::uint64_t number) {
  const std::string digits = std::to_string(number);
  return path + '.' + std::string(kDigits - std::min(kDigits, digits.size()), '0') + digits;
}

/// Unlike rename, link does not replace what somebody else has put there meanwhile; but not every
/// file system knows it.
bool move_unless_taken(const std::string& from, const std::string& to) {
  if (link(from.c_str(), to.c_str()) == 0)
    return unlink(from.c_str()) == 0;
  if (errno == EEXIST)
    return false;
  struct stat status;
  if (lstat(to.c_str(), &status) == 0) {
    errno = EEXIST;
    return false;
  }
  return std::rename(from.c_str(), to.c_str()) == 0;
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
    if (name.size() <= prefix.size())
      continue;
    std::uint64_t number = 0;
    std::from_chars(name.data() + prefix.size(), name.data() + name.size(), number);
    if (number <= kHighestNumber && name == finished_name(current.filename().string(), number))
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
  if (std::filesystem::is_symlink(path_))
    path_ = std::filesystem::canonical(path_).string();
  if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0)
    throw std::runtime_error(path_ + ": " +
                             (errno == EWOULDBLOCK ? "in use by another collector"
                                                   : "cannot lock the output: " + reason(errno)));
  const std::vector<std::uint64_t> numbers = finished_numbers(path_);
  SkipNumbers(numbers);
  if (keep_ > 0)
    kept_.assign(numbers.begin(), numbers.end());
}

void RotatingFile::Begin() {
  struct stat status;
  if (!regular_ || (fstat(descriptor_, &status) == 0 && status.st_size == 0))
    return;
  const std::string problem = Rotate();
  if (!problem.empty())
    throw std::runtime_error(problem);
  finished_ = 0;
}

std::size_t RotatingFile::Append(std::string_view bytes) {
  const std::size_t written = write_fully(descriptor_, bytes);
  last_append_ = written;
  size_ += written;
  return written;
}

void RotatingFile::CutLastAppend(std::size_t bytes) {
  const std::uint64_t surplus = last_append_ - bytes;
  struct stat status;
  if (!regular_ || fstat(descriptor_, &status) != 0)
    return;
  // Not size_: somebody else may have cut the file meanwhile, and it must not become longer here.
  const off_t size = status.st_size - static_cast<off_t>(surplus);
  if (size >= 0 && ftruncate(descriptor_, size) == 0)
    size_ -= surplus;
}

std::string RotatingFile::Rotate() {
  if (!MoveAside())
    return path_ + ": cannot be moved aside to " + finished_name(path_, next_number_) + ": " +
           reason(errno);
  const int fresh = open_retrying(path_, O_WRONLY | O_CREAT | O_EXCL | O_APPEND);
  if (fresh < 0) {
    const std::string problem = path_ + ": cannot open a new file: " + reason(errno);
    move_unless_taken(finished_name(path_, next_number_), path_);
    return problem;
  }
  flock(fresh, LOCK_EX | LOCK_NB);
  close(descriptor_);
  descriptor_ = fresh;
  size_ = 0;
  ++finished_;
  if (keep_ > 0)
    kept_.push_back(next_number_);
  ++next_number_;
  RemoveOldest();
  return "";
}

/// The folder, which may hold a great many files, is looked at again only where somebody else has
/// taken the next name meanwhile.
bool RotatingFile::MoveAside() {
  if (MoveToNext())
    return true;
  if (errno != EEXIST)
    return false;
  SkipNumbers(finished_numbers(path_));
  return MoveToNext();
}

bool RotatingFile::MoveToNext() {
  errno = ERANGE;
  return next_number_ <= kHighestNumber &&
         move_unless_taken(path_, finished_name(path_, next_number_));
}

void RotatingFile::SkipNumbers(const std::vector<std::uint64_t>& numbers) {
  if (!numbers.empty())
    next_number_ = std::max(next_number_, numbers.back() + 1);
}

void RotatingFile::RemoveOldest() {
  for (; kept_.size() > keep_; kept_.pop_front())
    unlink(finished_name(path_, kept_.front()).c_str());
}

}  // namespace zmqwriter
