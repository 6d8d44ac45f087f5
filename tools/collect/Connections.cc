#include "Connections.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <optional>

#include "Files.h"
#include "Text.h"

namespace zmqwriter {

namespace {

// Silence after which a connection is ended: behind a message, and where none came.
constexpr auto kPause = std::chrono::milliseconds(20);
constexpr auto kSilence = std::chrono::milliseconds(150);

bool is_connected(int descriptor) {
  sockaddr_storage peer;
  socklen_t size = sizeof peer;
  return getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
}

/// How the endpoints of a socket end: with the port, or with the path. Empty for other sockets.
std::string endpoint_end(int descriptor) {
  union {
    sockaddr any;
    sockaddr_in ipv4;
    sockaddr_un local;
  } address = {};
  socklen_t size = sizeof address;
  if (getsockname(descriptor, &address.any, &size) != 0)
    return "";
  if (address.any.sa_family == AF_INET)
    return ':' + std::to_string(ntohs(address.ipv4.sin_port));
  if (address.any.sa_family != AF_UNIX || size <= offsetof(sockaddr_un, sun_path))
    return "";
  std::string path(address.local.sun_path, size - offsetof(sockaddr_un, sun_path));
  if (path[0] == '\0')
    path[0] = '@';  // not in the file system
  return "ipc://" + path.substr(0, path.find('\0'));
}

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// None if the descriptor is closed, or no socket any more.
std::optional<ino_t> inode(int descriptor) {
  struct stat status;
  if (fstat(descriptor, &status) != 0 || !S_ISSOCK(status.st_mode))
    return std::nullopt;
  return status.st_ino;
}

bool has_input(int descriptor) {
  char byte;
  return recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

}  // namespace

Connections::Connections(const std::vector<std::string>& endpoints) {
  const auto end_at = Clock::now() + kSilence;
  std::vector<std::string> names;
  list_folder("/dev/fd", &names);
  for (const std::string& name : names) {
    const auto descriptor = number_in<int>(name);
    if (!descriptor || !is_connected(*descriptor))
      continue;
    const std::string end = endpoint_end(*descriptor);
    const auto is_ours = [&end](const std::string& endpoint) { return ends_with(endpoint, end); };
    if (!end.empty() && std::any_of(endpoints.begin(), endpoints.end(), is_ours))
      open_[*descriptor] = {inode(*descriptor).value_or(0), end_at};
  }
}

void Connections::NoteMessage(int descriptor) {
  const auto end_at = Clock::now() + kPause;
  for (auto& [number, connection] : open_)
    if (number == descriptor || descriptor < 0)
      connection.end_at = end_at;
}

/// When both sides of a connection are ended, libzmq may give up what waits to be received.
void Connections::EndSilent(bool all, bool forced) {
  const auto now = Clock::now();
  for (auto each = open_.begin(); each != open_.end();) {
    const auto& [descriptor, connection] = *each;
    if (inode(descriptor) != connection.inode) {
      each = open_.erase(each);
      continue;
    }
    if (forced || ((all || now >= connection.end_at) && !has_input(descriptor)))
      shutdown(descriptor, SHUT_WR);
    ++each;
  }
}

}  // namespace zmqwriter
