// Stands in for src/Reports.cc where there is no host: every report goes to the CallLog at once
// ("info: text", "warning: text", "error: text", "weird: text"), on the thread that makes it, so
// that its place among the other calls can be asserted.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "CallLog.h"
#include "Reports.h"

namespace {

void record(const char* kind, const char* format, va_list arguments) {
  char text[4096];
  std::vsnprintf(text, sizeof text, format, arguments);
  test::CallLog::instance().add(std::string(kind) + ": " + text);
}

}  // namespace

namespace reports {

void weird(const char* text) {
  test::CallLog::instance().add(std::string("weird: ") + text);
}

void info(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record("info", format, arguments);
  va_end(arguments);
}

void warning(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record("warning", format, arguments);
  va_end(arguments);
}

void error(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record("error", format, arguments);
  va_end(arguments);
}

void deliver_pending() {
  test::CallLog::instance().add(".deliver_pending");
}

}  // namespace reports

/// The host's, which does not return.
extern "C" void out_of_memory(const char* where) {
  std::fprintf(stderr, "out of memory in %s.\n", where);
  std::abort();
}
