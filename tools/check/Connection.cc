#include "Connection.h"

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <zmq.h>

#include "Text.h"
#include "Zmq.h"

namespace zmqwriter {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Time limit for finding out why a connection failed.
constexpr milliseconds kDiagnosis(1000);

/// Sets the plug-in's socket options that concern a connection, with a new key pair.
void make_agent(const ZmqSocket& socket, const worker_settings::ServerKey& key) {
  char public_key[worker_settings::kCurveKeyLength] = {0};
  char secret_key[worker_settings::kCurveKeyLength] = {0};
  if (zmq_curve_keypair(public_key, secret_key) != 0)
    throw std::runtime_error("this libzmq has no CURVE security");
  zmq_setsockopt(socket.get(), ZMQ_CURVE_PUBLICKEY, public_key, sizeof public_key);
  zmq_setsockopt(socket.get(), ZMQ_CURVE_SECRETKEY, secret_key, sizeof secret_key);
  zmq_setsockopt(socket.get(), ZMQ_CURVE_SERVERKEY, key.bytes, key.length);
}

/// The events of one socket, from libzmq's monitor.
class Monitor {
 public:
  Monitor(const ZmqContext& context, void* watched)
      : watched_(watched), events_(context, ZMQ_PAIR) {
    const char* const address = "inproc://events";
    if (zmq_socket_monitor(watched, address, ZMQ_EVENT_ALL) != 0 ||
        zmq_connect(events_.get(), address) != 0)
      throw std::runtime_error(std::string("cannot watch a socket: ") + zmq_strerror(zmq_errno()));
  }
  ~Monitor() { zmq_socket_monitor(watched_, nullptr, 0); }
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  /// False when none came before the deadline.
  bool Next(Clock::time_point deadline, std::uint16_t* event, std::uint32_t* value) {
    for (;;) {
      const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
      zmq_pollitem_t item = {events_.get(), 0, ZMQ_POLLIN, 0};
      const int ready = zmq_poll(&item, 1, left > 0 ? static_cast<long>(left) : 0);
      if (ready > 0 && Receive(event, value))
        return true;
      if (ready == 0 || (ready < 0 && zmq_errno() != EINTR))
        return false;
    }
  }

 private:
  /// An event has two parts: its number and value, and the address.
  bool Receive(std::uint16_t* event, std::uint32_t* value) {
    unsigned char bytes[sizeof *event + sizeof *value];
    char address[256];
    const int size = zmq_recv(events_.get(), bytes, sizeof bytes, ZMQ_DONTWAIT);
    if (size != static_cast<int>(sizeof bytes))
      return false;
    std::memcpy(event, bytes, sizeof *event);
    std::memcpy(value, bytes + sizeof *event, sizeof *value);
    zmq_recv(events_.get(), address, sizeof address, 0);
    return true;
  }

