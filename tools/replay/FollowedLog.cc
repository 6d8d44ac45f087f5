#include "FollowedLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <utility>

namespace zmqwriter {

namespace {

constexpr auto kBetweenLooks = std::chrono::milliseconds(50);
// How long a rotated file may get further lines.
constexpr auto kAfterRotation = std::chrono::seconds(5);
// Files that were read, which are remembered so that they are not taken for new ones.
constexpr std::size_t kMostFiles = 8;

std::pair<long long, long> time_of(const struct stat& status) {
#ifdef __APPLE__
  return {status.st_mtimespec.tv_sec, status.st_mtimespec.tv_nsec};
#else
  return {status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
#endif
}

void remove_all(std::string* text, const std::string& part) {
  for (std::size_t at; (at = text->find(part)) != std::string::npos;)
    text->erase(at, part.size());
}

/// Whether `name` can be that of a rotated file of the log `base`.
bool is_rotated_name(std::string name, const std::string& base) {
  const std::string stem = std::filesystem::path(base).stem().string();
  if (name.compare(0, stem.size(), stem) != 0 || name == base)
    return false;
  name.erase(0, stem.size());
  for (const char* const part : {".log", ".json", ".gz"})
    remove_all(&name, part);
  return name.find_first_not_of("0123456789.-_:+TZ") == std::string::npos;
}

void say(const std::string& name, const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", name.c_str(), what.c_str());
}

}  // namespace

FilePosition FollowedLog::File::Position() const {
  if (at.done)
    return at;
  const std::uint64_t offset = source()->offset();
  return {at.inode, offset, start_checksum(source()->descriptor(), offset), false};
}

void FollowedLog::File::Close() {
  at = Position();
  at.done = true;
  lines.reset();
  reader.reset();
}

FollowedLog::FollowedLog(const std::string& path, const LogPosition& position)
    : path_(path),
      folder_(std::filesystem::path(path).parent_path().string()),
      since_(position.since) {
  for (const FilePosition& file : position.files)
    Resume(file);
  if (std::error_code ignored; !std::filesystem::exists(path_, ignored))
    AddFilesBetween(0);
  Look();
}

/// Finds a file of an earlier run. It may be renamed while the folder is read.
void FollowedLog::Resume(const FilePosition& position) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    std::vector<std::string> names;
    list_folder(folder_, &names);
    for (const std::string& name : names) {
      const std::string file = folder_ + "/" + name;
      struct stat status;
      if (stat(file.c_str(), &status) != 0 || status.st_ino != position.inode ||
          !S_ISREG(status.st_mode))
        continue;
      if (Open(file, position))
        return;
    }
  }
  if (!position.done)
    say(path_, "the file that was read up to byte " + std::to_string(position.offset) + " (inode " +
                   std::to_string(position.inode) +
                   ") is not in the folder any more: what it held behind that is not sent; replay "
                   "it without --follow");
}

