#include "ConnectionMonitor.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <zmq.h>
#ifdef __linux__
#include <linux/tcp.h>  // glibc's own has an older tcp_info
#else
#include <netinet/tcp.h>
#endif
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Files.h"
#include "Metrics.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

constexpr char kEndpoint[] = "inproc://connections";
constexpr int kEvents = ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_HANDSHAKE_SUCCEEDED |
                        ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL | ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL |
                        ZMQ_EVENT_HANDSHAKE_FAILED_AUTH | ZMQ_EVENT_DISCONNECTED |
                        ZMQ_EVENT_MONITOR_STOPPED;

// The memory is looked at in this interval. The connections too when half of what is allowed is in
// use, else at each kRareLook-th look, because there may be thousands.
constexpr int kLookMs = 100;
constexpr unsigned kRareLook = 10;
// A connection that holds less is not ended. While the output accepts nothing, that of an agent
// holds PullSocket::kReceiveHighWater events.
constexpr std::uint64_t kLeastHeld = std::uint64_t{128} << 10;

// Open files that are kept free, of a low limit a quarter: for the output and the clients of the
// status server.
constexpr std::uint64_t kSpareFiles = 640;

std::uint64_t highest_descriptor() {
  const std::uint64_t limit = raise_open_files();
  return limit - std::min(kSpareFiles, limit / 4);
}

/// What libzmq has read from the connection. None for other sockets than those of TCP.
std::optional<std::uint64_t> bytes_read(int descriptor) {
#ifdef __linux__
  tcp_info info = {};
  constexpr int kOption = TCP_INFO;
  constexpr std::size_t kNeeded =
      offsetof(tcp_info, tcpi_bytes_received) + sizeof info.tcpi_bytes_received;
  const auto& received = info.tcpi_bytes_received;
#else
  tcp_connection_info info = {};
  constexpr int kOption = TCP_CONNECTION_INFO;
  constexpr std::size_t kNeeded = sizeof info;
  const auto& received = info.tcpi_rxbytes;
#endif
  socklen_t size = sizeof info;
  int unread = 0;
  if (getsockopt(descriptor, IPPROTO_TCP, kOption, &info, &size) != 0 || size < kNeeded ||
      ioctl(descriptor, FIONREAD, &unread) != 0)
    return std::nullopt;
  return received - std::min<std::uint64_t>(received, static_cast<std::uint64_t>(unread));
}

/// "192.0.2.1:50000", or "a local process".
std::string peer_name(int descriptor) {
  sockaddr_storage peer = {};
  socklen_t size = sizeof peer;
  char host[NI_MAXHOST], port[NI_MAXSERV];
  auto* const address = reinterpret_cast<sockaddr*>(&peer);
  if (getpeername(descriptor, address, &size) != 0)
    return "a client that has gone";
  if (getnameinfo(address, size, host, sizeof host, port, sizeof port,
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0 ||
      peer.ss_family == AF_UNIX)
    return "a local process";
  return (peer.ss_family == AF_INET6 ? "[" + std::string(host) + "]" : host) +
         (":" + std::string(port));
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
    case Refusal::kTooMany:
      return "there are too many connections for the limit of open files";
    case Refusal::kProtocol:
      break;
  }
  return "it went away before the handshake, or is no sender of ZeroMQ";
}

}  // namespace

