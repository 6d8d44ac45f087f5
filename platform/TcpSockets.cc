#include "TcpSockets.h"

#include <errno.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "ProcFile.h"

namespace platform {

namespace {

// TCP states as in <netinet/tcp.h>; 12 is the kernel's own for a request in the accept queue.
constexpr unsigned kSynReceived = 3;
constexpr unsigned kTimeWait = 6;
constexpr unsigned kNewSynReceived = 12;
constexpr uint32_t kStatesWithOwner =
    ~(1u << kSynReceived | 1u << kTimeWait | 1u << kNewSynReceived);

constexpr size_t kAnswerBytes = 32768;

bool is_v4_mapped(const uint32_t* address) {
  return address[0] == 0 && address[1] == 0 && address[2] == htonl(0xffff);
}

/// An IPv4 connection of an IPv6 socket counts as IPv4, as on Darwin.
void settle_family(TcpSocket* socket) {
  if (!socket->is_v6 || !is_v4_mapped(socket->foreign))
    return;
  socket->is_v6 = false;
  socket->local[0] = socket->local[3];
  socket->foreign[0] = socket->foreign[3];
}

class NetlinkSocket {
 public:
  NetlinkSocket() : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}
  ~NetlinkSocket() {
    if (fd_ >= 0)
      close(fd_);
  }
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  /// Requests all TCP sockets. This older kind of request gives both address families in one walk
  /// over the kernel's table, and the walk is most of the cost.
  int ask() {
    struct {
      struct nlmsghdr header;
      struct inet_diag_req body;
    } request;
    memset(&request, 0, sizeof request);
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = TCPDIAG_GETSOCK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.idiag_states = kStatesWithOwner;
    if (fd_ < 0 || send(fd_, &request, sizeof request, 0) != static_cast<ssize_t>(sizeof request))
      return errno;
    return 0;
  }

  /// Receives the next part of the answer.
  int receive(char* buffer, size_t size, size_t* length) {
    ssize_t count;
    do
      count = recv(fd_, buffer, size, MSG_TRUNC);
    while (count < 0 && errno == EINTR);
    if (count < 0)
      return errno;
    *length = static_cast<size_t>(count);
    return *length > 0 && *length <= size ? 0 : EIO;
  }

