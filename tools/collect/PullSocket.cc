#include "PullSocket.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <stdexcept>

#include "Text.h"

namespace zmqwriter {

namespace {

// Any name will do. Without one, some versions of libzmq do not ask about CURVE clients.
constexpr const char kDomain[] = "zmqwriter";

// What encryption adds to a message. libzmq's limit includes it.
constexpr std::size_t kCurveBytes = 33;

[[noreturn]] void fail(const std::string& what, const std::string& hint = "") {
  throw std::runtime_error(what + ": " + zmq_strerror(zmq_errno()) + hint);
}

/// What follows the scheme; empty if the endpoint has another one.
std::string after(const std::string& scheme, const std::string& endpoint) {
  return endpoint.rfind(scheme, 0) == 0 ? endpoint.substr(scheme.size()) : "";
}

/// libzmq removes any file that has the socket's name. Only a socket of a former run may be
/// removed.
bool would_replace_file(const std::string& endpoint) {
  struct stat status;
  return lstat(after("ipc://", endpoint).c_str(), &status) == 0 && !S_ISSOCK(status.st_mode);
}

bool configure(const ZmqSocket& socket, const CurveKey& secret_key, bool ask_gate) {
  const auto largest = static_cast<std::int64_t>(PullSocket::kLargestMessage + kCurveBytes);
  const auto set = [&](int option, const void* value, std::size_t size) {
    return zmq_setsockopt(socket.get(), option, value, size) == 0;
  };
  return socket.Set(ZMQ_RCVHWM, PullSocket::kReceiveHighWater) &&
         socket.Set(ZMQ_BACKLOG, PullSocket::kBacklog) &&
         socket.Set(ZMQ_HANDSHAKE_IVL, PullSocket::kHandshakeMs) &&
         set(ZMQ_MAXMSGSIZE, &largest, sizeof largest) && socket.Set(ZMQ_CURVE_SERVER, 1) &&
         set(ZMQ_CURVE_SECRETKEY, secret_key.data(), secret_key.size()) &&
         (!ask_gate || set(ZMQ_ZAP_DOMAIN, kDomain, sizeof kDomain - 1));
}

}  // namespace

std::string bind_endpoint_problem(const std::string& endpoint) {
  const std::string tcp = after("tcp://", endpoint);
  const std::size_t colon = tcp.rfind(':');
  const std::string port = colon == std::string::npos ? "" : tcp.substr(colon + 1);
  if ((colon != 0 && (port == "*" || number_in<std::uint16_t>(port))) ||
      !after("ipc://", endpoint).empty())
    return "";
  return "'" + endpoint + "' must be tcp://HOST:PORT, like tcp://127.0.0.1:5555, with * for a " +
         "port that the system chooses, or ipc://PATH";
}

PullSocket::PullSocket(ZmqContext* context, const CurveKey& secret_key, bool ask_gate)
    : socket_(*context, ZMQ_PULL) {
  if (!configure(socket_, secret_key, ask_gate))
    fail("cannot open a CURVE socket");
}

std::string PullSocket::Bind(const std::string& endpoint) {
  const std::string what = "cannot listen on '" + endpoint + "'";
  if (would_replace_file(endpoint))
    throw std::runtime_error(what + ": there is a file of this name that is not a socket");
  if (zmq_bind(socket_.get(), endpoint.c_str()) != 0)
    fail(what, zmq_errno() == ENODEV ? "; the host must be an IPv4 address of this machine, the "
                                       "name of one of its interfaces, or *"
                                     : "");
  char bound[1024];
  std::size_t size = sizeof bound;
  if (zmq_getsockopt(socket_.get(), ZMQ_LAST_ENDPOINT, bound, &size) != 0)
    fail("cannot tell the endpoint");
  return bound;
}

bool PullSocket::Wait(int timeout_ms) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
  zmq_pollitem_t item = {socket_.get(), 0, ZMQ_POLLIN, 0};
  int ready;
  while ((ready = zmq_poll(&item, 1, timeout_ms)) < 0 && zmq_errno() == EINTR) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    timeout_ms = std::max(0, static_cast<int>(left.count()));
  }
  return ready > 0;
}

bool PullSocket::Receive(zmq_msg_t* part) {
  do {
    if (zmq_msg_recv(part, socket_.get(), ZMQ_DONTWAIT) >= 0)
      return true;
  } while (zmq_errno() == EINTR);
  if (zmq_errno() != EAGAIN)
    fail("cannot receive");
  return false;
}

}  // namespace zmqwriter
