// The stream that a subcommand writes its data to: standard output, or a file stream given.
//
// Writing is buffered; Flush and the destructor write what is buffered. After a failure (a full
// disk, a reader that has gone) nothing more is written, and problem() says what happened. A write
// that a signal interrupts continues. One thread.
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
  /// Prints a line on standard error, after what was written so far: the order is kept where both
  /// streams go to the same file.
  void Note(std::string_view text);
  void Flush();
  /// Flushes; throws std::runtime_error when something could not be written.
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
