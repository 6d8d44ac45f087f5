// Reports become lines on standard output, for programs that have the worker but no host.
#include <cstdio>

#include "FakeReports.h"

void test::report(const std::string& line) {
  if (line[0] == '.')
    return;
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}
