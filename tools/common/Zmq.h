// A libzmq context and its sockets, ended at the end of their lives.
#pragma once

#include <cstdint>
#include <optional>

namespace zmqwriter {

/// Its sockets must be closed before it ends.
class ZmqContext {
 public:
  /// Throws std::runtime_error when there is no more room for one.
  ZmqContext();
  ~ZmqContext();
  ZmqContext(const ZmqContext&) = delete;
  ZmqContext& operator=(const ZmqContext&) = delete;

  void* get() const { return context_; }
  /// Every call that blocks on a socket of the context returns with ETERM. Any thread.
  void Shutdown();

 private:
  void* context_;
};

/// Used by one thread at a time. Does not linger: what is still to be sent is lost with it.
class ZmqSocket {
 public:
  /// `type` is ZMQ_PULL, ... Throws std::runtime_error.
  ZmqSocket(const ZmqContext& context, int type);
  ~ZmqSocket() { Close(); }
  ZmqSocket(const ZmqSocket&) = delete;
  ZmqSocket& operator=(const ZmqSocket&) = delete;

  void* get() const { return socket_; }
  void Close();
  /// Sets an option that is an int; false with libzmq's errno when it is not accepted.
  bool Set(int option, int value) const;

 private:
  void* socket_;
};

/// One event of libzmq's monitor of a socket (ZMQ_EVENT_...).
struct ZmqEvent {
  std::uint16_t kind;
  std::uint32_t value;
};

/// Takes the next event from the socket that is connected to a monitor. Nothing, with libzmq's
/// errno, when none has come within ZMQ_RCVTIMEO or a signal has.
std::optional<ZmqEvent> next_event(const ZmqSocket& monitor);

}  // namespace zmqwriter
