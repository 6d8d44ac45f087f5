#include "Output.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "Files.h"

namespace zmqwriter {

constexpr std::size_t kBufferBytes = 65536;

std::string output_problem(int error) {
  return std::string("cannot write the output: ") + std::strerror(error);
}

void Output::Write(std::string_view text) {
  if (failed())
    return;
  buffer_.append(text);
  if (buffer_.size() >= kBufferBytes)
    Flush();
}

void Output::WriteLine(std::string_view text) {
  Write(text);
  Write("\n");
}

void Output::Note(std::string_view text) {
  Flush();
  std::fprintf(stderr, "%.*s\n", static_cast<int>(text.size()), text.data());
}

void Output::Flush() {
  if (failed())
    return;
  // Text that other code has put into the stream comes first.
  if (std::fflush(stream_) != 0 || write_fully(fileno(stream_), buffer_) != buffer_.size())
    Fail();
  buffer_.clear();
}

void Output::Finish() {
  Flush();
  if (failed())
    throw std::runtime_error(problem_);
}

void Output::Fail() {
  problem_ = output_problem(errno);
}

}  // namespace zmqwriter
