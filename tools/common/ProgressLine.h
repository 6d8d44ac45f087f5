// A line on standard error with the progress of a job. It is printed only on a terminal that can
// overwrite it, and only when the job takes more than two seconds. One thread.
#pragma once

#include <chrono>
#include <string>

namespace zmqwriter {

/// Whether standard error is a terminal that can overwrite a line; TERM=dumb says that it cannot.
bool can_overwrite_lines();

class ProgressLine {
 public:
  ProgressLine();
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// Whether it is time to call Show; cheap.
  bool IsDue() const;
  void Show(const std::string& text);
  /// Removes the line, so that something else can be printed.
  void Clear();

 private:
  const bool on_terminal_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace zmqwriter
