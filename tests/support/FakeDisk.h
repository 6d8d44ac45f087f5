// Decides what getcwd and statvfs say. Linking FakeDisk.cc puts both calls of the whole program
// under its control while a FakeDisk exists; otherwise they do what they always do.
#pragma once

#include <cstdint>
#include <string>

namespace test {

class FakeDisk {
 public:
  FakeDisk();
  ~FakeDisk();
  FakeDisk(const FakeDisk&) = delete;
  FakeDisk& operator=(const FakeDisk&) = delete;

  // What getcwd gives; empty to fail.
  std::string working_folder = "/the/working/folder";
  // What statvfs gives.
  bool statvfs_works = true;
  std::uint64_t block_bytes = 4096;
  std::uint64_t fragment_bytes = 1024;
  // 32 bits, as on Darwin.
  std::uint32_t blocks = 0;
  std::uint32_t free_blocks = 0;
  std::uint32_t available_blocks = 0;
  // What statvfs was asked for last; empty: never.
  std::string asked;
};

}  // namespace test
