#include "standin/ReportRecorder.h"

#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <mutex>

#include "HostReporter.h"

namespace standin {

namespace {

// Never destroyed: threads and static destructors may still report.
struct Recording {
  std::mutex mutex;
  bool on = false;
  std::vector<Report> reports;
};

Recording& recording() {
  static Recording* instance = new Recording;
  return *instance;
}

ReportKind kind_of(const std::string& prefix) {
  static const std::map<std::string, ReportKind> kinds = {
      {"", ReportKind::kInfo},
      {"warning", ReportKind::kWarning},
      {"error", ReportKind::kError},
      {"weird", ReportKind::kWeird},
      {"internal warning", ReportKind::kInternalWarning}};
  const auto found = kinds.find(prefix);
  return found == kinds.end() ? ReportKind::kFatal : found->second;
}

// What ends the process is printed, too.
bool record(const char* prefix, const std::string& text) {
  const Report report = {kind_of(prefix), text, std::this_thread::get_id()};
  std::lock_guard<std::mutex> lock(recording().mutex);
  recording().reports.push_back(report);
  return report.kind != ReportKind::kFatal;
}

}  // namespace

ReportRecorder::ReportRecorder() {
  {
    std::lock_guard<std::mutex> lock(recording().mutex);
    if (recording().on) {
      fprintf(stderr, "one ReportRecorder at a time\n");
      abort();
    }
    recording().on = true;
  }
  host::set_report_sink(record);
  if (!reporter)
    reporter = new Reporter;
}

ReportRecorder::~ReportRecorder() {
  host::set_report_sink(nullptr);
  std::lock_guard<std::mutex> lock(recording().mutex);
  recording().on = false;
  recording().reports.clear();
}

std::vector<Report> ReportRecorder::Reports() const {
  std::lock_guard<std::mutex> lock(recording().mutex);
  return recording().reports;
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
  std::lock_guard<std::mutex> lock(recording().mutex);
  recording().reports.clear();
}

}  // namespace standin
