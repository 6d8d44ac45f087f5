// The collector's socket by itself: waiting under signals, what may be bound, how much it holds.
#include "PullSocket.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "CurveKey.h"
#include "ZmqContext.h"

namespace {

/// A sender that may connect, and is gone before its context.
class Sender {
 public:
  Sender(const ZmqContext& context, const CurveKey& server_key, const std::string& endpoint)
      : socket_(zmq_socket(context.get(), ZMQ_PUSH)) {
    const CurveKeyPair keys = make_curve_key_pair();
    const int no_linger = 0;
    zmq_setsockopt(socket_, ZMQ_LINGER, &no_linger, sizeof no_linger);
    zmq_setsockopt(socket_, ZMQ_CURVE_SERVERKEY, server_key.data(), server_key.size());
    zmq_setsockopt(socket_, ZMQ_CURVE_PUBLICKEY, keys.public_key.data(), keys.public_key.size());
    zmq_setsockopt(socket_, ZMQ_CURVE_SECRETKEY, keys.secret_key.data(), keys.secret_key.size());
    EXPECT_EQ(zmq_connect(socket_, endpoint.c_str()), 0);
  }
  ~Sender() { zmq_close(socket_); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  void Send(const std::string& message) {
    EXPECT_EQ(zmq_send(socket_, message.data(), message.size(), 0),
              static_cast<int>(message.size()));
  }

 private:
  void* socket_;
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
  std::thread later([&] {
    while (signals.count() < 50)
      std::this_thread::yield();
    Sender sender(context_, keys_.public_key, endpoint);
    sender.Send("late");
    while (signals.count() < 100)
      std::this_thread::yield();
  });
  EXPECT_TRUE(socket_.Wait(kDeadlineMs));
  later.join();
}

TEST_F(PullSocketTest, SignalsDoNotProlongWaiting) {
  socket_.Bind("tcp://127.0.0.1:*");
  const Interrupted signals;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(socket_.Wait(50));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
  EXPECT_GT(signals.count(), 1);
}

}  // namespace
