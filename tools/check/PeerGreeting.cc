#include "PeerGreeting.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>

#include "Files.h"

namespace zmqwriter {

namespace {

using Clock = std::chrono::steady_clock;

// ZeroMQ 4's greeting: signature, version, mechanism, as-server, filler.
constexpr std::size_t kGreetingSize = 64;
constexpr std::size_t kVersionAt = 10;
constexpr std::size_t kMechanismAt = 12;
constexpr std::size_t kMechanismSize = 20;
const unsigned char kGreetingStart[] = {0xff, 0, 0, 0, 0, 0, 0, 0, 1, 0x7f, 3, 0};

#ifdef MSG_NOSIGNAL
constexpr int kSendFlags = MSG_NOSIGNAL;
#else
constexpr int kSendFlags = 0;  // the program ignores SIGPIPE
#endif

struct Address {
  sockaddr_storage bytes;
  socklen_t size;
};

using AddressList = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

/// Null, and `problem` set, when there is none.
AddressList look_up(const std::string& host, const std::string& port, int flags,
                    std::string* problem) {
  addrinfo hints = {};
  hints.ai_flags = flags;
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error =
      getaddrinfo(host.c_str(), port.empty() ? nullptr : port.c_str(), &hints, &found);
  if (error != 0)
    *problem = error == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(error);
  return AddressList(error == 0 ? found : nullptr, freeaddrinfo);
}

/// The part "host:port" of a tcp endpoint.
std::string target_of(const std::string& uri) {
  const std::string rest = uri.substr(uri.find("://") + 3);
  return rest.substr(rest.rfind(';') + 1);
}

bool tcp_address(const std::string& uri, Address* address, std::string* problem) {
  const std::string target = target_of(uri);
  const AddressList found = look_up(host_of(uri), target.substr(target.rfind(':') + 1),
                                    AI_NUMERICHOST | AI_NUMERICSERV, problem);
  if (!found)
    return false;
  std::memcpy(&address->bytes, found->ai_addr, found->ai_addrlen);
  address->size = found->ai_addrlen;
  return true;
}

bool ipc_address(const std::string& uri, Address* address, std::string* problem) {
  const std::string path = uri.substr(std::strlen("ipc://"));
  sockaddr_un local = {};
  local.sun_family = AF_UNIX;
  if (path.size() >= sizeof local.sun_path) {
    *problem = "the path is too long";
    return false;
  }
  std::memcpy(local.sun_path, path.data(), path.size());
  std::size_t size = offsetof(sockaddr_un, sun_path) + path.size();
  if (path[0] == '@')
    local.sun_path[0] = '\0';  // a name without a file, on Linux
  else
    ++size;
  std::memcpy(&address->bytes, &local, size);
  address->size = static_cast<socklen_t>(size);
  return true;
}

/// Waits until the socket is ready for `events`; false at the deadline.
bool wait_for(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd waiting = {fd, events, 0};
    const int ready = poll(&waiting, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready > 0)
      return true;
    if (ready == 0 || errno != EINTR)
      return false;
  }
}

/// The system's error number; 0 for a connection, ETIMEDOUT at the deadline.
int connect_within(int fd, const Address& address, Clock::time_point deadline) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address.bytes), address.size) == 0)
    return 0;
  if (errno != EINPROGRESS)
    return errno;
  if (!wait_for(fd, POLLOUT, deadline))
    return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

void read_greeting(int fd, Clock::time_point deadline, PeerGreeting* result) {
  unsigned char bytes[kGreetingSize];
  std::size_t size = 0;
  while (size < sizeof bytes && wait_for(fd, POLLIN, deadline)) {
    const ssize_t got = recv(fd, bytes + size, sizeof bytes - size, 0);
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (got <= 0)
      break;
    size += static_cast<std::size_t>(got);
  }
  result->any_byte = size > 0;
  if (size < sizeof bytes || bytes[0] != kGreetingStart[0] || bytes[9] != kGreetingStart[9] ||
      bytes[kVersionAt] < 3)
    return;
  const char* const name = reinterpret_cast<const char*>(bytes + kMechanismAt);
  result->mechanism.assign(name, strnlen(name, kMechanismSize));
}

}  // namespace

PeerGreeting fetch_greeting(const std::string& uri, std::chrono::milliseconds timeout) {
  PeerGreeting result;
  Address address = {};
  const bool is_tcp = uri.compare(0, 6, "tcp://") == 0;
  if (!is_tcp && uri.compare(0, 6, "ipc://") != 0) {
    result.connect_problem = "its scheme is not supported";
    return result;
  }
  if (!(is_tcp ? tcp_address : ipc_address)(uri, &address, &result.connect_problem))
    return result;
  const auto deadline = Clock::now() + timeout;
  const FileDescriptor fd(socket(address.bytes.ss_family, SOCK_STREAM, 0));
  const int error = fd.get() < 0 ? errno : connect_within(fd.get(), address, deadline);
  if (error != 0) {
    result.connect_problem = std::strerror(error);
    result.refused = error == ECONNREFUSED || error == ENOENT;
    return result;
  }
  // A failure to send is ignored: something may have been received before.
  send(fd.get(), kGreetingStart, sizeof kGreetingStart, kSendFlags);
  read_greeting(fd.get(), deadline, &result);
  return result;
}

std::string host_of(const std::string& uri) {
  const std::string target = target_of(uri);
  std::string host = target.substr(0, target.rfind(':'));
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  return host;
}

std::string with_host(const std::string& uri, const std::string& host) {
  const std::string target = target_of(uri);
  const std::size_t colon = std::min(target.rfind(':'), target.size());
  return uri.substr(0, uri.size() - target.size()) + host + target.substr(colon);
}

Resolved resolve_ipv4(const std::string& host) {
  Resolved result;
  if (const AddressList found = look_up(host, "", 0, &result.problem)) {
    char text[INET_ADDRSTRLEN];
    const auto* const address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    result.address = inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
  }
  return result;
}

}  // namespace zmqwriter
