// The collector's socket by itself: waiting under signals, what may be bound, how much it holds.
#include "PullSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "CurveKey.h"
#include "TempDir.h"
#include "Zmq.h"

namespace {

using namespace zmqwriter;
using testing::HasSubstr;

/// A sender that may connect, and is gone before its context.
class Sender {
 public:
  Sender(const ZmqContext& context, const CurveKey& server_key, const std::string& endpoint)
      : socket_(context, ZMQ_PUSH) {
    const CurveKeyPair keys = make_curve_key_pair();
    void* const raw = socket_.get();
    zmq_setsockopt(raw, ZMQ_CURVE_SERVERKEY, server_key.data(), server_key.size());
    zmq_setsockopt(raw, ZMQ_CURVE_PUBLICKEY, keys.public_key.data(), keys.public_key.size());
    zmq_setsockopt(raw, ZMQ_CURVE_SECRETKEY, keys.secret_key.data(), keys.secret_key.size());
    EXPECT_EQ(zmq_connect(raw, endpoint.c_str()), 0);
  }

  void Send(const std::string& message) {
    EXPECT_EQ(zmq_send(socket_.get(), message.data(), message.size(), 0),
              static_cast<int>(message.size()));
  }

 private:
  ZmqSocket socket_;
};

class PullSocketTest : public testing::Test {
 protected:
  static constexpr int kDeadlineMs = 60000;

  CurveKeyPair keys_ = make_curve_key_pair();
  ZmqContext context_;
  PullSocket socket_{&context_, keys_.secret_key, false};
};

/// Signals to the thread that made it, which do nothing but interrupt, until it has ended.
class Interrupted {
 public:
  Interrupted() : thread_([this, target = pthread_self()] { Run(target); }) {}
  ~Interrupted() {
    end_ = true;
    thread_.join();
    sigaction(SIGUSR1, &before_, nullptr);
  }
  Interrupted(const Interrupted&) = delete;
  Interrupted& operator=(const Interrupted&) = delete;

  int count() const { return count_; }

 private:
  void Run(pthread_t target) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &before_);
    while (!end_) {
      pthread_kill(target, SIGUSR1);
      ++count_;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  struct sigaction before_;
  std::atomic<bool> end_{false};
  std::atomic<int> count_{0};
  std::thread thread_;
};

TEST_F(PullSocketTest, SignalsDoNotCutWaitingShort) {
  const std::string endpoint = socket_.Bind("tcp://127.0.0.1:*");
  const Interrupted signals;
  // It lives until the message is here: closing it would drop what is not sent yet.
  std::unique_ptr<Sender> sender;
  std::thread later([&] {
    while (signals.count() < 50)
      std::this_thread::yield();
    sender = std::make_unique<Sender>(context_, keys_.public_key, endpoint);
    sender->Send("late");
  });
  EXPECT_TRUE(socket_.Wait(kDeadlineMs));
  later.join();
}

TEST_F(PullSocketTest, SignalsDoNotProlongWaiting) {
  socket_.Bind("tcp://127.0.0.1:*");
  const Interrupted signals;
  do {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(socket_.Wait(50));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
  } while (signals.count() < 2);
}

TEST_F(PullSocketTest, LargestMessageArrivesAndOneByteMoreDoesNot) {
  const std::string endpoint = socket_.Bind("tcp://127.0.0.1:*");
  zmq_msg_t message;
  zmq_msg_init(&message);
  {
    Sender sender(context_, keys_.public_key, endpoint);
    sender.Send(std::string(PullSocket::kLargestMessage, 'x'));
    ASSERT_TRUE(socket_.Wait(kDeadlineMs));
    ASSERT_TRUE(socket_.Receive(&message));
    EXPECT_EQ(zmq_msg_size(&message), PullSocket::kLargestMessage);
  }
  Sender sender(context_, keys_.public_key, endpoint);
  sender.Send(std::string(PullSocket::kLargestMessage + 1, 'x'));
  // What is sent right behind may be lost with the connection; it is made anew.
  do
    sender.Send("behind");
  while (!socket_.Wait(20));
  ASSERT_TRUE(socket_.Receive(&message));
  EXPECT_EQ(zmq_msg_size(&message), 6u);
  zmq_msg_close(&message);
}

TEST_F(PullSocketTest, ClientHasTenSecondsForItsHandshake) {
  int limit_ms = 0;
  std::size_t size = sizeof limit_ms;
  ASSERT_EQ(zmq_getsockopt(socket_.get(), ZMQ_HANDSHAKE_IVL, &limit_ms, &size), 0);
  EXPECT_EQ(limit_ms, 10000);
}

#ifdef __linux__
TEST_F(PullSocketTest, ManyClientsMayWaitToBeAccepted) {
  std::ifstream limit("/proc/sys/net/core/somaxconn");
  int allowed = 0;
  limit >> allowed;
  socket_.Bind("tcp://127.0.0.1:*");
  int waiting = -1;
  for (int fd = 0; fd < 256; ++fd) {
    int listens = 0;
    socklen_t size = sizeof listens;
    tcp_info info = {};
    socklen_t info_size = sizeof info;
    if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens &&
        getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &info_size) == 0)
      waiting = static_cast<int>(info.tcpi_sacked);  // where a socket listens: how many may wait
  }
  EXPECT_EQ(waiting, std::min(allowed, PullSocket::kBacklog));
}
#endif

