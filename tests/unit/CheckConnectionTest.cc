// Connections over the real libzmq: what needs no server of another program. The others are in
// tests/system/check_test.py.
#include "Connection.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <zmq.h>

#include <atomic>
#include <cctype>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CurveKey.h"
#include "Files.h"
#include "PeerGreeting.h"
#include "PullSocket.h"
#include "TempDir.h"
#include "Text.h"
#include "Zmq.h"

using std::chrono::milliseconds;
using ::testing::HasSubstr;

/// Stands in front of the system's, also for libzmq: addresses are read, and no name service is
/// asked, which may be far away and slow.
extern "C" int getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  static const auto real =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  addrinfo numeric = hints ? *hints : addrinfo{};
  numeric.ai_flags |= AI_NUMERICHOST;
  return real(host, service, &numeric, result);
}

namespace {

using namespace zmqwriter;

constexpr milliseconds kShort(200);
constexpr milliseconds kLong(20000);  // only ever reached by a failure

worker_settings::ServerKey key_of(const CurveKey& raw) {
  worker_settings::ServerKey key = {};
  std::memcpy(key.bytes, raw.data(), raw.size());
  key.length = raw.size();
  return key;
}

worker_settings::ServerKey some_key() {
  return key_of(make_curve_key_pair().public_key);
}

/// A port of the system's choice on the loopback, listening if wanted. Connections are not
/// accepted.
class Port {
 public:
  explicit Port(bool listening) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(socket_.get(), generic, size), 0);
    EXPECT_EQ(getsockname(socket_.get(), generic, &size), 0);
    number_ = ntohs(address.sin_port);
    if (listening) {
      EXPECT_EQ(listen(socket_.get(), 5), 0);
    }
  }

  std::string Uri(const std::string& host = "127.0.0.1") const {
    return "tcp://" + host + ":" + std::to_string(number_);
  }

 private:
  const FileDescriptor socket_;
  int number_ = 0;
};

/// The collector's kind of server.
struct Server {
  explicit Server(const std::string& endpoint = "tcp://127.0.0.1:*") : uri(socket.Bind(endpoint)) {}

  bool HasMessage() { return socket.Wait(0); }

  CurveKeyPair keys = make_curve_key_pair();
  ZmqContext context;
  PullSocket socket{&context, keys.secret_key, false};
  std::string uri;
};

bool libzmq_refuses(const std::string& uri) {
  const ZmqContext context;
  const ZmqSocket socket(context, ZMQ_PUSH);
  return zmq_connect(socket.get(), uri.c_str()) != 0;
}

bool has_error(const std::string& uri) {
  Findings findings;
  check_endpoint({"primary server", uri, uri}, &findings);
  return !findings.empty() && findings[0].severity == Severity::kError;
}

}  // namespace

TEST(CheckConnection, IsMadeAndSendsNothing) {
  test::TempDir dir;
  for (const char* endpoint : {"tcp://127.0.0.1:*", "ipc://sock:5555"}) {
    Server server(endpoint);
    const auto key = key_of(server.keys.public_key);
    const ConnectResult result = try_connection(server.uri, key, kLong);
    EXPECT_TRUE(result.ok) << result.text;
    EXPECT_EQ(result.id, "connected");
    EXPECT_FALSE(server.HasMessage());
  }
}

TEST(CheckConnection, WrongKeyAndOneThatLibzmqDoesNotTakeAreTold) {
  Server server;
  for (const auto& key : {some_key(), worker_settings::decode_server_key("")})
    EXPECT_EQ(try_connection(server.uri, key, kLong).id, "connect-wrong-key");
  EXPECT_FALSE(server.HasMessage());
}

TEST(CheckConnection, RefusalIsTold) {
  const Port nobody(false);
  test::TempDir dir;
  for (const std::string& uri : {nobody.Uri(), std::string("ipc://nobody:5555")})
    EXPECT_EQ(try_connection(uri, some_key(), kLong).id, "connect-refused");
}

TEST(CheckConnection, SilenceIsToldWhenTheTimeIsOver) {
  const Port frozen(true);
  const ConnectResult result = try_connection(frozen.Uri(), some_key(), kShort);
  EXPECT_EQ(result.id, "connect-silent");
  EXPECT_THAT(result.text, HasSubstr("within 0.2 s"));
  EXPECT_GE(result.seconds, 0.2);
}

