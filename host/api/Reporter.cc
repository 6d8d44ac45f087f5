#include "Reporter.h"

#include <stdio.h>
#include <stdlib.h>

#include <mutex>
#include <thread>
#include <vector>

#include "Conn.h"
#include "HostReporter.h"
#include "Val.h"
#include "standin/MainThread.h"
#include "standin/ReportRecorder.h"

using standin::ReportKind;

Reporter* reporter = nullptr;
double network_time = 0;

namespace {

// What every report needs, whatever thread it comes from.
struct Output {
  std::mutex mutex;
  bool recording = false;
  std::vector<standin::Report> recorded;
};

// Never destroyed: threads and static destructors may still report.
Output& output() {
  static Output* instance = new Output;
  return *instance;
}

// network_time as other threads may read it.
std::atomic<double> shared_network_time(0);

double time_of_report() {
  return standin::on_main_thread() ? network_time
                                   : shared_network_time.load(std::memory_order_relaxed);
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

// The host uses the name of a weird as a format without arguments.
std::string weird_text(const std::string& name) {
  std::string text;
  bool complaint = false;
  for (size_t i = 0; i < name.size(); ++i) {
    text += name[i];
    if (name[i] != '%')
      continue;
    if (i + 1 < name.size() && name[i + 1] == '%')
      ++i;
    else
      complaint = true;
  }
  if (complaint)
    standin::host_reporter().InternalWarning(
        "the host would take this weird's name as a format with arguments: \"%s\"", name.c_str());
  return text;
}

std::string describe(const Location* location) {
  ODesc d;
  location->Describe(&d);
  return d.Description();
}

}  // namespace

namespace standin {

Reporter& host_reporter() {
  static Reporter* last_resort = new Reporter;
  return reporter ? *reporter : *last_resort;
}

void set_network_time(double seconds) {
  network_time = seconds;
  shared_network_time = seconds;
}

ReportRecorder::ReportRecorder() {
  std::lock_guard<std::mutex> lock(output().mutex);
  if (output().recording) {
    fprintf(stderr, "one ReportRecorder at a time\n");
    abort();
  }
  output().recording = true;
  output().recorded.clear();
  if (!reporter)
    reporter = new Reporter;
}

ReportRecorder::~ReportRecorder() {
  std::lock_guard<std::mutex> lock(output().mutex);
  output().recording = false;
  output().recorded.clear();
}

std::vector<Report> ReportRecorder::Reports() const {
  std::lock_guard<std::mutex> lock(output().mutex);
  return output().recorded;
}

std::vector<std::string> ReportRecorder::Texts(ReportKind kind) const {
  std::vector<std::string> texts;
  for (const Report& report : Reports()) {
    if (report.kind == kind)
      texts.push_back(report.text);
  }
  return texts;
}

void ReportRecorder::Clear() {
  std::lock_guard<std::mutex> lock(output().mutex);
  output().recorded.clear();
}

}  // namespace standin

Reporter::Reporter() : errors(0), locations() {}

Reporter::~Reporter() {}

void Reporter::Report(ReportKind kind, const char* prefix, const char* fmt, va_list args) {
  Deliver(kind, prefix, format_text(fmt, args));
}

void Reporter::Deliver(ReportKind kind, const char* prefix, const std::string& text) {
  if (kind == ReportKind::kError)
    ++errors;
  Output& out = output();
  std::lock_guard<std::mutex> lock(out.mutex);
  if (out.recording) {
    out.recorded.push_back({kind, text, std::this_thread::get_id()});
    if (kind != ReportKind::kFatal)
      return;
  }
  std::string line;
  const double time = time_of_report();
  if (time != 0) {
    char number[64];
    snprintf(number, sizeof(number), "%.6f ", time);
    line += number;
  }
  line += prefix;
  if (!locations.empty())
    line += (*prefix ? " in " : "") + describe(locations.back());
  if (*prefix || !locations.empty())
    line += ": ";
  line += text + "\n";
  fwrite(line.data(), 1, line.size(), stderr);
  fflush(stderr);
}

#define STANDIN_REPORT(kind, prefix)           \
  va_list args;                                \
  va_start(args, fmt);                         \
  Report(ReportKind::kind, prefix, fmt, args); \
  va_end(args)

void Reporter::Info(const char* fmt, ...) {
  STANDIN_REPORT(kInfo, "");
}

void Reporter::Warning(const char* fmt, ...) {
  STANDIN_REPORT(kWarning, "warning");
}

void Reporter::Error(const char* fmt, ...) {
  STANDIN_REPORT(kError, "error");
}

void Reporter::InternalWarning(const char* fmt, ...) {
  STANDIN_REPORT(kInternalWarning, "internal warning");
}

void Reporter::AnalyzerError(analyzer::Analyzer*, const char* fmt, ...) {
  STANDIN_REPORT(kError, "analyzer error");
}

void Reporter::FatalError(const char* fmt, ...) {
  STANDIN_REPORT(kFatal, "fatal error");
  exit(1);
}

void Reporter::FatalErrorWithCore(const char* fmt, ...) {
  STANDIN_REPORT(kFatal, "fatal error");
  abort();
}

void Reporter::InternalError(const char* fmt, ...) {
  STANDIN_REPORT(kFatal, "internal error");
  abort();
}

void Reporter::ExprRuntimeError(const Expr*, const char* fmt, ...) {
  STANDIN_REPORT(kError, "expression error");
  throw InterpreterException();
}

void Reporter::RuntimeError(const Location* location, const char* fmt, ...) {
  PushLocation(location);
  STANDIN_REPORT(kError, "runtime error");
  PopLocation();
  throw InterpreterException();
}

#undef STANDIN_REPORT

// The stand-in has no system log of its own to write to.
void Reporter::Syslog(const char*, ...) {}

int Reporter::Errors() {
  return errors;
}

void Reporter::Weird(const char* name) {
  Deliver(ReportKind::kWeird, "weird", weird_text(name));
}

void Reporter::Weird(Connection* conn, const char* name, const char* addl) {
  ODesc d;
  conn->Describe(&d);
  Deliver(ReportKind::kWeird, "weird",
          weird_text(name) + (*addl ? std::string(" ") + addl : "") + " (" + d.Description() + ")");
}

void Reporter::Weird(Val* conn_val, const char* name, const char* addl) {
  Deliver(ReportKind::kWeird, "weird", weird_text(name) + (*addl ? std::string(" ") + addl : ""));
  Unref(conn_val);
}

void Reporter::Weird(const IPAddr& orig, const IPAddr& resp, const char* name) {
  Deliver(ReportKind::kWeird, "weird",
          weird_text(name) + " (" + orig.AsString() + " > " + resp.AsString() + ")");
}

void Reporter::PushLocation(const Location* location) {
  std::lock_guard<std::mutex> lock(output().mutex);
  locations.push_back(location);
}

void Reporter::PushLocation(const Location* loc1, const Location*) {
  PushLocation(loc1);
}

void Reporter::PopLocation() {
  std::lock_guard<std::mutex> lock(output().mutex);
  locations.pop_back();
}
