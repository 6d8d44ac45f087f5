#include "FakeDisk.h"

#include <dlfcn.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "LibcNoexcept.h"

namespace {

test::FakeDisk* fake = nullptr;

}  // namespace

namespace test {

FakeDisk::FakeDisk() {
  fake = this;
}

FakeDisk::~FakeDisk() {
  fake = nullptr;
}

}  // namespace test

extern "C" {

char* getcwd(char* buffer, std::size_t size) LIBC_NOEXCEPT {
  if (!fake) {
    static const auto real =
        reinterpret_cast<char* (*)(char*, std::size_t)>(dlsym(RTLD_NEXT, "getcwd"));
    return real(buffer, size);
  }
  if (fake->working_folder.empty() || fake->working_folder.size() >= size) {
    errno = fake->working_folder.empty() ? ENOENT : ERANGE;
    return nullptr;
  }
  return std::strcpy(buffer, fake->working_folder.c_str());
}

int statvfs(const char* path, struct statvfs* disk) LIBC_NOEXCEPT {
  if (!fake) {
    static const auto real =
        reinterpret_cast<int (*)(const char*, struct statvfs*)>(dlsym(RTLD_NEXT, "statvfs"));
    return real(path, disk);
  }
  fake->asked = path;
  std::memset(disk, 0, sizeof *disk);
  disk->f_bsize = fake->block_bytes;
  disk->f_frsize = fake->fragment_bytes;
  disk->f_blocks = fake->blocks;
  disk->f_bfree = fake->free_blocks;
  disk->f_bavail = fake->available_blocks;
  if (fake->statvfs_works)
    return 0;
  // Even a failed call has written something: it must not be taken for figures.
  errno = EIO;
  return -1;
}
}
