#include "ZmqContext.h"

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

}  // namespace zmqwriter
