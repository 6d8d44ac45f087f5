// A process that holds both ends of one TCP connection over loopback, for ProbeTest.
//
//     probe-holder 4|6 [USER-ID]
//
// Becomes that user first. Prints the ports of the two ends and waits: a line on standard input
// makes it close both (answered by "closed"), the end of input makes it end.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

[[noreturn]] void die(const char* what) {
  std::perror(what);
  std::exit(1);
}

void become(const char* user_id) {
  const uid_t id = static_cast<uid_t>(std::strtoul(user_id, nullptr, 10));
  if (setgid(id) != 0 || setuid(id) != 0)
    die("setuid");
}

struct Address {
  explicit Address(int family) {
    if (family == AF_INET) {
      v4.sin_family = AF_INET;
      v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
      v6.sin6_family = AF_INET6;
      v6.sin6_addr = in6addr_loopback;
    }
  }

  static Address of(int fd) {
    Address address(AF_INET6);
    socklen_t length = sizeof address.v6;
    if (getsockname(fd, address.get(), &length) != 0)
      die("getsockname");
    return address;
  }

  sockaddr* get() { return reinterpret_cast<sockaddr*>(&v6); }
  /// The port stands at the same place in both.
  int port() const { return ntohs(v6.sin6_port); }

  union {
    sockaddr_in6 v6 = {};
    sockaddr_in v4;
  };
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2)
    return 2;
  const int family = std::string(argv[1]) == "6" ? AF_INET6 : AF_INET;
  const socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (argc > 2)
    become(argv[2]);
  const int listener = socket(family, SOCK_STREAM, 0);
  Address address(family);
  if (listener < 0 || bind(listener, address.get(), length) != 0 || listen(listener, 1) != 0)
    die("listen");
  address = Address::of(listener);
  const int client = socket(family, SOCK_STREAM, 0);
  if (client < 0 || connect(client, address.get(), length) != 0)
    die("connect");
  const int server = accept(listener, nullptr, nullptr);
  if (server < 0)
    die("accept");
  close(listener);
  std::printf("%d %d\n", Address::of(client).port(), Address::of(server).port());
  std::fflush(stdout);
  if (std::getchar() == EOF)
    return 0;
  close(client);
  close(server);
  std::printf("closed\n");
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
}
