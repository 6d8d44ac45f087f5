// Stands in for src/Reports.cc where there is no host: every report becomes a line ("info: text",
// "warning: text", "error: text", "weird: text") for test::report, at once, on the thread that
// makes it.
#include "FakeReports.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "Reports.h"

namespace {

void report(const std::string& kind, const char* format, std::va_list arguments) {
  char text[4096];
  std::vsnprintf(text, sizeof text, format, arguments);
  test::report(kind + ": " + text);
}

}  // namespace

namespace reports {

void weird(const char* text) {
  test::report(std::string("weird: ") + text);
}

void info(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  report("info", format, arguments);
  va_end(arguments);
}

void warning(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  report("warning", format, arguments);
  va_end(arguments);
}

void error(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  report("error", format, arguments);
  va_end(arguments);
}

void deliver_pending() {
  test::report(".deliver_pending");
}

}  // namespace reports

/// The host's, which does not return.
extern "C" void out_of_memory(const char* where) {
  std::fprintf(stderr, "out of memory in %s.\n", where);
  std::abort();
}
