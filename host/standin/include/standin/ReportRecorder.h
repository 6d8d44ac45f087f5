// Switches the stand-in's reporter from stderr to memory, for tests.
//
// While a recorder exists every report is kept with its kind and the thread that made it, and
// nothing is printed. FatalError, FatalErrorWithCore and InternalError still end the process.
// Thread-safe. One recorder at a time.
#pragma once

#include <string>
#include <thread>
#include <vector>

namespace standin {

enum class ReportKind { kInfo, kWarning, kError, kWeird, kFatal, kInternalWarning };

struct Report {
  ReportKind kind;
  std::string text;
  std::thread::id thread;
};

class ReportRecorder {
 public:
  ReportRecorder();
  ~ReportRecorder();
  ReportRecorder(const ReportRecorder&) = delete;
  ReportRecorder& operator=(const ReportRecorder&) = delete;

  /// All reports so far, oldest first.
  std::vector<Report> Reports() const;
  /// The texts of one kind, oldest first.
  std::vector<std::string> Texts(ReportKind kind) const;
  void Clear();
};

}  // namespace standin