TEST_F(PullSocketTest, SocketOfAFormerRunIsReplacedAndNothingElse) {
  const test::TempDir temp;
  test::write_file("file.txt", "precious");
  ASSERT_EQ(symlink("file.txt", "link"), 0);
  for (const char* const taken : {"ipc://file.txt", "ipc://link", "ipc://."}) {
    try {
      socket_.Bind(taken);
      FAIL() << taken;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), "cannot listen on '" + std::string(taken) +
                                  "': there is a file of this name that is not a socket");
    }
  }
  EXPECT_EQ(test::read_file("link"), "precious");

  const int left_over = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "old");
  ASSERT_EQ(bind(left_over, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(left_over);
  EXPECT_EQ(socket_.Bind("ipc://old"), "ipc://old");
  // libzmq makes a folder for it, whose path may be too long for a socket elsewhere.
  setenv("TMPDIR", ".", 1);
  EXPECT_NE(socket_.Bind("ipc://*"), "ipc://*");
}

TEST_F(PullSocketTest, HostsThatCannotBeListenedOnAreExplained) {
  for (const char* const host : {"[::1]", "no-such-interface"}) {
    try {
      socket_.Bind("tcp://" + std::string(host) + ":*");
      FAIL() << host;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr("the host must be an IPv4 address of this machine"));
    }
  }
}

TEST(ListenAddressTest, EndpointsAreTcpWithAPortOrIpc) {
  for (const char* const good :
       {"tcp://*:*", "tcp://127.0.0.1:0", "tcp://0.0.0.0:65535", "tcp://eth0:5555",
        "tcp://[::1]:5555", "ipc://*", "ipc:///run/collector", "ipc://@name", "ipc://a:b"})
    EXPECT_EQ(bind_endpoint_problem(good), "") << good;
  for (const char* const bad :
       {"", "5555", "127.0.0.1:5555", "tcp://", "tcp://:5555", "tcp://127.0.0.1",
        "tcp://127.0.0.1:", "tcp://127.0.0.1:65536", "tcp://127.0.0.1:99999", "tcp://127.0.0.1:5x5",
        "tcp://127.0.0.1:-1", "tcp://127.0.0.1:+1", "tcp://127.0.0.1: 1", "tcp://127.0.0.1:**",
        "tcp://[::1]", "ipc://", "inproc://name", "inproc://zeromq.zap.01", "udp://127.0.0.1:1"})
    EXPECT_THAT(bind_endpoint_problem(bad), HasSubstr("must be tcp://HOST:PORT")) << bad;
}

}  // namespace
