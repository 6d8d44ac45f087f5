// A libzmq whose every outcome a test decides. Linking FakeZmq.cc puts it in the place of the real
// library, for the whole program. It has what src/ calls, and no more.
//
//     test::FakeZmq zmq;                       // everything succeeds
//     zmq.on_send = [](const std::string& endpoint, const std::string&) {
//       return endpoint != "tcp://down:5555";
//     };
//
// Calls go to the CallLog. Sockets are called s1, s2, ... in the order of their creation, and
// "null". Lines:
//     ctx_new  ctx_destroy  socket s1  connect s1 tcp://a:5555 ok  disconnect s1 tcp://a:5555
//     close s1  send s1 'body' ok  send null 'body' failed
// and as details .setsockopt, .getsockopt, .curve_keypair, .msg_init_size, .msg_init_data,
// .msg_close. Options are kept with their bytes in options().
//
// It checks the calls as it goes: misuse() has a line for each message that was closed twice or
// used without initialisation, each use of a closed socket, each context ended before its sockets.
// live_contents() is what message objects still own.
//
// One object at a time, alive as long as anything may call libzmq. The calls are thread-safe; the
// hooks are to be set before other threads call, run on the calling thread, and hold no lock.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace test {

class FakeZmq {
 public:
  struct Option {
    std::string socket;
    int option;
    std::string bytes;
  };

  FakeZmq();
  ~FakeZmq();
  FakeZmq(const FakeZmq&) = delete;
  FakeZmq& operator=(const FakeZmq&) = delete;

  // Outcomes. An empty hook is success.
  std::function<bool()> on_ctx_new;
  std::function<bool()> on_socket;
  std::function<bool(const std::string& endpoint)> on_connect;
  /// Not asked for a send on a null socket, which fails.
  std::function<bool(const std::string& endpoint, const std::string& body)> on_send;
  /// A failed call leaves no trace in options(), but the same line in the log.
  std::function<bool(int option)> on_setsockopt;
  /// A failed call writes no keys.
  std::function<bool()> on_curve_keypair;
  std::function<bool(std::size_t size)> on_init_size;
  std::function<bool(std::size_t size)> on_init_data;
  /// What ZMQ_EVENTS gives; -1 to fail. ZMQ_POLLOUT unless set.
  std::function<int()> on_events;

  std::vector<Option> options() const;
  std::vector<std::string> misuse() const;
  std::size_t live_contents() const;
  /// The data that each successful zmq_msg_init_data was given; to be compared, not to be read.
  std::vector<const void*> adopted() const;
  /// Names of the sockets that were not closed.
  std::vector<std::string> open_sockets() const;
};

}  // namespace test
