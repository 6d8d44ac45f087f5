#include "SinkProcess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdlib>
#include <sstream>

#include "System.h"

namespace bench {

SinkProcess::SinkProcess() {
  int input[2];
  int output[2];
  if (pipe(input) != 0 || pipe(output) != 0)
    give_up("no pipe");
  for (const int end : {input[0], input[1], output[0], output[1]})
    fcntl(end, F_SETFD, FD_CLOEXEC);
  pid_ = fork();
  if (pid_ < 0)
    give_up("no process");
  if (pid_ == 0) {
    dup2(input[0], STDIN_FILENO);
    dup2(output[1], STDOUT_FILENO);
    execl(ZMQWRITER_BENCH_SINK, "Sink", static_cast<char*>(nullptr));
    _exit(127);
  }
  ::close(input[0]);
  ::close(output[1]);
  to_ = fdopen(input[1], "w");
  from_ = fdopen(output[0], "r");
  std::istringstream greeting(answer());
  if (!(greeting >> endpoint_ >> public_key_))
    give_up("an odd greeting");
}

SinkProcess::~SinkProcess() {
  std::fclose(to_);
  std::fclose(from_);
  waitpid(pid_, nullptr, 0);
}

void SinkProcess::expect(std::uint64_t warm_up, std::uint64_t messages) {
  tell("expect " + std::to_string(warm_up) + " " + std::to_string(messages));
}

Received SinkProcess::wait() {
  Received received = {};
  if (std::sscanf(answer().c_str(), "received %" SCNu64 " %" SCNu64 " %*u %lf", &received.messages,
                  &received.bytes, &received.seconds) != 3)
    give_up("an odd answer");
  return received;
}

void SinkProcess::tell(const std::string& line) {
  if (std::fprintf(to_, "%s\n", line.c_str()) < 0 || std::fflush(to_) != 0)
    give_up("does not listen");
}

std::string SinkProcess::answer() {
  char line[512];
  if (!std::fgets(line, sizeof line, from_))
    give_up("ended early");
  return line;
}

void SinkProcess::order(const std::string& command, const std::string& expected) {
  tell(command);
  if (answer() != expected + "\n")
    give_up("an odd answer");
}

}  // namespace bench
