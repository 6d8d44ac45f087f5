// The agent's identifier on disk: the file "agent.id" in the install prefix, which holds the
// identifier as raw bytes.
#pragma once

#include <stdio.h>

#include <cstddef>
#include <mutex>
#include <string>

namespace agent_id_file {

/// Behind the install prefix.
constexpr const char* kName = "/agent.id";

constexpr std::size_t kMaxLength = 1024;

/// The first kMaxLength bytes of the file exactly as they stand; empty when it cannot be read.
inline std::string read(const char* path) {
  FILE* file = fopen(path, "rb");
  if (!file)
    return "";
  char bytes[kMaxLength];
  const std::size_t length = fread(bytes, 1, sizeof bytes, file);
  fclose(file);
  return std::string(bytes, length);
}

}  // namespace agent_id_file

namespace logging {
namespace writer {

/// Finds out the identifier of this agent, or makes one. One object serves the whole process.
class AgentIdDetection {
 public:
  /// The identifier in the file. Without one, a generated identifier, which is stored in the file;
  /// where that fails, the error "Failed to write to <path>" is reported. An identifier that was
  /// generated stays the answer, whether or not it could be stored or can be read back. Any thread;
  /// calls run one after the other.
  std::string detect();

 private:
  std::mutex mutex_;
  std::string generated_;  // guarded by mutex_
};

/// Whether the folder can be opened.
bool directoryExists(const char* path);

}  // namespace writer
}  // namespace logging
