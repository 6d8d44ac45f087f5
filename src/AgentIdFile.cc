#include "AgentIdFile.h"

#include <dirent.h>
#include <string.h>
#include <sys/stat.h>

#include "Paths.h"
#include "Reports.h"

#include "UID.h"

namespace logging {
namespace writer {
namespace {

const std::size_t kMaxPathLength = 1024;
const mode_t kFolderMode = 0770;

std::string generate() {
  Bro::UID uid;
  uid.Set(128, nullptr, 0);
  return uid.Base62("");
}

bool store(const char* path, const std::string& agent_id) {
  FILE* file = fopen(path, "wb");
  if (!file)
    return false;
  const bool written = fwrite(agent_id.data(), 1, agent_id.size(), file) == agent_id.size();
  return fclose(file) == 0 && written;
}

}  // namespace

std::string AgentIdDetection::detect() {
  std::lock_guard<std::mutex> lock(mutex_);
  char path[kMaxPathLength] = {0};
  snprintf(path, sizeof path, "%s", paths::kInstallPrefix);
  if (!directoryExists(path))
    mkdir(path, kFolderMode);  // when it fails, so does writing the file, and that is reported
  const std::size_t length = strlen(path);
  snprintf(path + length, sizeof path - length, "%s", agent_id_file::kName);

  const std::string stored = agent_id_file::read(path);
  if (generated_.empty()) {
    if (!stored.empty())
      return stored;
    generated_ = generate();
  }
  if (stored.empty() && !store(path, generated_))
    reports::error("Failed to write to %s", path);
  return generated_;
}

bool directoryExists(const char* path) {
  DIR* folder = opendir(path);
  if (!folder)
    return false;
  closedir(folder);
  return true;
}

}  // namespace writer
}  // namespace logging
