// A line on standard error with the progress of a job. It is printed only on a terminal that can
// overwrite it, and only when the job takes more than two seconds. One thread.
#pragma once

#include <chrono>
#include <deque>
#include <string>
#include <utility>

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
  /// How fast a number grows a second since the last calls, for Show. Numbers must not fall.
  double Rate(double number);
  /// Removes the line, so that something else can be printed.
  void Clear();

 private:
  const bool on_terminal_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point next_;
  // Of the last ten calls of Rate.
  std::deque<std::pair<std::chrono::steady_clock::time_point, double>> numbers_;
};

}  // namespace zmqwriter