  void* const watched_;
  const ZmqSocket events_;
};

/// How a connection attempt ended, as far as libzmq reports it.
enum class End {
  kHandshakeDone,
  kMechanismMismatch,
  kBadCryptography,
  kOtherProtocolError,
  kDenied,
  kHungUp,        // once connected
  kNoConnection,  // the attempt failed
  kSilent,        // connected, and nothing more
  kNoAnswerAtAll,
};

End end_of_protocol_error(std::uint32_t value) {
  switch (value) {
    case ZMQ_PROTOCOL_ERROR_ZMTP_MECHANISM_MISMATCH:
      return End::kMechanismMismatch;
    case ZMQ_PROTOCOL_ERROR_ZMTP_CRYPTOGRAPHIC:
      return End::kBadCryptography;
    default:
      return End::kOtherProtocolError;
  }
}

/// Follows the first attempt to its end. `value` is the last event's.
End follow(Monitor* monitor, Clock::time_point deadline, std::uint32_t* value) {
  std::uint16_t event = 0;
  bool connected = false;
  while (monitor->Next(deadline, &event, value)) {
    switch (event) {
      case ZMQ_EVENT_CONNECTED:
        connected = true;
        break;
      case ZMQ_EVENT_HANDSHAKE_SUCCEEDED:
        return End::kHandshakeDone;
      case ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL:
        return end_of_protocol_error(*value);
      case ZMQ_EVENT_HANDSHAKE_FAILED_AUTH:
        return End::kDenied;
      case ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL:
      case ZMQ_EVENT_DISCONNECTED:
        return End::kHungUp;
      case ZMQ_EVENT_CONNECT_RETRIED:
        return connected ? End::kHungUp : End::kNoConnection;
      default:
        break;  // CONNECT_DELAYED: under way; CLOSED: a retry follows
    }
  }
  return connected ? End::kSilent : End::kNoAnswerAtAll;
}

/// Resolves on a thread of its own. False when no answer came before the deadline.
bool resolve_until(Clock::time_point deadline, const Network& network, const std::string& host,
                   Resolved* resolved) {
  struct Answer {
    std::mutex mutex;
    std::condition_variable arrived;
    bool done = false;
    Resolved resolved;
  };
  const auto answer = std::make_shared<Answer>();
  std::thread([answer, resolve = network.resolve, host] {
    Resolved result = resolve(host);
    const std::lock_guard<std::mutex> lock(answer->mutex);
    answer->resolved = std::move(result);
    answer->done = true;
    answer->arrived.notify_all();
  }).detach();
  std::unique_lock<std::mutex> lock(answer->mutex);
  if (!answer->arrived.wait_until(lock, deadline, [&] { return answer->done; }))
    return false;
  *resolved = answer->resolved;
  return true;
}

const char kCompareKeys[] =
    "compare zmq.public_key with the collector's server.public: all servers of an agent share one "
    "pair";
const char kStartServer[] =
    "start the collector; compare address and port with what it listens on; check firewalls";
const char kCheckPort[] = "compare the port with the one that the collector listens on";

std::string seconds_text(milliseconds time) {
  return formatted("%g s", static_cast<double>(time.count()) / 1000);
}

ConnectResult failure(const char* id, const std::string& text, const std::string& remedy) {
  return {false, id, text, remedy, 0};
}

ConnectResult other_mechanism(const std::string& mechanism) {
  const std::string name = mechanism.empty() ? "not CURVE" : mechanism;
  return failure(
      "connect-mechanism",
      "connected, but the server's security mechanism is " + name + ", and the plug-in's is CURVE",
      "make the server a CURVE server, with its secret key");
}

/// The other side closed the connection during the handshake and gave no reason. Its greeting to a
/// connection that names no mechanism tells the cases apart.
ConnectResult explain_hang_up(const PeerGreeting& peer) {
  if (peer.mechanism == "CURVE")
    return failure(
        "connect-wrong-key",
        "connected to a CURVE server, but it closed the connection during the handshake: "
        "most likely the server key is not the key of this server (a server whose "
        "socket is not a PULL socket, that denies agents, or that is just ending, "
        "behaves in the same way)",
        kCompareKeys);
  if (!peer.mechanism.empty())
    return other_mechanism(peer.mechanism);
  if (peer.any_byte)
    return failure("connect-not-zmq",
                   "connected, but not to a ZeroMQ 4 server: its first bytes are not a greeting "
                   "with security",
                   kCheckPort);
  return failure("connect-not-zmq",
                 "connected, but the other side closed the connection before it sent anything: it "
                 "is not a ZeroMQ server, or a firewall refuses this agent",
                 kCheckPort);
}

ConnectResult explain_silence(const PeerGreeting& peer, milliseconds timeout) {
  if (!peer.mechanism.empty())
    return failure("connect-unfinished",
                   "connected to a " + peer.mechanism +
                       " server, but it did not finish the handshake within " +
                       seconds_text(timeout) +
                       ": its check of agents (ZAP) does not answer or delays this one, or it is "
                       "overloaded",
                   "check the server's list of allowed agents, and its load");
  return failure("connect-silent",
                 "connected by TCP, but there was no answer to the greeting within " +
                     seconds_text(timeout) +
                     ": the server is stopped or overloaded, or it is not a ZeroMQ server",
                 "check whether the collector runs; compare the port with the one that it listens "
                 "on");
}

ConnectResult explain_no_connection(const PeerGreeting& peer) {
  if (peer.connect_problem.empty())
    return failure("connect-refused", "refused; a second attempt a moment later succeeded",
                   "try again: the server may be starting");
  if (peer.refused)
    return failure("connect-refused",
                   "refused: no program listens there (" + peer.connect_problem + ")",
                   kStartServer);
  return failure("connect-unreachable", "cannot be reached: " + peer.connect_problem, kStartServer);
}

/// `uri` as libzmq was given it.
ConnectResult explain(End end, std::uint32_t value, const std::string& uri, milliseconds timeout,
                      const Network& network) {
  char number[16];
  switch (end) {
    case End::kHandshakeDone:
      return {true, "connected", "connected, handshake done", "", 0};
    case End::kMechanismMismatch:
      return other_mechanism(network.greeting(uri, kDiagnosis).mechanism);
    case End::kBadCryptography:
      return failure("connect-wrong-key",
                     "connected, but the server's answer cannot be decrypted: the server key is "
                     "not the key of this server",
                     kCompareKeys);
    case End::kDenied:
      return failure(
          "connect-denied",
          "connected, but the server denies this agent (ZAP status " + std::to_string(value) + ")",
          "let the server accept any client key, or allow agents by address: an agent makes a new "
          "key pair for every connection");
    case End::kHungUp:
      return explain_hang_up(network.greeting(uri, kDiagnosis));
    case End::kSilent:
      return explain_silence(network.greeting(uri, kDiagnosis), timeout);
    case End::kNoConnection:
      return explain_no_connection(network.greeting(uri, kDiagnosis));
    case End::kNoAnswerAtAll:
      return failure("connect-timed-out",
                     "timed out: no TCP connection within " + seconds_text(timeout), kStartServer);
    case End::kOtherProtocolError:
      break;
  }
  std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned int>(value));
  return failure(
      "connect-protocol",
      std::string("connected, but the handshake failed with libzmq's protocol error ") + number,
      "check that it is a collector of this plug-in's events, with libzmq 4.0 or newer");
}