TEST(CheckConnection, NameServiceThatDoesNotAnswerCannotHoldItUp) {
  std::promise<void> never;
  const std::shared_future<void> answer = never.get_future().share();
  const auto left_behind = std::make_shared<std::promise<void>>();
  std::future<void> ended = left_behind->get_future();
  Network network;
  network.resolve = [answer, left_behind](const std::string&) {
    answer.wait();
    left_behind->set_value();
    return Resolved{"127.0.0.1", ""};
  };
  const ConnectResult result = try_connection("tcp://slow:5555", some_key(), kShort, network);
  EXPECT_EQ(result.id, "connect-unresolved");
  EXPECT_THAT(result.text, HasSubstr("within 0.2 s"));
  never.set_value();
  ended.wait();
}

TEST(CheckConnection, NameIsResolvedOnceAndOnlyItsAddressUsed) {
  Server server;
  const auto asked = std::make_shared<std::atomic<int>>(0);
  Network network;
  network.resolve = [asked](const std::string& host) {
    ++*asked;
    return host == "known.here.only" ? Resolved{"127.0.0.1", ""} : Resolved{"", "unknown"};
  };
  const std::string uri = with_host(server.uri, "known.here.only");
  EXPECT_EQ(try_connection(uri, key_of(server.keys.public_key), kLong, network).id, "connected");
  EXPECT_EQ(*asked, 1);
  // With a look at the server afterwards.
  EXPECT_EQ(try_connection(uri, some_key(), kLong, network).id, "connect-wrong-key");
  EXPECT_EQ(*asked, 2);
}

TEST(CheckConnection, TimeForTheNameIsNotTakenFromTheConnection) {
  const Port frozen(true);
  Network network;
  network.resolve = [](const std::string& host) {
    std::this_thread::sleep_for(milliseconds(300));
    return Resolved{host, ""};
  };
  network.greeting = [](const std::string&, milliseconds) { return PeerGreeting(); };
  const ConnectResult result =
      try_connection(frozen.Uri(), some_key(), milliseconds(1000), network);
  EXPECT_EQ(result.id, "connect-silent");
  EXPECT_GE(result.seconds, 1.3);
}

TEST(CheckConnection, ServerThatComesUpAfterTheRefusalIsTold) {
  const Port nobody(false);
  std::string asked;
  Network network;
  network.greeting = [&asked](const std::string& uri, milliseconds) {
    asked = uri;
    return PeerGreeting();  // connected
  };
  const ConnectResult result = try_connection(nobody.Uri(), some_key(), kLong, network);
  EXPECT_EQ(asked, nobody.Uri());
  EXPECT_EQ(result.id, "connect-refused");
  EXPECT_THAT(result.remedy, HasSubstr("try again"));
}

TEST(CheckConnection, UnknownNameIsToldInTheWordsOfTheNameService) {
  Network network;
  network.resolve = [](const std::string& host) { return Resolved{"", "no such " + host}; };
  const ConnectResult result = try_connection("tcp://typo:5555", some_key(), kLong, network);
  EXPECT_EQ(result.id, "connect-unresolved");
  EXPECT_THAT(result.text, HasSubstr("'typo'"));
  EXPECT_THAT(result.text, HasSubstr("no such typo"));
  // Addresses need none; the plug-in connects by IPv4 only.
  EXPECT_EQ(resolve_ipv4("127.0.0.1").address, "127.0.0.1");
  EXPECT_EQ(resolve_ipv4("127.0.0.1").problem, "");
  EXPECT_EQ(resolve_ipv4("::1").address, "");
  EXPECT_NE(resolve_ipv4("::1").problem, "");
}

TEST(CheckConnection, WhatLibzmqRefusesIsAnErrorBeforeAnybodyConnects) {
  EXPECT_EQ(try_connection("nonsense://a:1", some_key(), kLong).id, "connect-endpoint");
  std::vector<std::string> uris = {
      "tcp://127.0.0.1:",   "tcp://127.0.0.1:abc", "tcp://127.0.0.1:+5", "tcp://tcp://h:5",
      "tcp://;127.0.0.1:1", "foo://127.0.0.1:1",   "http://127.0.0.1:1", "udp://127.0.0.1:1",
      "pgm://127.0.0.1:1",  "wss://h:1",           "tcp://%41:1",        "TCP://127.0.0.1:1",
      "tcp://(h):2",        "tcp://&&:3"};
  for (char c = ' '; c <= '~'; ++c) {
    uris.push_back(std::string("tcp://") + c + ":1");
    uris.push_back(std::string("tcp://") + c + "a:1");
    uris.push_back(std::string("tcp://a") + c + "b:1");
    uris.push_back(std::string("tcp://a:") + c);
    uris.push_back(std::string("tcp://") + c + ":0;127.0.0.1:1");
    uris.push_back(std::string("tcp://a") + c + ":0;127.0.0.1:1");
  }
  for (const std::size_t length : {106, 107, 108})
    uris.push_back("ipc://" + std::string(length - 2, 'x') + ":1");
  long refused = 0;
  for (const std::string& uri : uris) {
    const bool refuses = libzmq_refuses(uri);
    EXPECT_TRUE(!refuses || has_error(uri)) << uri;
    refused += refuses;
  }
  EXPECT_GT(refused, 100);
}

