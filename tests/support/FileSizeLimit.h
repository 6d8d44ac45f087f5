// A disk with no room, by way of a limit on the size of files.
#pragma once

#include <signal.h>
#include <sys/resource.h>

namespace test {

/// Lets files grow to `bytes` at most while it exists.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit limit = before_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, handler_);
  }

 private:
  rlimit before_;
  void (*handler_)(int);
};

}  // namespace test
