#include "ClientGate.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <zmq.h>

#include "Files.h"
#include "StopSignals.h"

namespace zmqwriter {

namespace {

constexpr const char* kVersion = "1.0";
constexpr std::uint64_t kReportedDenials = 10;

// The frames of a request: version, request id, domain, address, routing id, mechanism, and for
// CURVE the client's public key.
enum Frame { kVersionFrame, kRequestId, kDomain, kAddress, kRoutingId, kMechanism, kPublicKey };
constexpr std::size_t kCurveFrames = kPublicKey + 1;

// Some 16,000 keys with a comment each.
constexpr std::size_t kLongestFile = std::size_t{4} << 20;

std::string_view without_comment_and_blanks(std::string_view line) {
  line = line.substr(0, line.find('#'));
  const char* const blanks = " \t\r";
  line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
  return line.substr(0, line.find_last_not_of(blanks) + 1);
}

}  // namespace

AllowList read_allow_list(const std::string& path) {
  const std::string content = read_small_file(path, kLongestFile);
  AllowList keys;
  std::string_view rest = content;
  for (std::size_t number = 1; !rest.empty(); ++number) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    const std::string_view line = without_comment_and_blanks(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.empty())
      continue;
    CurveKey key;
    const std::string problem = parse_key(line, "this line", &key);
    if (!problem.empty())
      throw std::runtime_error(path + ":" + std::to_string(number) + ": " + problem);
    keys.insert(key);
  }
  if (keys.empty())
    throw std::runtime_error(path + ": holds no key, so no client could connect");
  return keys;
}

ClientGate::ClientGate(ZmqContext* context, AllowList allowed, bool quiet)
    : context_(context), quiet_(quiet), socket_(*context, ZMQ_REP), allowed_(std::move(allowed)) {
  if (zmq_bind(socket_.get(), kEndpoint) != 0)
    throw std::runtime_error(std::string("cannot check clients: ") + zmq_strerror(zmq_errno()));
  const SignalsHeldBack held_back;
  thread_ = std::thread(&ClientGate::Serve, this);
}

ClientGate::~ClientGate() {
  context_->Shutdown();
  thread_.join();
}

void ClientGate::Replace(AllowList allowed) {
  const std::lock_guard<std::mutex> lock(mutex_);
  allowed_ = std::move(allowed);
}

void ClientGate::Serve() {
  std::vector<std::string> request;
  while (ReceiveRequest(&request) && !held_)
    Answer(request);
  // Nothing comes any more before an answer is given, but libzmq would not ask without this socket.
  zmq_pollitem_t item = {socket_.get(), 0, ZMQ_POLLIN, 0};
  while (zmq_poll(&item, 1, -1) >= 0 || zmq_errno() == EINTR) {
  }
  socket_.Close();
}

/// False once the context is shut down.
bool ClientGate::ReceiveRequest(std::vector<std::string>* frames) {
  frames->clear();
  zmq_msg_t part;
  zmq_msg_init(&part);
  bool whole = false;
  while (!whole) {
    if (zmq_msg_recv(&part, socket_.get(), 0) >= 0) {
      frames->emplace_back(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
      whole = !zmq_msg_more(&part);
    } else if (zmq_errno() != EINTR) {
      break;
    }
  }
  zmq_msg_close(&part);
  return whole;
}

void ClientGate::Answer(const std::vector<std::string>& request) {
  const bool understood = request.size() == kCurveFrames && request[kVersionFrame] == kVersion &&
                          request[kMechanism] == "CURVE";
  const bool allowed = understood && IsAllowed(request[kPublicKey]);
  if (allowed) {
    ++accepted_;
  } else {
    ++denied_;
    if (understood)
      ReportDenied(request[kPublicKey], request[kAddress]);
  }
  const std::string id = request.size() > kRequestId ? request[kRequestId] : "";
  const std::array<std::string, 6> reply = {
      kVersion, id, allowed ? "200" : "400", allowed ? "OK" : "key not allowed", "", ""};
  for (std::size_t i = 0; i < reply.size(); ++i)
    zmq_send(socket_.get(), reply[i].data(), reply[i].size(),
             i + 1 < reply.size() ? ZMQ_SNDMORE : 0);
}

bool ClientGate::IsAllowed(const std::string& public_key) {
  CurveKey key;
  if (public_key.size() != key.size())
    return false;
  std::copy(public_key.begin(), public_key.end(), key.begin());
  const std::lock_guard<std::mutex> lock(mutex_);
  return allowed_.count(key) > 0;
}

void ClientGate::ReportDenied(const std::string& public_key, const std::string& address) {
  if (quiet_ || denied_ > kReportedDenials)
    return;
  CurveKey key{};
  std::copy_n(public_key.begin(), std::min(public_key.size(), key.size()), key.begin());
  std::fprintf(stderr, "client at %s turned away, its key is not allowed: %s%s\n", address.c_str(),
               to_hex(key).c_str(),
               denied_ == kReportedDenials ? " (further ones are only counted)" : "");
}

}  // namespace zmqwriter
