#include "ConnectionMonitor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "StopSignals.h"

namespace zmqwriter {

namespace {

constexpr char kEndpoint[] = "inproc://connections";
constexpr int kEvents = ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_HANDSHAKE_SUCCEEDED |
                        ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL | ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL |
                        ZMQ_EVENT_HANDSHAKE_FAILED_AUTH | ZMQ_EVENT_DISCONNECTED |
                        ZMQ_EVENT_MONITOR_STOPPED;

/// "192.0.2.1:50000", or "a local process".
std::string peer_name(int descriptor) {
  sockaddr_storage peer = {};
  socklen_t size = sizeof peer;
  char text[INET6_ADDRSTRLEN];
  if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) != 0)
    return "a client that has gone";
  if (peer.ss_family == AF_INET) {
    const auto& address = reinterpret_cast<const sockaddr_in&>(peer);
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text + (":" + std::to_string(ntohs(address.sin_port)));
  }
  if (peer.ss_family == AF_INET6) {
    const auto& address = reinterpret_cast<const sockaddr_in6&>(peer);
    inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text);
    return "[" + std::string(text) + "]:" + std::to_string(ntohs(address.sin6_port));
  }
  return "a local process";
}

Refusal refusal(std::uint32_t failure) {
  switch (failure) {
    case ZMQ_PROTOCOL_ERROR_ZMTP_CRYPTOGRAPHIC:
      return Refusal::kOtherKey;
    case ZMQ_PROTOCOL_ERROR_ZMTP_MECHANISM_MISMATCH:
      return Refusal::kNoCurve;
    case EAGAIN:
      return Refusal::kTimedOut;
    default:
      return Refusal::kProtocol;
  }
}

const char* explanation(Refusal reason) {
  switch (reason) {
    case Refusal::kOtherKey:
      return "it has another public key of this server; compare its zmq.public_key with the one "
             "above";
    case Refusal::kNoCurve:
      return "it does not use CURVE; agents need zmq.public_key";
    case Refusal::kTimedOut:
      return "it did not finish the handshake in time";
    case Refusal::kProtocol:
      break;
  }
  return "it went away before the handshake, or is no sender of ZeroMQ";
}

}  // namespace

ConnectionMonitor::ConnectionMonitor(const ZmqContext& context, PullSocket* socket,
                                     CollectStats* stats, bool quiet)
    : socket_(socket), stats_(stats), quiet_(quiet), events_(context, ZMQ_PAIR) {
  // Without a limit, because libzmq would wait for room, and with it all connections.
  const int unlimited = 0;
  if (zmq_setsockopt(events_.get(), ZMQ_RCVHWM, &unlimited, sizeof unlimited) != 0 ||
      zmq_socket_monitor(socket->get(), kEndpoint, kEvents) != 0 ||
      zmq_connect(events_.get(), kEndpoint) != 0)
    throw std::runtime_error(std::string("cannot watch the connections: ") +
                             zmq_strerror(zmq_errno()));
  const SignalsHeldBack held_back;
  thread_ = std::thread(&ConnectionMonitor::Run, this);
}

ConnectionMonitor::~ConnectionMonitor() {
  zmq_socket_monitor(socket_->get(), nullptr, 0);  // the thread ends at the event of that
  thread_.join();
}

void ConnectionMonitor::Run() {
  for (;;) {
    // Two parts: the event with its value, and the endpoint.
    char event[6], endpoint[1];
    if (zmq_recv(events_.get(), event, sizeof event, 0) < 0 ||
        zmq_recv(events_.get(), endpoint, sizeof endpoint, 0) < 0) {
      if (zmq_errno() == EINTR)
        continue;
      return;
    }
    std::uint16_t kind;
    std::uint32_t value;
    std::memcpy(&kind, event, sizeof kind);
    std::memcpy(&value, event + sizeof kind, sizeof value);
    if (kind == ZMQ_EVENT_MONITOR_STOPPED)
      return;
    Note(kind, value);
  }
}

void ConnectionMonitor::Note(std::uint16_t event, std::uint32_t value) {
  const auto known = connections_.find(value);
  switch (event) {
    case ZMQ_EVENT_ACCEPTED:
      connections_[value] = {peer_name(static_cast<int>(value)), ++accepted_, false};
      break;
    case ZMQ_EVENT_HANDSHAKE_SUCCEEDED:
      if (const auto newest = NewestUnknown(); newest != connections_.end())
        newest->second.connected = true;
      stats_->NoteConnections(++connected_);
      break;
    case ZMQ_EVENT_HANDSHAKE_FAILED_AUTH:
      denied_ = true;
      break;
    case ZMQ_EVENT_DISCONNECTED:
      if (known != connections_.end())
        End(known);
      failure_ = 0;
      denied_ = false;
      break;
    default:  // the connection's end follows at once
      failure_ = value;
  }
}

ConnectionMonitor::Connections::iterator ConnectionMonitor::NewestUnknown() {
  auto newest = connections_.end();
  for (auto at = connections_.begin(); at != connections_.end(); ++at)
    if (!at->second.connected &&
        (newest == connections_.end() || at->second.number > newest->second.number))
      newest = at;
  return newest;
}

void ConnectionMonitor::End(Connections::iterator connection) {
  const Connection ended = connection->second;
  connections_.erase(connection);
  if (denied_)
    return;
  if (failure_ != 0 && ended.connected) {
    // It was taken for another one.
    if (const auto other = NewestUnknown(); other != connections_.end())
      other->second.connected = true;
  } else if (ended.connected) {
    stats_->NoteConnections(--connected_);
    return;
  }
  Report(ended, refusal(failure_));
}

void ConnectionMonitor::Report(const Connection& connection, Refusal reason) {
  stats_->CountRefusal(reason);
  if (++refused_ <= kReported && !quiet_)
    std::fprintf(stderr, "connection from %s refused: %s%s\n", connection.peer.c_str(),
                 explanation(reason),
                 refused_ == kReported ? " (further ones are only counted)" : "");
}

}  // namespace zmqwriter
