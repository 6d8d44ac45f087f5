// The program Sink as a child process: who sends to it shares no processor time with it.
//
//     bench::SinkProcess sink;                 // listens from now on
//     connect(sink.endpoint(), sink.public_key());
//     sink.expect(100, 1000);                  // 100 more before that, which are not counted
//     ... send ...
//     const bench::Received received = sink.wait();
//
// One thread; the process ends with the object. Anything that goes wrong, a message that does not
// come within a minute included, ends the program with a message: there is nothing to measure then.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "System.h"

namespace bench {

struct Received {
  std::uint64_t messages;
  std::uint64_t bytes;  ///< of all messages together, those before included
  double seconds;       ///< from the message before them, if there was one, to the last
};

class SinkProcess {
 public:
  SinkProcess() {
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

  ~SinkProcess() {
    std::fclose(to_);
    std::fclose(from_);
    waitpid(pid_, nullptr, 0);
  }

  SinkProcess(const SinkProcess&) = delete;
  SinkProcess& operator=(const SinkProcess&) = delete;

  const std::string& endpoint() const { return endpoint_; }
  /// As 64 upper-case hexadecimal digits.
  const std::string& public_key() const { return public_key_; }

  /// Stops and starts listening, at the same endpoint.
  void close() { order("close", "closed"); }
  void open() { order("open", "opened"); }

  /// Begins to receive: so many messages that are thrown away, and those that count.
  void expect(std::uint64_t warm_up, std::uint64_t messages) {
    tell("expect " + std::to_string(warm_up) + " " + std::to_string(messages));
  }

  /// Until all that were expected are there.
  Received wait() {
    Received received = {};
    if (std::sscanf(answer().c_str(), "received %" SCNu64 " %" SCNu64 " %*u %lf",
                    &received.messages, &received.bytes, &received.seconds) != 3)
      give_up("an odd answer");
    return received;
  }

 private:
  void tell(const std::string& line) {
    if (std::fprintf(to_, "%s\n", line.c_str()) < 0 || std::fflush(to_) != 0)
      give_up("does not listen");
  }

  std::string answer() {
    char line[512];
    if (!std::fgets(line, sizeof line, from_))
      give_up("ended early");
    return line;
  }

  void order(const std::string& command, const std::string& expected) {
    tell(command);
    if (answer() != expected + "\n")
      give_up("an odd answer");
  }

  pid_t pid_;
  FILE* to_;
  FILE* from_;
  std::string endpoint_;
  std::string public_key_;
};

}  // namespace bench
