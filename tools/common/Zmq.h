// A libzmq context and its sockets, ended at the end of their lives.
#pragma once

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

 private:
  void* socket_;
};

}  // namespace zmqwriter
