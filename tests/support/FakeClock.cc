#include "FakeClock.h"

#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "CallLog.h"
#include "LibcNoexcept.h"

namespace {

std::atomic<bool> active{false};
std::atomic<std::int64_t> fake_us{0};

}  // namespace

namespace test {

FakeClock::FakeClock(std::int64_t start_seconds) {
  fake_us = start_seconds * 1000000;
  active = true;
}

FakeClock::~FakeClock() {
  active = false;
}

std::int64_t FakeClock::now_us() const {
  return fake_us;
}

void FakeClock::advance_us(std::int64_t us) {
  fake_us += us;
}

}  // namespace test

extern "C" {

int usleep(useconds_t us) {
  if (active) {
    fake_us += us;
    test::CallLog::instance().add("sleep " + std::to_string(us) + " us");
    return 0;
  }
  struct timespec pause;
  pause.tv_sec = us / 1000000;
  pause.tv_nsec = static_cast<long>(us % 1000000) * 1000;
  return nanosleep(&pause, nullptr);
}

int gettimeofday(struct timeval* now, void*) LIBC_NOEXCEPT {
  std::int64_t us = fake_us;
  if (!active) {
    struct timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    us = static_cast<std::int64_t>(real.tv_sec) * 1000000 + real.tv_nsec / 1000;
  }
  now->tv_sec = static_cast<time_t>(us / 1000000);
  now->tv_usec = static_cast<suseconds_t>(us % 1000000);
  return 0;
}
}
