// The stream that a subcommand writes its data to: standard output, or a file stream given.
//
// Writing is buffered; Flush hands everything on. After a failure (a full disk, a reader that has
// gone) nothing more is written and problem() says what happened. One thread.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

class Output {
 public:
  explicit Output(std::FILE* stream = stdout) : stream_(stream) {}

  void Write(std::string_view text);
  void WriteLine(std::string_view text);
  void Flush();

  bool failed() const { return !problem_.empty(); }
  /// Why writing failed, for standard error.
  const std::string& problem() const { return problem_; }

 private:
  void Fail();

  std::FILE* stream_;
  std::string problem_;
};