ConnectionMonitor::ConnectionMonitor(const ZmqContext& context, PullSocket* socket,
                                     CollectStats* stats, bool quiet, std::uint64_t max_memory)
    : socket_(socket),
      stats_(stats),
      quiet_(quiet),
      max_memory_(max_memory),
      highest_(highest_descriptor()),
      events_(context, ZMQ_PAIR) {
  // Without a limit, because libzmq would wait for room, and with it all connections.
  if (!events_.Set(ZMQ_RCVHWM, 0) || !events_.Set(ZMQ_RCVTIMEO, kLookMs) ||
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

void ConnectionMonitor::NoteMessage(int descriptor) {
  const std::lock_guard<std::mutex> lock(mutex_);
  spoke_.insert(descriptor);
}

void ConnectionMonitor::Run() {
  using Clock = std::chrono::steady_clock;
  auto look_at = Clock::now();
  for (;;) {
    if (Clock::now() >= look_at) {
      LookAtMemory();
      look_at = Clock::now() + std::chrono::milliseconds(kLookMs);
    }
    const auto event = next_event(events_);
    if (!event && zmq_errno() != EINTR && zmq_errno() != EAGAIN)
      return;
    if (!event)
      continue;
    if (event->kind == ZMQ_EVENT_MONITOR_STOPPED)
      return;
    Note(event->kind, event->value);
  }
}

void ConnectionMonitor::Note(std::uint16_t event, std::uint32_t value) {
  const auto known = connections_.find(value);
  switch (event) {
    case ZMQ_EVENT_ACCEPTED:
      connections_[value] = {peer_name(static_cast<int>(value)), ++accepted_, false, 0,
                             value > highest_ ? Ended::kTooMany : Ended::kNot};
      if (value > highest_)
        shutdown(static_cast<int>(value), SHUT_RDWR);
      else if (memory_full_)
        EndForMemory(static_cast<int>(value), &connections_[value]);
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
    if (!at->second.connected && at->second.ended == Ended::kNot &&
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
  if (ended.ended != Ended::kMemory)
    Report(ended, ended.ended == Ended::kTooMany ? Refusal::kTooMany : refusal(failure_));
}

void ConnectionMonitor::LookAtMemory() {
  std::uint64_t used = memory_in_use();
#ifdef __GLIBC__
  if (memory_full_) {
    malloc_trim(0);  // what the connections held that were ended
    used = memory_in_use();
  }
#endif
  const bool was_full = memory_full_;
  memory_full_ = used >= max_memory_;
  if (used < max_memory_ / 2 && ++looks_ % kRareLook != 0)
    return;
  std::set<int> spoke;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    spoke.swap(spoke_);
  }
  std::vector<std::pair<std::uint64_t, std::int64_t>> holders;
  for (auto& [descriptor, connection] : connections_) {
    const int number = static_cast<int>(descriptor);
    const std::uint64_t held = Held(number, &connection, spoke.count(number) > 0);
    if (held >= kLeastHeld && connection.ended == Ended::kNot)
      holders.emplace_back(held, descriptor);
  }
  if (!memory_full_)
    return;
  std::sort(holders.begin(), holders.end(), std::greater<>());
  std::uint64_t freed = 0;
  for (const auto& [held, descriptor] : holders) {
    if (used < max_memory_ / 2 + freed)
      break;
    EndForMemory(static_cast<int>(descriptor), &connections_[descriptor]);
    freed += held;
  }
  if (freed == 0 && !was_full)
    std::fprintf(
        stderr,
        "warning: %llu MiB of memory are in use, more than --max-memory, and no connection "
        "holds much of it; new connections are refused\n",
        static_cast<unsigned long long>(used >> 20));
}

/// What libzmq has read since the connection's last message was taken. Of a silent connection for
/// which that is not known, it is taken to be enough.
std::uint64_t ConnectionMonitor::Held(int descriptor, Connection* connection, bool spoke) {
  const std::uint64_t read = bytes_read(descriptor).value_or(connection->taken + kLeastHeld);
  if (spoke)
    connection->taken = read;
  return read - std::min(read, connection->taken);
}

/// libzmq closes the connection when it comes to the end of what has been received.
void ConnectionMonitor::EndForMemory(int descriptor, Connection* connection) {
  if (peer_name(descriptor) != connection->peer)
    return;  // libzmq has closed it already
  shutdown(descriptor, SHUT_RDWR);
  connection->ended = Ended::kMemory;
  stats_->CountMemoryLimit();
  if (++ended_ <= kReported && !quiet_)
    std::fprintf(stderr, "connection from %s ended: more than --max-memory is in use%s\n",
                 connection->peer.c_str(),
                 ended_ == kReported ? " (further ones are only counted)" : "");
}

void ConnectionMonitor::Report(const Connection& connection, Refusal reason) {
  stats_->CountRefusal(reason);
  if (++refused_ <= kReported && !quiet_)
    std::fprintf(stderr, "connection from %s refused: %s%s\n", connection.peer.c_str(),
                 explanation(reason),
                 refused_ == kReported ? " (further ones are only counted)" : "");
}

}  // namespace zmqwriter