 private:
  int fd_;
};

int add_message(const struct nlmsghdr* header, TcpSocketSink* sink) {
  if (header->nlmsg_len < NLMSG_LENGTH(sizeof(struct inet_diag_msg)))
    return EIO;
  const struct inet_diag_msg* message =
      reinterpret_cast<const struct inet_diag_msg*>(NLMSG_DATA(header));
  if (message->idiag_inode == 0)
    return 0;
  TcpSocket socket;
  socket.is_v6 = message->idiag_family == AF_INET6;
  memcpy(socket.local, message->id.idiag_src, sizeof socket.local);
  memcpy(socket.foreign, message->id.idiag_dst, sizeof socket.foreign);
  socket.local_port = message->id.idiag_sport;
  socket.foreign_port = message->id.idiag_dport;
  socket.inode = message->idiag_inode;
  settle_family(&socket);
  return sink->add(socket) ? 0 : ENOMEM;
}

/// The error in a message of type NLMSG_ERROR or NLMSG_DONE, 0 for none. The kernel's ENOMEM
/// becomes EIO: here ENOMEM means that the sink has no room.
int error_of(const struct nlmsghdr* header) {
  int32_t error = 0;
  if (header->nlmsg_len >= NLMSG_LENGTH(sizeof error))
    memcpy(&error, NLMSG_DATA(header), sizeof error);
  if (error >= 0)
    return header->nlmsg_type == NLMSG_DONE ? 0 : EIO;
  return error == -ENOMEM ? EIO : -error;
}

/// Reads one part of the answer. *done: it was the last.
int add_messages(const char* buffer, size_t length, TcpSocketSink* sink, bool* done) {
  const struct nlmsghdr* header = reinterpret_cast<const struct nlmsghdr*>(buffer);
  for (; NLMSG_OK(header, length); header = NLMSG_NEXT(header, length)) {
    *done = header->nlmsg_type == NLMSG_DONE;
    if (*done || header->nlmsg_type == NLMSG_ERROR)
      return error_of(header);
    const int error = add_message(header, sink);
    if (error != 0)
      return error;
  }
  return 0;
}

/// "  sl: local:port foreign:port st tx:rx tr:when retransmits uid timeout inode ..."; an address
/// is one or four words of 8 hexadecimal digits.
bool parse_line(const char* line, bool is_v6, TcpSocket* socket) {
  uint32_t* const local = socket->local;
  uint32_t* const foreign = socket->foreign;
  unsigned ports[2] = {0, 0};
  const int wanted = is_v6 ? 11 : 5;
  const int found =
      is_v6 ? std::sscanf(line, "%*d: %8x%8x%8x%8x:%4x %8x%8x%8x%8x:%4x %*x %*s %*s %*x %*u %*u %u",
                          &local[0], &local[1], &local[2], &local[3], &ports[0], &foreign[0],
                          &foreign[1], &foreign[2], &foreign[3], &ports[1], &socket->inode)
            : std::sscanf(line, "%*d: %8x:%4x %8x:%4x %*x %*s %*s %*x %*u %*u %u", &local[0],
                          &ports[0], &foreign[0], &ports[1], &socket->inode);
  socket->local_port = htons(static_cast<uint16_t>(ports[0]));
  socket->foreign_port = htons(static_cast<uint16_t>(ports[1]));
  socket->is_v6 = is_v6;
  settle_family(socket);
  return found == wanted;
}

int read_table(const char* path, bool is_v6, TcpSocketSink* sink) {
  std::FILE* const file = std::fopen(path, "re");
  if (file == nullptr)
    return errno;
  int error = 0;
  char line[512];
  while (error == 0 && std::fgets(line, sizeof line, file) != nullptr) {
    TcpSocket socket;
    memset(&socket, 0, sizeof socket);
    // The headings are no socket.
    if (parse_line(line, is_v6, &socket) && socket.inode != 0 && !sink->add(socket))
      error = ENOMEM;
  }
  if (std::ferror(file))
    error = EIO;
  std::fclose(file);
  return error;
}

/// The kernel's own count, 0 if it has none.
size_t sockets_in_use(const char* path, const char* name) {
  char text[1024];
  uint64_t count = 0;
  if (procfs::read_text(path, text, sizeof text) <= 0 || !procfs::find_number(text, name, &count))
    return 0;
  return static_cast<size_t>(count);
}

size_t v4_sockets_in_use() {
  return sockets_in_use("/proc/net/sockstat", "TCP: inuse");
}
size_t v6_sockets_in_use() {
  return sockets_in_use("/proc/net/sockstat6", "TCP6: inuse");
}

}  // namespace

int read_tcp_sockets_by_netlink(TcpSocketSink* sink) {
  NetlinkSocket netlink;
  int error = netlink.ask();
  alignas(struct nlmsghdr) char buffer[kAnswerBytes];
  for (bool done = false; error == 0 && !done;) {
    size_t length = 0;
    error = netlink.receive(buffer, sizeof buffer, &length);
    if (error == 0)
      error = add_messages(buffer, length, sink, &done);
  }
  return error;
}

int read_tcp_sockets_from_proc(TcpSocketSink* sink) {
  const int error = read_table("/proc/net/tcp", false, sink);
  if (error != 0 || v6_sockets_in_use() == 0)
    return error;
  return read_table("/proc/net/tcp6", true, sink);
}

size_t count_tcp_sockets() {
  return v4_sockets_in_use() + v6_sockets_in_use();
}

}  // namespace platform
