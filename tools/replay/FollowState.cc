#include "FollowState.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace zmqwriter {

namespace {

constexpr std::size_t kLargestState = std::size_t{16} << 20;
constexpr int kVersion = 1;

const char kStartAnew[] =
    "; to send the logs from their start (again), remove it; or name another file with --state";

std::string failure(const std::string& file, const char* what) {
  return file + ": " + what + ": " + std::strerror(errno);
}

}  // namespace

std::uint32_t start_checksum(int descriptor, std::uint64_t offset) {
  unsigned char start[1024];
  const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(offset, sizeof start));
  const ssize_t size = pread(descriptor, start, wanted, 0);
  return static_cast<std::uint32_t>(crc32(0, start, static_cast<uInt>(std::max<ssize_t>(size, 0))));
}

FollowState::FollowState(const std::string& file, const std::vector<std::string>& logs)
    : file_(file) {
  descriptor_.Reset(open(file.c_str(), O_RDWR | O_CLOEXEC));
  if (descriptor_.get() < 0 && errno == ENOENT) {
    for (const std::string& log : logs)
      positions_[log].since = std::time(nullptr);
    const std::string problem = Write(positions_, true);
    if (!problem.empty())
      throw std::runtime_error(problem);
    return;
  }
  if (descriptor_.get() < 0)
    throw std::runtime_error(failure(file, "cannot open the state"));
  if (flock(descriptor_.get(), LOCK_EX | LOCK_NB) != 0 || !leads_to(file, descriptor_.get()))
    throw std::runtime_error(file + ": in use by another 'replay --follow'");
  Read(read_small_file(file, kLargestState));
  if (!std::any_of(logs.begin(), logs.end(),
                   [this](const std::string& log) { return positions_.count(log) > 0; }))
    throw std::runtime_error(
        file + ": holds positions of other logs" +
        (positions_.empty() ? "" : " (" + positions_.begin()->first + " ...)") + kStartAnew);
}

void FollowState::Read(const std::string& content) {
  try {
    const auto state = nlohmann::json::parse(content);
    if (state.at("version").get<int>() != kVersion)
      throw std::runtime_error("another version");
    exact_ = state.at("exact").get<bool>();
    for (const auto& [path, log] : state.at("logs").items()) {
      LogPosition& position = positions_[path];
      position.since = log.at("since").get<std::int64_t>();
      for (const auto& file : log.at("files"))
        position.files.push_back(
            {file.at("inode").get<std::uint64_t>(), file.at("offset").get<std::uint64_t>(),
             file.at("start").get<std::uint32_t>(), file.at("done").get<bool>()});
    }
  } catch (const std::exception&) {
    throw std::runtime_error(file_ + ": damaged, or no state of 'replay --follow'" + kStartAnew);
  }
}

std::string FollowState::Write(const Positions& positions, bool exact) {
  for (const auto& [path, log] : positions)
    positions_[path] = log;
  nlohmann::json logs = nlohmann::json::object();
  for (const auto& [path, log] : positions_) {
    nlohmann::json files = nlohmann::json::array();
    for (const FilePosition& file : log.files)
      files.push_back({{"inode", file.inode},
                       {"offset", file.offset},
                       {"start", file.start},
                       {"done", file.done}});
    logs[path] = {{"since", log.since}, {"files", std::move(files)}};
  }
  const nlohmann::json state = {{"version", kVersion}, {"exact", exact}, {"logs", logs}};
  const std::string text =
      state.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";

  const std::string fresh = file_ + ".new";
  FileDescriptor descriptor(open(fresh.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (descriptor.get() < 0)
    return failure(fresh, "cannot write the state");
  const bool first = descriptor_.get() < 0;
  if (flock(descriptor.get(), LOCK_EX | LOCK_NB) != 0 ||
      write_fully(descriptor.get(), text) != text.size() ||
      !(first ? rename_without_replacing(fresh, file_)
              : std::rename(fresh.c_str(), file_.c_str()) == 0))
    return failure(fresh, "cannot write the state");
  descriptor_.Reset(descriptor.Release());
  return "";
}

}  // namespace zmqwriter
