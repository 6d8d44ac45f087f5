// Darwin's list of TCP sockets on Linux. That the right process is found with it, and the figures
// of the host, ProbeTest shows.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <libproc.h>
#include <linux/netlink.h>
#include <netinet/tcp_var.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "TcpSockets.h"
#include "TempDir.h"

namespace {

constexpr char kPcbList[] = "net.inet.tcp.pcblist";

/// What the message that ends the kernel's answer carries, while a test has an answer without
/// sockets in place of the kernel's own.
std::optional<std::int32_t> netlink_end;

sockaddr_in loopback() {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

template <typename Address>
Address own_address(int fd) {
  Address address = {};
  socklen_t length = sizeof address;
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
  return address;
}

std::uint32_t inode(int fd) {
  struct stat status;
  EXPECT_EQ(fstat(fd, &status), 0);
  return static_cast<std::uint32_t>(status.st_ino);
}

/// Sockets by inode; each a tuple of family, local and foreign address and ports.
class Collected : public platform::TcpSocketSink {
 public:
  bool add(const platform::TcpSocket& socket) override {
    if (sockets.size() == room)
      return false;
    const int words = socket.is_v6 ? 4 : 1;
    sockets[socket.inode] = {socket.is_v6,
                             {socket.local, socket.local + words},
                             {socket.foreign, socket.foreign + words},
                             socket.local_port,
                             socket.foreign_port};
    return true;
  }

  using Socket = std::tuple<bool, std::vector<std::uint32_t>, std::vector<std::uint32_t>,
                            std::uint16_t, std::uint16_t>;
  using Sockets = std::map<std::uint32_t, Socket>;
  Sockets sockets;
  std::size_t room = 1000000;
};

class PlatformSysctlTest : public testing::Test {
 protected:
  ~PlatformSysctlTest() override {
    netlink_end.reset();
    for (const int fd : open_)
      close(fd);
  }

  int keep(int fd) {
    EXPECT_GE(fd, 0);
    open_.push_back(fd);
    return fd;
  }

  int listen_on_loopback() {
    const int listener = keep(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback();
    EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener, 5), 0);
    return listener;
  }

  /// -1 where there is no IPv6.
  int listen_on_v6_loopback() {
    const int listener = socket(AF_INET6, SOCK_STREAM, 0);
    if (listener < 0)
      return -1;
    keep(listener);
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      return -1;
    EXPECT_EQ(listen(listener, 5), 0);
    return listener;
  }

  int connect_to(int listener) {
    const int client = keep(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = own_address<sockaddr_in>(listener);
    EXPECT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return client;
  }

  /// Between the two calls other programs may open more sockets than the length has room for.
  static std::vector<char> snapshot() {
    std::vector<char> bytes;
    EXPECT_TRUE(test::wait_until([&bytes] {
      std::size_t length = 0;
      EXPECT_EQ(sysctlbyname(kPcbList, nullptr, &length, nullptr, 0), 0);
      bytes.resize(length);
      const bool done = sysctlbyname(kPcbList, bytes.data(), &length, nullptr, 0) == 0;
      EXPECT_TRUE(done || errno == ENOMEM) << strerror(errno);
      bytes.resize(length);
      return done;
    }));
    return bytes;
  }

  /// The records of a snapshot, its frame checked on the way.
  static std::vector<xtcpcb> records(const std::vector<char>& bytes) {
    std::vector<xtcpcb> records;
    xinpgen header, trailer;
    std::memcpy(&header, bytes.data(), sizeof header);
    std::memcpy(&trailer, bytes.data() + bytes.size() - sizeof trailer, sizeof trailer);
    EXPECT_EQ(std::memcmp(&header, &trailer, sizeof header), 0);
    EXPECT_EQ(std::uint32_t{header.xig_len}, 24u);
    std::size_t offset = sizeof header;
    while (offset + sizeof(xtcpcb) <= bytes.size() - sizeof trailer) {
      xtcpcb record;
      std::memcpy(&record, bytes.data() + offset, sizeof record);
      EXPECT_EQ(std::uint32_t{record.xt_len}, sizeof(xtcpcb));
      EXPECT_EQ(std::int32_t{record.xt_socket.xso_protocol}, 6);
      EXPECT_LE(std::uint64_t{record.xt_inp.inp_gencnt}, std::uint64_t{header.xig_gen});
      records.push_back(record);
      offset += record.xt_len;
    }
    EXPECT_EQ(offset, bytes.size() - sizeof trailer);
    EXPECT_EQ(std::size_t{header.xig_count}, records.size());
    return records;
  }

  /// The records with the handle of a socket of ours.
  static std::vector<xtcpcb> records_of(int fd) {
    std::vector<xtcpcb> found;
    for (const xtcpcb& record : records(snapshot())) {
      if (record.xt_socket.so_pcb == inode(fd))
        found.push_back(record);
    }
    return found;
  }

  /// What one of the two ways tells of the sockets of this test.
  Collected::Sockets ours(int (*read)(platform::TcpSocketSink*)) const {
    Collected all;
    EXPECT_EQ(read(&all), 0);
    Collected::Sockets found;
    for (const int fd : open_) {
      const auto socket = all.sockets.find(inode(fd));
      if (socket != all.sockets.end())
        found.insert(*socket);
    }
    return found;
  }

  std::vector<int> open_;
};

TEST_F(PlatformSysctlTest, ConnectionThatNobodyHoldsIsLeftOut) {
  const int listener = listen_on_loopback();
  const int client = connect_to(listener);
  const std::uint16_t near = own_address<sockaddr_in>(client).sin_port;
  const std::uint16_t far = own_address<sockaddr_in>(listener).sin_port;
  // Not accepted: the client's end is held, the other is not.
  std::size_t ends = 0;
  for (const xtcpcb& record : records(snapshot())) {
    const inpcb& pcb = record.xt_inp;
    ends += (pcb.inp_lport == near && pcb.inp_fport == far) ||
            (pcb.inp_lport == far && pcb.inp_fport == near);
  }
  EXPECT_EQ(ends, 1u);
}

TEST_F(PlatformSysctlTest, IPv4ConnectionOfAnIPv6SocketIsIPv4) {
  const int client = socket(AF_INET6, SOCK_STREAM, 0);
  if (client < 0)
    GTEST_SKIP() << "no IPv6 here";
  keep(client);
  const sockaddr_in listening = own_address<sockaddr_in>(listen_on_loopback());
  sockaddr_in6 mapped = {};
  mapped.sin6_family = AF_INET6;
  mapped.sin6_port = listening.sin_port;
  ASSERT_EQ(inet_pton(AF_INET6, "::ffff:127.0.0.1", &mapped.sin6_addr), 1);
  ASSERT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&mapped), sizeof mapped), 0);
  const std::vector<xtcpcb> found = records_of(client);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(int{found[0].xt_inp.inp_vflag}, INP_IPV4);
  EXPECT_EQ(std::uint32_t{found[0].xt_inp.inp_dependladdr.inp46_local.ia46_addr4.s_addr},
            htonl(INADDR_LOOPBACK));
  EXPECT_EQ(std::uint16_t{found[0].xt_inp.inp_fport}, listening.sin_port);
}

