// The thread that answers which clients may connect, over its own endpoint: the questions that
// libzmq asks, and ones that it would not ask.
#include "ClientGate.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace zmqwriter;
using Frames = std::vector<std::string>;

CurveKey key_of(char byte) {
  CurveKey key;
  key.fill(static_cast<std::uint8_t>(byte));
  return key;
}

Frames request(const std::string& public_key) {
  return {"1.0", "id-1", "zmqwriter", "127.0.0.1", "", "CURVE", public_key};
}

/// Asks as libzmq does, and is gone before the gate.
class Asker {
 public:
  explicit Asker(ZmqContext* context) : socket_(*context, ZMQ_REQ) {
    EXPECT_EQ(zmq_connect(socket_.get(), "inproc://zeromq.zap.01"), 0);
  }

  Frames Ask(const Frames& frames) {
    for (std::size_t i = 0; i < frames.size(); ++i)
      zmq_send(socket_.get(), frames[i].data(), frames[i].size(),
               i + 1 < frames.size() ? ZMQ_SNDMORE : 0);
    Frames reply;
    int more = 1;
    while (more) {
      char buffer[256];
      const int size = zmq_recv(socket_.get(), buffer, sizeof buffer, 0);
      if (size < 0)
        break;
      reply.emplace_back(buffer, static_cast<std::size_t>(size));
      std::size_t more_size = sizeof more;
      zmq_getsockopt(socket_.get(), ZMQ_RCVMORE, &more, &more_size);
    }
    return reply;
  }

  std::string Status(const Frames& frames) { return Ask(frames).at(2); }

 private:
  ZmqSocket socket_;
};

class ClientGateTest : public testing::Test {
 protected:
  ZmqContext context_;
  ClientGate gate_{&context_, {key_of('a'), key_of('b')}, true};
  Asker asker_{&context_};
};

TEST_F(ClientGateTest, ListedKeysAreAcceptedInTheProtocolsForm) {
  EXPECT_EQ(asker_.Ask(request(std::string(32, 'a'))),
            (Frames{"1.0", "id-1", "200", "OK", "", ""}));
  EXPECT_EQ(asker_.Status(request(std::string(32, 'b'))), "200");
  EXPECT_EQ(gate_.accepted(), 2u);
}

TEST_F(ClientGateTest, OtherKeysAreDenied) {
  EXPECT_EQ(asker_.Ask(request(std::string(32, 'c'))),
            (Frames{"1.0", "id-1", "400", "key not allowed", "", ""}));
  EXPECT_EQ(asker_.Status(request(std::string(31, 'a') + "b")), "400");
  EXPECT_EQ(gate_.denied(), 2u);
}

TEST_F(ClientGateTest, WhatIsNoQuestionAboutAKeyIsDenied) {
  Frames plain = request(std::string(32, 'a'));
  plain[5] = "PLAIN";
  Frames version = request(std::string(32, 'a'));
  version[0] = "2.0";
  Frames more = request(std::string(32, 'a'));
  more.push_back("");
  Frames null = request("");
  null.pop_back();
  null[5] = "NULL";
  for (const Frames& frames :
       {plain, version, more, null, request(std::string(31, 'a')), request(std::string(33, 'a')),
        request(""), Frames{"1.0", "id-1"}, Frames{""}})
    EXPECT_EQ(asker_.Status(frames), "400");
  EXPECT_EQ(gate_.accepted(), 0u);
}

TEST_F(ClientGateTest, NewListCountsFromThenOn) {
  gate_.Replace({key_of('c')});
  EXPECT_EQ(asker_.Status(request(std::string(32, 'a'))), "400");
  EXPECT_EQ(asker_.Status(request(std::string(32, 'c'))), "200");
}

TEST_F(ClientGateTest, ListMayBeReplacedWhileClientsAsk) {
  std::thread replacer([this] {
    for (int i = 0; i < 500; ++i)
      gate_.Replace({key_of('a'), key_of(static_cast<char>(i))});
  });
  for (int i = 0; i < 500; ++i)
    EXPECT_EQ(asker_.Status(request(std::string(32, 'a'))), "200");
  replacer.join();
  EXPECT_EQ(gate_.accepted(), 500u);
}

TEST(ClientGateEndTest, SecondGateOfAContextIsRefused) {
  ZmqContext context;
  ClientGate gate(&context, {key_of('a')}, true);
  EXPECT_THROW(ClientGate(&context, {key_of('a')}, true), std::runtime_error);
}

}  // namespace
