#include "RotatingFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>

#include "StopSignals.h"
#include "Text.h"

namespace zmqwriter {

namespace {

constexpr mode_t kMode = 0600;  // events tell of people
constexpr std::size_t kDigits = 6;
constexpr std::uint64_t kHighestNumber = 9999999;

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

/// The numbers of the finished files in the folder of `path`, in ascending order.
std::vector<std::uint64_t> finished_numbers(const std::string& path) {
  const std::filesystem::path current(path);
  const std::string base = current.filename().string();
  const auto folder = current.has_parent_path() ? current.parent_path() : ".";
  std::vector<std::uint64_t> numbers;
  std::vector<std::string> names;
  list_folder(folder.string(), &names);
  for (const std::string& name : names) {
    const auto number =
        number_in<std::uint64_t>(name.substr(std::min(base.size() + 1, name.size())));
    if (number && *number <= kHighestNumber && name == finished_name(base, *number))
      numbers.push_back(*number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

}  // namespace

RotatingFile::RotatingFile(const std::string& path, std::uint64_t keep, bool rotating)
    : given_path_(path), keep_(keep), rotating_(rotating) {
  const std::string problem = Open();
  if (!problem.empty())
    throw std::runtime_error(problem);
}

/// Returns why the path cannot be the output; empty on success. After a failure nothing has
/// changed.
std::string RotatingFile::Open() {
  FileDescriptor fresh(open_retrying(given_path_, O_WRONLY | O_CREAT | O_APPEND));
  struct stat status;
  if (fresh.get() < 0 || fstat(fresh.get(), &status) != 0)
    return given_path_ + ": cannot open the output: " + std::strerror(errno);
  const bool regular = S_ISREG(status.st_mode);
  if (!regular && rotating_)
    return given_path_ + ": only a regular file can be rotated";
  if (regular && flock(fresh.get(), LOCK_EX | LOCK_NB) != 0)
    return given_path_ + ": " +
           (errno == EWOULDBLOCK ? "in use by another collector"
                                 : std::string("cannot lock the output: ") + std::strerror(errno));
  descriptor_.Reset(fresh.Release());
  regular_ = regular;
  size_ = 0;
  last_append_ = 0;
  path_ = given_path_;
  if (!regular_)
    return "";
  if (std::filesystem::is_symlink(path_))
    path_ = std::filesystem::canonical(path_).string();
  const std::vector<std::uint64_t> numbers = finished_numbers(path_);
  SkipNumbers(numbers);
  if (keep_ > 0)
    kept_.assign(numbers.begin(), numbers.end());
  return "";
}

void RotatingFile::Begin() {
  if (!regular_ || IsEmpty())
    return;
  const std::string problem = Rotate();
  if (!problem.empty())
    throw std::runtime_error(problem);
  finished_ = 0;
}

bool RotatingFile::IsEmpty() const {
  struct stat status;
  return fstat(descriptor_.get(), &status) == 0 && status.st_size == 0;
}

bool RotatingFile::IsInPlace() const {
  return !regular_ || leads_to(given_path_, descriptor_.get());
}

bool RotatingFile::IsRemoved() const {
  struct stat status;
  return regular_ && fstat(descriptor_.get(), &status) == 0 && status.st_nlink == 0;
}

std::string RotatingFile::Reopen() {
  struct stat at_path;
  if (stat(given_path_.c_str(), &at_path) == 0 && !S_ISREG(at_path.st_mode))
    return given_path_ + ": is not a regular file any more";
  const std::string problem = Open();
  if (problem.empty() && !IsEmpty())
    Rotate();
  return problem;
}

std::size_t RotatingFile::Append(std::string_view bytes) {
  const std::size_t written = write_fully(descriptor_.get(), bytes, regular_ ? -1 : kPatienceMs);
  last_append_ = written;
  size_ += written;
  return written;
}

bool RotatingFile::CutLastAppend(std::size_t bytes) {
  const std::uint64_t surplus = last_append_ - bytes;
  struct stat status;
  if (!regular_ || fstat(descriptor_.get(), &status) != 0)
    return false;
  // Not size_: another program may have cut the file, and ftruncate must not make it longer.
  const off_t size = status.st_size - static_cast<off_t>(surplus);
  if (size < 0 || ftruncate(descriptor_.get(), size) != 0)
    return false;
  size_ -= surplus;
  return true;
}

std::uint64_t RotatingFile::Room() const {
  struct statvfs disk;
  if (!regular_ || fstatvfs(descriptor_.get(), &disk) != 0)
    return std::numeric_limits<std::uint64_t>::max();
  return std::uint64_t{disk.f_bavail} * disk.f_frsize;
}

std::string RotatingFile::Rotate() {
  if (!MoveAside())
    return path_ + ": cannot be moved aside to " + finished_name(path_, next_number_) + ": " +
           std::strerror(errno);
  const int fresh = open_retrying(path_, O_WRONLY | O_CREAT | O_EXCL | O_APPEND);
  if (fresh < 0) {
    const std::string problem = path_ + ": cannot open a new file: " + std::strerror(errno);
    rename_without_replacing(finished_name(path_, next_number_), path_);
    return problem;
  }
  flock(fresh, LOCK_EX | LOCK_NB);
  descriptor_.Reset(fresh);
  size_ = 0;
  ++finished_;
  if (keep_ > 0)
    kept_.push_back(next_number_);
  ++next_number_;
  RemoveOldest();
  return "";
}

/// Reads the folder, which may hold very many files, only when another program has taken the next
/// name.
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
         rename_without_replacing(path_, finished_name(path_, next_number_));
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