/// Replaces the name by its address, so that libzmq, which cannot be interrupted while it resolves,
/// does not ask the name service.
bool resolve_host(std::string* uri, milliseconds timeout, const Network& network,
                  ConnectResult* result) {
  const std::string host = host_of(*uri);
  Resolved resolved;
  if (!resolve_until(Clock::now() + timeout, network, host, &resolved))
    resolved.problem = "no answer from the name service within " + seconds_text(timeout);
  *uri = with_host(*uri, resolved.address);
  if (!resolved.problem.empty())
    *result = failure("connect-unresolved",
                      "the name '" + host + "' has no IPv4 address: " + resolved.problem,
                      "compare the name with the server's; try 'getent ahostsv4 NAME'");
  return resolved.problem.empty();
}

ConnectResult attempt(std::string uri, const worker_settings::ServerKey& key, milliseconds timeout,
                      const Network& network) {
  ConnectResult unresolved;
  if (uri.compare(0, 6, "tcp://") == 0 && !resolve_host(&uri, timeout, network, &unresolved))
    return unresolved;
  const auto deadline = Clock::now() + timeout;
  const ZmqContext context;
  const ZmqSocket socket(context, ZMQ_PUSH);
  make_agent(socket, key);
  Monitor monitor(context, socket.get());
  if (zmq_connect(socket.get(), uri.c_str()) != 0)
    return failure("connect-endpoint",
                   std::string("libzmq refuses the endpoint: ") + zmq_strerror(zmq_errno()),
                   "write it as host, host:port or tcp://host:port");
  std::uint32_t value = 0;
  const End end = follow(&monitor, deadline, &value);
  return explain(end, value, uri, timeout, network);
}

}  // namespace

ConnectResult try_connection(const std::string& uri, const worker_settings::ServerKey& key,
                             milliseconds timeout, const Network& network) {
  const auto start = Clock::now();
  ConnectResult result = attempt(uri, key, timeout, network);
  result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return result;
}

bool libzmq_takes_key(const worker_settings::ServerKey& key) {
  const ZmqContext context;
  const ZmqSocket socket(context, ZMQ_PUSH);
  return zmq_setsockopt(socket.get(), ZMQ_CURVE_SERVERKEY, key.bytes, key.length) == 0;
}

}  // namespace zmqwriter
