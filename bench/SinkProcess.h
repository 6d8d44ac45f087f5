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

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace bench {

struct Received {
  std::uint64_t messages;
  std::uint64_t bytes;  ///< of all messages together, those before included
  double seconds;       ///< from the message before them, if there was one, to the last
};

class SinkProcess {
 public:
  SinkProcess();
  ~SinkProcess();
  SinkProcess(const SinkProcess&) = delete;
  SinkProcess& operator=(const SinkProcess&) = delete;

  const std::string& endpoint() const { return endpoint_; }
  /// As 64 upper-case hexadecimal digits.
  const std::string& public_key() const { return public_key_; }

  /// Stops and starts listening, at the same endpoint.
  void close() { order("close", "closed"); }
  void open() { order("open", "opened"); }

  /// Begins to receive: so many messages that are thrown away, and those that count.
  void expect(std::uint64_t warm_up, std::uint64_t messages);
  /// Until all that were expected are there.
  Received wait();

 private:
  void tell(const std::string& line);
  std::string answer();
  void order(const std::string& command, const std::string& expected);

  pid_t pid_;
  FILE* to_;
  FILE* from_;
  std::string endpoint_;
  std::string public_key_;
};

}  // namespace bench
