// A bounded spin for ZMQ_POLLOUT before a blocking send.
//
//     PolloutSpin spin;
//     spin.wait(socket);
//     zmq_sendmsg(socket, &msg, 0);    // the same with and without the spin
//
// With a high-water mark of 1 a message can be sent only after libzmq's I/O thread has taken the
// one before. A send that blocks for that sleeps and must be woken, and the I/O thread, which then
// finds nothing to take, sleeps too: the two wake each other for every message, which costs more
// than the sending. The spin asks for room up to kMaxPolls times instead. Where the server or the
// network is the bottleneck, spinning does not help: after each spin without success, more sends go
// without one.
//
// One object for each socket, used by the socket's thread. There are no errors: when libzmq does
// not answer, the send goes without waiting.
#pragma once

#include <cstddef>

#include <zmq.h>

namespace logging {
namespace writer {

class PolloutSpin {
 public:
  /// Waits for room for a short time at most.
  void wait(void* socket) {
    if (sends_without_spin_ > 0) {
      --sends_without_spin_;
      return;
    }
    for (int poll = 0; poll < kMaxPolls; ++poll) {
      int events = 0;
      std::size_t length = sizeof events;
      if (zmq_getsockopt(socket, ZMQ_EVENTS, &events, &length) != 0)
        return;
      if (events & ZMQ_POLLOUT) {
        failed_spins_ = 0;
        return;
      }
    }
    sends_without_spin_ = (1 << failed_spins_) - 1;
    if (failed_spins_ < kMaxFailedSpins)
      ++failed_spins_;
  }

 private:
  /// A poll costs half a microsecond to one: this many cost about as much as the sleep that the
  /// spin avoids.
  static constexpr int kMaxPolls = 128;
  /// In a row, as far as they are counted: at most 15 sends go without a spin.
  static constexpr int kMaxFailedSpins = 4;

  int sends_without_spin_ = 0;  ///< how many are still to come
  int failed_spins_ = 0;        ///< in a row
};

}  // namespace writer
}  // namespace logging
