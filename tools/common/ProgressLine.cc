#include "ProgressLine.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zmqwriter {

bool can_overwrite_lines() {
  const char* const kind = std::getenv("TERM");
  return isatty(STDERR_FILENO) == 1 && kind && *kind && std::strcmp(kind, "dumb") != 0;
}

ProgressLine::ProgressLine()
    : on_terminal_(can_overwrite_lines()),
      next_(std::chrono::steady_clock::now() + std::chrono::seconds(2)) {}

ProgressLine::~ProgressLine() {
  Clear();
}

bool ProgressLine::IsDue() const {
  return on_terminal_ && std::chrono::steady_clock::now() >= next_;
}

void ProgressLine::Show(const std::string& text) {
  next_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
  std::fprintf(stderr, "\r\033[K%s ", text.c_str());
  shown_ = true;
}

double ProgressLine::Rate(double number) {
  numbers_.emplace_back(std::chrono::steady_clock::now(), number);
  if (numbers_.size() > 10)
    numbers_.pop_front();
  const std::chrono::duration<double> time = numbers_.back().first - numbers_.front().first;
  return time.count() > 0 ? (number - numbers_.front().second) / time.count() : 0;
}

void ProgressLine::Clear() {
  if (shown_)
    std::fputs("\r\033[K", stderr);
  shown_ = false;
}

}  // namespace zmqwriter
