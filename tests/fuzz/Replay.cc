// Gives every file of the folders named on the command line to a fuzz target: its corpus as an
// ordinary test, without a fuzzer.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "TempDir.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i)
    for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
      if (entry.is_regular_file())
        files.push_back(std::filesystem::absolute(entry.path()));
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    // Named before it runs, so that a crash shows which it was.
    std::printf("%s\n", file.filename().c_str());
    std::fflush(stdout);
    const std::string content = test::read_file(file.string());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()), content.size());
  }
  std::printf("%zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
