#include "Zmq.h"

#include <cstring>
#include <stdexcept>
#include <string>

#include <zmq.h>

namespace zmqwriter {

ZmqContext::ZmqContext() : context_(zmq_ctx_new()) {
  if (!context_)
    throw std::runtime_error(std::string("cannot start libzmq: ") + zmq_strerror(zmq_errno()));
}

ZmqContext::~ZmqContext() {
  while (zmq_ctx_term(context_) != 0 && zmq_errno() == EINTR) {
  }
}

void ZmqContext::Shutdown() {
  zmq_ctx_shutdown(context_);
}

ZmqSocket::ZmqSocket(const ZmqContext& context, int type)
    : socket_(zmq_socket(context.get(), type)) {
  if (!socket_)
    throw std::runtime_error(std::string("cannot open a socket: ") + zmq_strerror(zmq_errno()));
  Set(ZMQ_LINGER, 0);
}

void ZmqSocket::Close() {
  if (socket_)
    zmq_close(socket_);
  socket_ = nullptr;
}

bool ZmqSocket::Set(int option, int value) const {
  return zmq_setsockopt(socket_, option, &value, sizeof value) == 0;
}

std::optional<ZmqEvent> next_event(const ZmqSocket& monitor) {
  // Two parts: the event with its value, and the endpoint, which is cut.
  ZmqEvent event;
  char bytes[sizeof event.kind + sizeof event.value], endpoint[1];
  if (zmq_recv(monitor.get(), bytes, sizeof bytes, 0) < 0 ||
      zmq_recv(monitor.get(), endpoint, sizeof endpoint, 0) < 0)
    return std::nullopt;
  std::memcpy(&event.kind, bytes, sizeof event.kind);
  std::memcpy(&event.value, bytes + sizeof event.kind, sizeof event.value);
  return event;
}

}  // namespace zmqwriter
