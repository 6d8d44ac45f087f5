// The look for room before a send, with which a backlog is sent without sleeping.
//
//     SendLook look;
//     look.before_send(socket);
//     zmq_sendmsg(socket, &msg, 0);    // the same either way
//
// With a high-water mark of 1 every message waits until libzmq's I/O thread has taken the one
// before, which it does before it encrypts that. A blocking send sleeps through this and is woken,
// and comes too late: by then the I/O thread has found nothing more to take and sleeps too, and so
// they wake each other for every single message, which costs more than all the rest. So this looks
// first, again and again, until there is room. Few looks are mostly enough, but when one of the two
// has slept, the other must wait longer to get back into step. Where the server or the network is
// what all wait for, looks are in vain: then more and more sends go without.
//
// One object per socket, used by the socket's thread. No errors: a socket that does not tell
// whether there is room is no longer asked, until the next send.
#pragma once

#include <cstddef>

#include <zmq.h>

namespace logging {
namespace writer {

class SendLook {
 public:
  /// Waits for room for a short time at most.
  void before_send(void* socket) {
    if (sends_without_look_ > 0) {
      --sends_without_look_;
      return;
    }
    for (int look = 0; look < kMaxLooks; ++look) {
      int events = 0;
      std::size_t length = sizeof events;
      if (zmq_getsockopt(socket, ZMQ_EVENTS, &events, &length) != 0)
        return;
      if (events & ZMQ_POLLOUT) {
        vain_looks_ = 0;
        return;
      }
    }
    sends_without_look_ = (1 << vain_looks_) - 1;
    if (vain_looks_ < kMostVainLooks)
      ++vain_looks_;
  }

 private:
  /// A look costs half a microsecond to one, so as many in vain cost about as much as the sleep
  /// that they should have saved.
  static constexpr int kMaxLooks = 128;
  /// In a row, so far as they count: at most 15 sends go without a look.
  static constexpr int kMostVainLooks = 4;

  int sends_without_look_ = 0;  ///< how many are still to come
  int vain_looks_ = 0;          ///< in a row
};

}  // namespace writer
}  // namespace logging
