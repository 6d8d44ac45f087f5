// Stands in for src/Reports.cc in programs that have the worker but no host: every report becomes a
// line on standard output ("warning: text"), at once.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "Reports.h"

namespace {

void print(const char* kind, const char* format, std::va_list arguments) {
  char text[2048];
  std::vsnprintf(text, sizeof text, format, arguments);
  std::printf("%s: %s\n", kind, text);
  std::fflush(stdout);
}

}  // namespace

namespace reports {

void weird(const char* text) {
  std::printf("weird: %s\n", text);
}

void info(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  print("info", format, arguments);
  va_end(arguments);
}

void warning(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  print("warning", format, arguments);
  va_end(arguments);
}

void error(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  print("error", format, arguments);
  va_end(arguments);
}

void deliver_pending() {}

}  // namespace reports

/// The host's, which does not return.
extern "C" void out_of_memory(const char* where) {
  std::fprintf(stderr, "out of memory in %s.\n", where);
  std::abort();
}
