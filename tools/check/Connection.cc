#include "Connection.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <future>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

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

/// How the first attempt to connect ended, as far as libzmq reports it.
struct Ending {
  std::uint16_t event = 0;  // that ended it; 0: none came in time
  std::uint32_t value = 0;  // of that
  bool connected = false;   // the other side took the connection
};

/// Reads libzmq's events of a socket until one ends the attempt.
Ending follow(const ZmqSocket& events, Clock::time_point deadline) {
  Ending ending;
  for (;;) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    events.Set(ZMQ_RCVTIMEO, static_cast<int>(std::max(left, milliseconds(0)).count()));
    const auto event = next_event(events);
    if (!event && zmq_errno() != EINTR)
      return ending;
    switch (event ? event->kind : 0) {
      case ZMQ_EVENT_CONNECTED:
        ending.connected = true;
        break;
      case ZMQ_EVENT_HANDSHAKE_SUCCEEDED:
      case ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL:
      case ZMQ_EVENT_HANDSHAKE_FAILED_AUTH:
      case ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL:
      case ZMQ_EVENT_DISCONNECTED:
      case ZMQ_EVENT_CONNECT_RETRIED:
        ending.event = event->kind;
        ending.value = event->value;
        return ending;
      default:
        break;  // CONNECT_DELAYED: under way; CLOSED: a retry follows
    }
  }
}

/// Resolves on a thread of its own. Nothing when no answer came before the deadline.
std::optional<Resolved> resolve_until(Clock::time_point deadline, const Network& network,
                                      const std::string& host) {
  std::promise<Resolved> promise;
  std::future<Resolved> answer = promise.get_future();
  std::thread([promise = std::move(promise), resolve = network.resolve, host]() mutable {
    promise.set_value(resolve(host));
  }).detach();
  if (answer.wait_until(deadline) != std::future_status::ready)
    return std::nullopt;
  return answer.get();
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

ConnectResult protocol_error(std::uint32_t value) {
  char number[16];
  std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned int>(value));
  return failure(
      "connect-protocol",
      std::string("connected, but the handshake failed with libzmq's protocol error ") + number,
      "check that it is a collector of this plug-in's events, with libzmq 4.0 or newer");
}

ConnectResult no_connection(const PeerGreeting& peer) {
  if (peer.connect_problem.empty())
    return failure("connect-refused", "refused; a second attempt a moment later succeeded",
                   "try again: the server may be starting");
  if (peer.refused)
    return failure("connect-refused",
                   "refused: no program listens there (" + peer.connect_problem + ")",
                   kStartServer);
  return failure("connect-unreachable", "cannot be reached: " + peer.connect_problem, kStartServer);
}

/// There was no answer to the handshake within the time.
ConnectResult silence(const PeerGreeting& peer, const std::string& time) {
  if (!peer.mechanism.empty())
    return failure("connect-unfinished",
                   "connected to a " + peer.mechanism +
                       " server, but it did not finish the handshake within " + time +
                       ": its check of agents (ZAP) does not answer or delays this one, or it is "
                       "overloaded",
                   "check the server's list of allowed agents, and its load");
  return failure("connect-silent",
                 "connected by TCP, but there was no answer to the greeting within " + time +
                     ": the server is stopped or overloaded, or it is not a ZeroMQ server",
                 "check whether the collector runs; compare the port with the one that it listens "
                 "on");
}

/// The other side closed the connection during the handshake and gave no reason. Its greeting to a
/// connection that names no mechanism tells the cases apart.
ConnectResult hang_up(const PeerGreeting& peer) {
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
  return failure("connect-not-zmq",
                 peer.any_byte
                     ? "connected, but not to a ZeroMQ 4 server: its first bytes are not a "
                       "greeting with security"
                     : "connected, but the other side closed the connection before it sent "
                       "anything: it is not a ZeroMQ server, or a firewall refuses this agent",
                 kCheckPort);
}

/// `uri` as libzmq was given it.
ConnectResult explain(const Ending& ending, const std::string& uri, milliseconds timeout,
                      const Network& network) {
  const bool failed = ending.event == ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL;
  const bool mismatch = failed && ending.value == ZMQ_PROTOCOL_ERROR_ZMTP_MECHANISM_MISMATCH;
  if (ending.event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED)
    return {true, "connected", "connected, handshake done", "", 0};
  if (failed && ending.value == ZMQ_PROTOCOL_ERROR_ZMTP_CRYPTOGRAPHIC)
    return failure("connect-wrong-key",
                   "connected, but the server's answer cannot be decrypted: the server key is not "
                   "the key of this server",
                   kCompareKeys);
  if (failed && !mismatch)
    return protocol_error(ending.value);
  if (ending.event == ZMQ_EVENT_HANDSHAKE_FAILED_AUTH)
    return failure("connect-denied",
                   "connected, but the server denies this agent (ZAP status " +
                       std::to_string(ending.value) + ")",
                   "let the server accept any client key, or allow agents by address: an agent "
                   "makes a new key pair for every connection");
  if (ending.event == 0 && !ending.connected)
    return failure("connect-timed-out",
                   "timed out: no TCP connection within " + seconds_text(timeout), kStartServer);
  const PeerGreeting peer = network.greeting(uri, kDiagnosis);
  return mismatch            ? other_mechanism(peer.mechanism)
         : ending.event == 0 ? silence(peer, seconds_text(timeout))
         : ending.event == ZMQ_EVENT_CONNECT_RETRIED && !ending.connected ? no_connection(peer)
                                                                          : hang_up(peer);
}

/// Replaces the name by its address, so that libzmq, which cannot be interrupted while it resolves,
/// does not ask the name service.
bool resolve_host(std::string* uri, milliseconds timeout, const Network& network,
                  ConnectResult* result) {
  const std::string host = host_of(*uri);
  const Resolved resolved = resolve_until(Clock::now() + timeout, network, host)
                                .value_or(Resolved{"", "no answer from the name service within " +
                                                           seconds_text(timeout)});
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
  const ZmqSocket events(context, ZMQ_PAIR);
  const char* const address = "inproc://events";
  if (zmq_socket_monitor(socket.get(), address, ZMQ_EVENT_ALL) != 0 ||
      zmq_connect(events.get(), address) != 0)
    throw std::runtime_error(std::string("cannot watch a socket: ") + zmq_strerror(zmq_errno()));
  const int problem = zmq_connect(socket.get(), uri.c_str()) == 0 ? 0 : zmq_errno();
  const Ending ending = problem ? Ending() : follow(events, deadline);
  zmq_socket_monitor(socket.get(), nullptr, 0);
  if (problem)
    return failure("connect-endpoint",
                   std::string("libzmq refuses the endpoint: ") + zmq_strerror(problem),
                   "write it as host, host:port or tcp://host:port");
  return explain(ending, uri, timeout, network);
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
