// A libzmq context, terminated at the end of its life: its sockets must be closed by then.
#pragma once

namespace zmqwriter {

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

}  // namespace zmqwriter
