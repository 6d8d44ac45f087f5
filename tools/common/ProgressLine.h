// A line on standard error that says how far a long job has got: on a terminal, and only when the
// job takes more than two seconds. Elsewhere nothing is printed. One thread.
#pragma once

#include <chrono>
#include <string>

namespace zmqwriter {

class ProgressLine {
 public:
  ProgressLine();
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// Whether it is time to Show something new; cheap.
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
