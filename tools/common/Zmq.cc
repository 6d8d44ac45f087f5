#include "Zmq.h"

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
  const int no_linger = 0;
  if (!socket_)
    throw std::runtime_error(std::string("cannot open a socket: ") + zmq_strerror(zmq_errno()));
  zmq_setsockopt(socket_, ZMQ_LINGER, &no_linger, sizeof no_linger);
}

void ZmqSocket::Close() {
  if (socket_)
    zmq_close(socket_);
  socket_ = nullptr;
}

}  // namespace zmqwriter
