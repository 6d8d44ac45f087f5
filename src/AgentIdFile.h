// The agent-id file as the writer reads it, for the writer and for whoever looks it over.
#pragma once

#include <stdio.h>

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
