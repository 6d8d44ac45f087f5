// The stream that a subcommand writes its data to: standard output, or a file stream given.
//
// Writing is buffered; Flush hands everything on, and so does the destructor. After a failure (a
// full disk, a reader that has gone) nothing more is written and problem() says what happened. A
// signal that interrupts a write is no failure: the write goes on, so that nothing is lost when a
// reader is slow. One thread.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace zmqwriter {

class Output {
 public:
  explicit Output(std::FILE* stream = stdout) : stream_(stream) {}
  ~Output() { Flush(); }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Write(std::string_view text);
  void WriteLine(std::string_view text);
  void Flush();
  /// Flush, and std::runtime_error when not all could be written.
  void Finish();

  bool failed() const { return !problem_.empty(); }
  /// Why writing failed, for standard error.
  const std::string& problem() const { return problem_; }

 private:
  void Fail();

  std::FILE* stream_;
  std::string buffer_;
  std::string problem_;
};

/// What problem() says for an errno.
std::string output_problem(int error);

}  // namespace zmqwriter