/// Adds a file to be read from a position, unless it cannot be read, which is said. False when
/// another file has that name now, or none.
bool FollowedLog::Open(const std::string& name, const FilePosition& at) {
  FileDescriptor descriptor(open(name.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status;
  if (descriptor.get() < 0 || fstat(descriptor.get(), &status) != 0) {
    if (errno == ENOENT)
      return false;
    SayOnce("cannot read " + name + ": " + std::strerror(errno));
    return true;
  }
  if (status.st_ino != at.inode)
    return false;
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (size < at.offset ||
      (at.offset > 0 && start_checksum(descriptor.get(), at.offset) != at.start)) {
    // Look finds it: as a new file, which may have got the inode of one that was removed.
    if (name == path_ && !at.done)
      say(name, "is not the file that was read before, or got shorter: it is read from its start");
    return name == path_;
  }
  File file;
  file.at = at;
  if (name == path_ || !at.done || size > at.offset) {
    if (at.offset > 0)
      say(name, "is read on from byte " + std::to_string(at.offset));
    file.at.done = false;
    file.lines = std::make_unique<LineReader>(descriptor.Release(), name);
    file.lines->SkipTo(at.offset);
  }
  files_.push_back(std::move(file));
  return true;
}

LogReader::Step FollowedLog::Next(LogReader** log) {
  const auto now = Clock::now();
  if (now < next_look_)
    return LogReader::Step::kEnd;
  for (File& file : files_) {
    if (file.refused && !file.at.done && &file != &files_.back())
      file.Close();
    if (file.at.done || file.refused || now < file.next_look)
      continue;
    const LogReader::Step step = Read(&file);
    *log = file.reader.get();
    if (step != LogReader::Step::kEnd)
      return step;
    file.next_look = now + kBetweenLooks;
  }
  Look();
  next_look_ = now + kBetweenLooks;
  return LogReader::Step::kEnd;
}

void FollowedLog::Watch() {
  if (Clock::now() < next_watch_)
    return;
  Look();
  next_watch_ = Clock::now() + kBetweenLooks;
}

LogReader::Step FollowedLog::Read(File* file) {
  try {
    if (!file->reader)
      file->reader = make_reader(&file->lines);
    if (file->reader && !file->header_read && file->reader->ReadHeader()) {
      file->header_read = true;
      return LogReader::Step::kHeader;
    }
    const auto step = file->header_read ? file->reader->Next() : LogReader::Step::kEnd;
    if (step != LogReader::Step::kEnd) {
      file->at_end_since = Clock::time_point::max();
      return step;
    }
  } catch (const LogError&) {
    file->refused = true;
    throw;
  }
  if (file == &files_.back())
    return LogReader::Step::kEnd;
  file->at_end_since = std::min(file->at_end_since, Clock::now());
  if (Clock::now() - file->at_end_since < kAfterRotation)
    return LogReader::Step::kEnd;
  if (file->source()->growing() && file->source()->bytes_read() > 0) {
    file->source()->Finish();  // a last line without line end is reported now
    return Read(file);
  }
  file->Close();
  return LogReader::Step::kEnd;
}

/// Looks whether the path leads to another file.
void FollowedLog::Look() {
  LookForTruncation();
  const std::int64_t now = std::time(nullptr);
  struct stat status;
  if (stat(path_.c_str(), &status) != 0) {
    if (files_.empty())
      SayOnce(errno == ENOENT ? "is not there yet: waiting for it" : std::strerror(errno));
    return;
  }
  if (!S_ISREG(status.st_mode))
    return SayOnce("is not a regular file: it cannot be followed");
  const auto known = FindFile(status.st_ino);
  if (known != files_.end() && known + 1 == files_.end() && !known->at.done) {
    since_ = now;
    return;
  }
  if (known != files_.end()) {  // it has come back
    const FilePosition at = known->Position();
    files_.erase(known);
    Open(path_, at);
  } else if (AddFilesBetween(status.st_ino)) {
    FilePosition at;
    at.inode = status.st_ino;
    Open(path_, at);
  }
  while (files_.size() > kMostFiles && files_.front().at.done)
    files_.erase(files_.begin());
}

void FollowedLog::LookForTruncation() {
  struct stat status;
  if (files_.empty() || files_.back().at.done)
    return;
  const LineReader& lines = *files_.back().source();
  if (fstat(lines.descriptor(), &status) != 0 ||
      static_cast<std::uint64_t>(status.st_size) >= lines.bytes_read())
    return;
  say(lines.name(), "got shorter: it is read from its start");
  File file;
  file.at.inode = status.st_ino;
  const int descriptor = dup(lines.descriptor());
  lseek(descriptor, 0, SEEK_SET);
  file.lines = std::make_unique<LineReader>(descriptor, lines.name());
  files_.back() = std::move(file);
}

/// Adds the files that were at the path after the last one that was seen there. False when the
/// names have changed meanwhile.
bool FollowedLog::AddFilesBetween(std::uint64_t newest) {
  std::pair<long long, long> last = {since_, 0};
  struct stat last_file;
  if (!files_.empty() && !files_.back().at.done &&
      fstat(files_.back().source()->descriptor(), &last_file) == 0)
    last = time_of(last_file);
  std::vector<std::string> names;
  list_folder(folder_, &names);
  const std::string base = std::filesystem::path(path_).filename().string();
  struct Found {
    std::pair<long long, long> time;
    std::uint64_t inode;
    std::string file;
  };
  std::vector<Found> found;
  for (const std::string& name : names) {
    const std::string file = folder_ + "/" + name;
    struct stat status;
    if (!is_rotated_name(name, base) || stat(file.c_str(), &status) != 0 ||
        !S_ISREG(status.st_mode) || status.st_ino == newest ||
        FindFile(status.st_ino) != files_.end() || time_of(status) < last)
      continue;
    if (std::filesystem::path(name).extension() != ".gz")
      found.push_back({time_of(status), status.st_ino, file});
    else if (time_of(status) > last)
      say(file, "is newer than what was read, but compressed: replay it without --follow");
  }
  std::sort(found.begin(), found.end(),
            [](const Found& one, const Found& other) { return one.time < other.time; });
  for (const Found& one : found) {
    FilePosition at;
    at.inode = one.inode;
    if (!Open(one.file, at))
      return false;
  }
  return true;
}

std::vector<FollowedLog::File>::iterator FollowedLog::FindFile(std::uint64_t inode) {
  return std::find_if(files_.begin(), files_.end(),
                      [inode](const File& file) { return file.at.inode == inode; });
}

LogPosition FollowedLog::Position() const {
  LogPosition position{since_, {}};
  for (const File& file : files_)
    position.files.push_back(file.Position());
  return position;
}

void FollowedLog::SayOnce(const std::string& text) {
  if (said_ != text)
    say(path_, text);
  said_ = text;
}

}  // namespace zmqwriter
