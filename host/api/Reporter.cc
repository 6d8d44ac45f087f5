#include "Reporter.h"

#include <stdio.h>
#include <stdlib.h>

#include <mutex>
#include <string>
#include <vector>

#include "HostReporter.h"
#include "MainThread.h"

Reporter* reporter = nullptr;

namespace {

struct Output {
  std::mutex mutex;
  host::ReportSink sink = nullptr;
};

// Never destroyed: threads and static destructors may still report.
Output& output() {
  static Output* instance = new Output;
  return *instance;
}

std::string format_text(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));
std::string format_text(const char* fmt, va_list args) {
  va_list again;
  va_copy(again, args);
  const int length = vsnprintf(nullptr, 0, fmt, again);
  va_end(again);
  std::vector<char> text(static_cast<size_t>(length < 0 ? 0 : length) + 1);
  vsnprintf(text.data(), text.size(), fmt, args);
  return std::string(text.data(), text.size() - 1);
}

void deliver(const char* prefix, const std::string& text) {
  Output& out = output();
  std::lock_guard<std::mutex> lock(out.mutex);
  if (out.sink && out.sink(prefix, text))
    return;
  // Other threads may not look at the time.
  if (host::on_main_thread() && network_time != 0)
    fprintf(stderr, "%.6f ", network_time);
  fprintf(stderr, "%s%s%s\n", prefix, *prefix ? ": " : "", text.c_str());
  fflush(stderr);
}

// The host uses the name of a weird as a format without arguments.
std::string weird_text(const std::string& name) {
  std::string text;
  bool takes_arguments = false;
  for (size_t i = 0; i < name.size(); ++i) {
    text += name[i];
    if (name[i] != '%')
      continue;
    if (i + 1 < name.size() && name[i + 1] == '%')
      ++i;
    else
      takes_arguments = true;
  }
  if (takes_arguments)
    host::any_reporter().InternalWarning(
        "the host would take this weird's name as a format with arguments: \"%s\"", name.c_str());
  return text;
}

}  // namespace

Reporter& host::any_reporter() {
  static Reporter* last_resort = new Reporter;
  return reporter ? *reporter : *last_resort;
}

void host::set_report_sink(ReportSink sink) {
  std::lock_guard<std::mutex> lock(output().mutex);
  output().sink = sink;
}

#define HOST_REPORT(prefix)                \
  va_list args;                            \
  va_start(args, fmt);                     \
  deliver(prefix, format_text(fmt, args)); \
  va_end(args)

void Reporter::Info(const char* fmt, ...) {
  HOST_REPORT("");
}

void Reporter::Warning(const char* fmt, ...) {
  HOST_REPORT("warning");
}

void Reporter::Error(const char* fmt, ...) {
  ++errors;
  HOST_REPORT("error");
}

void Reporter::InternalWarning(const char* fmt, ...) {
  HOST_REPORT("internal warning");
}

void Reporter::FatalError(const char* fmt, ...) {
  HOST_REPORT("fatal error");
  exit(1);
}

void Reporter::FatalErrorWithCore(const char* fmt, ...) {
  HOST_REPORT("fatal error");
  abort();
}

void Reporter::InternalError(const char* fmt, ...) {
  HOST_REPORT("internal error");
  abort();
}

#undef HOST_REPORT

void Reporter::Weird(const char* name) {
  deliver("weird", weird_text(name));
}