TEST(CheckConnection, WhatLibzmqTakesAndCouldReachIsNoError) {
  std::vector<std::string> uris = {
      "tcp://127.0.0.1:1",
      "tcp://127.0.0.1:65535",
      "tcp://127.0.0.1:0;127.0.0.1:1",
      "tcp://eth0:0;127.0.0.1:1",
      "ipc:///tmp/none:5555",
      "ipc://@none:1",
      "ipc://" + std::string(sizeof(sockaddr_un::sun_path) - 3, 'x') + ":1"};
  for (char c = '!'; c <= '~'; ++c) {
    if (std::isalnum(static_cast<unsigned char>(c)))
      uris.push_back(std::string("tcp://") + c + "x:1");
    if (std::isalnum(static_cast<unsigned char>(c)) || std::strchr("-._", c))
      uris.push_back(std::string("tcp://a") + c + "b:1");
    uris.push_back(std::string("ipc:///tmp/none") + c + ":1");
  }
  for (const std::string& uri : uris) {
    EXPECT_FALSE(libzmq_refuses(uri)) << uri;
    EXPECT_FALSE(has_error(uri)) << uri;
  }
}

TEST(CheckConnection, HostIsFoundAndReplacedInTheEndpoint) {
  const std::vector<std::vector<std::string>> cases = {
      {"tcp://a.example.net:5555", "a.example.net", "tcp://10.0.0.1:5555"},
      {"tcp://127.0.0.1:0;b:5555", "b", "tcp://127.0.0.1:0;10.0.0.1:5555"},
      {"tcp://[::1]:5555", "::1", "tcp://10.0.0.1:5555"},
      {"tcp://a", "a", "tcp://10.0.0.1"}};
  for (const auto& one : cases) {
    EXPECT_EQ(host_of(one[0]), one[1]);
    EXPECT_EQ(with_host(one[0], "10.0.0.1"), one[2]);
  }
}

TEST(CheckConnection, KeysAreTakenByTheirLengthAndAsZ85) {
  const std::string z85 = hex_digits("Yne@$w-vo<fVvi]a<NY6T1ed:M$fCG*[IaLV{hID", 40);
  const std::string raw = hex_digits(some_key().bytes, 32);
  for (const std::string& key : {raw, z85, z85 + "00"})
    EXPECT_TRUE(libzmq_takes_key(worker_settings::decode_server_key(key))) << key;
  for (const std::string& key : {std::string(), std::string(40, '1'), std::string(62, '1'),
                                 z85 + "41", std::string(80, '0')})
    EXPECT_FALSE(libzmq_takes_key(worker_settings::decode_server_key(key))) << key;
}

TEST(PeerGreeting, NamesTheMechanismOfAServerOrWhyThereIsNone) {
  Server server;
  const PeerGreeting greeting = fetch_greeting(server.uri, kLong);
  EXPECT_EQ(greeting.connect_problem, "");
  EXPECT_EQ(greeting.mechanism, "CURVE");
  EXPECT_FALSE(server.HasMessage());

  const Port nobody(false);
  const PeerGreeting refusal = fetch_greeting(nobody.Uri(), kLong);
  EXPECT_TRUE(refusal.refused);
  EXPECT_EQ(refusal.connect_problem, std::strerror(ECONNREFUSED));

  const Port frozen(true);
  const PeerGreeting silence = fetch_greeting(frozen.Uri(), kShort);
  EXPECT_EQ(silence.connect_problem, "");
  EXPECT_FALSE(silence.any_byte);

  EXPECT_NE(fetch_greeting("ipc://" + std::string(500, 'x'), kShort).connect_problem, "");
}
