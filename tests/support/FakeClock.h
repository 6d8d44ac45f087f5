// A clock that only moves when a thread sleeps. Linking FakeClock.cc puts usleep and gettimeofday
// of the whole program under its control while a FakeClock exists; otherwise they do what they
// always do.
//
// A sleep goes to the CallLog ("sleep 1000000 us") and takes no time. Thread-safe.
#pragma once

#include <cstdint>

namespace test {

class FakeClock {
 public:
  explicit FakeClock(std::int64_t start_seconds = 1400000000);
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  std::int64_t now_us() const;
  /// Time that passes otherwise, say in a send that waits for its time-out.
  void advance_us(std::int64_t us);
};

}  // namespace test
