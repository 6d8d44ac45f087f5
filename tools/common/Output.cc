#include "Output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace zmqwriter {

namespace {

constexpr std::size_t kBufferBytes = 65536;

/// Whether a failed write may be tried again; waits until then.
bool try_again(int descriptor) {
  if (errno == EINTR)
    return true;
  if (errno != EAGAIN && errno != EWOULDBLOCK)
    return false;
  pollfd ready = {descriptor, POLLOUT, 0};
  return poll(&ready, 1, -1) >= 0 || errno == EINTR;
}

}  // namespace

std::size_t write_fully(int descriptor, std::string_view bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written = write(descriptor, bytes.data() + done, bytes.size() - done);
    if (written >= 0)
      done += static_cast<std::size_t>(written);
    else if (!try_again(descriptor))
      break;
  }
  return done;
}

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

void Output::Flush() {
  if (failed())
    return;
  // What others have left in the stream comes first.
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