TEST_F(PlatformSysctlTest, ListThatDoesNotFitIsAnErrorAndStaysWithinItsBuffer) {
  listen_on_loopback();
  constexpr std::size_t kFrame = sizeof(xinpgen), kRecord = sizeof(xtcpcb);
  constexpr std::size_t kLeast = kFrame + kRecord + kFrame;  // with the listener's record alone
  for (const std::size_t room : {std::size_t{0}, std::size_t{1}, kFrame, kFrame + kRecord - 1,
                                 kFrame + kRecord, kLeast - 1}) {
    std::vector<char> bytes(room + 8, '\x5a');
    std::size_t length = room;
    EXPECT_EQ(sysctlbyname(kPcbList, bytes.data(), &length, nullptr, 0), -1) << room;
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(std::string(bytes.data() + room, 8), std::string(8, '\x5a'));
  }
}

TEST_F(PlatformSysctlTest, FiveHundredSocketsAreAllListed) {
  const int listener = listen_on_loopback();
  std::map<std::uint32_t, bool> wanted;
  for (int i = 0; i < 250; ++i) {
    wanted[inode(connect_to(listener))] = false;
    wanted[inode(keep(accept(listener, nullptr, nullptr)))] = false;
  }
  for (const xtcpcb& record : records(snapshot()))
    wanted.erase(record.xt_socket.so_pcb);
  EXPECT_TRUE(wanted.empty()) << wanted.size() << " are missing";
}

TEST_F(PlatformSysctlTest, NetlinkAndTheTextTableTellTheSame) {
  connect_to(listen_on_loopback());
  const std::size_t count = listen_on_v6_loopback() < 0 ? 2 : 3;
  // A table that changes while it is read may leave a socket out.
  EXPECT_TRUE(test::wait_until([&] {
    const Collected::Sockets by_netlink = ours(platform::read_tcp_sockets_by_netlink);
    return by_netlink.size() == count && by_netlink == ours(platform::read_tcp_sockets_from_proc);
  }));
}

TEST_F(PlatformSysctlTest, NetlinkAnswerThatEndsWithAnErrorLeadsToTheTextTable) {
  const int listener = listen_on_loopback();
  for (const std::int32_t error : {0, ENOENT, ENOMEM}) {
    netlink_end = -error;
    EXPECT_EQ(records_of(listener).size(), error == 0 ? 0u : 1u) << strerror(error);
  }
}

TEST_F(PlatformSysctlTest, BothWaysStopWhenThereIsNoMoreRoom) {
  listen_on_loopback();
  listen_on_loopback();
  for (const auto read :
       {platform::read_tcp_sockets_by_netlink, platform::read_tcp_sockets_from_proc}) {
    Collected sockets;
    sockets.room = 1;
    EXPECT_EQ(read(&sockets), ENOMEM);
    EXPECT_EQ(sockets.sockets.size(), 1u);
  }
}

TEST_F(PlatformSysctlTest, CallsStayInsideTheObjectThatLinksThem) {
  // This program exports whatever is not hidden (it is linked so), as a plug-in might by mistake;
  // the C library's own sysctl, where it still has one, must not be replaced for others.
  EXPECT_NE(dlsym(RTLD_DEFAULT, "sysctl"), reinterpret_cast<void*>(&sysctl));
  for (const char* name : {"sysctlbyname", "proc_listpids", "proc_pidinfo", "proc_pidfdinfo",
                           "mach_host_self", "host_page_size", "host_statistics"})
    EXPECT_EQ(dlsym(RTLD_DEFAULT, name), nullptr) << name;
  EXPECT_NE(dlsym(RTLD_DEFAULT, "exported_for_comparison"), nullptr);
}

}  // namespace

extern "C" {

void exported_for_comparison() {}

ssize_t recv(int fd, void* buffer, std::size_t size, int flags) {
  if (!netlink_end)
    return recvfrom(fd, buffer, size, flags, nullptr, nullptr);
  struct {
    nlmsghdr header;
    std::int32_t error;
  } end = {};
  end.header.nlmsg_len = NLMSG_LENGTH(sizeof end.error);
  end.header.nlmsg_type = NLMSG_DONE;
  end.error = *netlink_end;
  std::memcpy(buffer, &end, sizeof end);
  return sizeof end;
}
}
