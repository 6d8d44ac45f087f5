// The collector over HTTP: what each path answers, while it goes on counting.
#include "StatusServer.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <flatbuffers/flatbuffers.h>

#include "ClientGate.h"
#include "EventJson.h"
#include "Zmq.h"
#include "aggregator_generated.h"

namespace {

using namespace zmqwriter;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

void count(CollectStats* stats, const char* agent) {
  flatbuffers::FlatBufferBuilder builder;
  builder.Finish(Dravenholt::CreateNetworkEvent(builder, 0, 1.0, 0, builder.CreateString(agent),
                                                Dravenholt::Data_HttpData));
  stats->CountEvent(EventMessage(builder.GetBufferPointer(), builder.GetSize()), 100);
}

class StatusServerTest : public testing::Test {
 protected:
  ~StatusServerTest() override {
    for (const int client : clients_)
      close(client);
  }

  void Serve(const ClientGate* gate = nullptr) {
    server_ = std::make_unique<StatusServer>(
        "127.0.0.1:0", Watched{stats_, gate, true, "events.json", "json", 5000});
    stats_.NoteEndpoints({"tcp://0.0.0.0:5555"});
  }

  std::uint16_t port() const {
    const std::string start = "http://127.0.0.1:";
    EXPECT_THAT(server_->url(), StartsWith(start));
    return static_cast<std::uint16_t>(std::stoi(server_->url().substr(start.size())));
  }

  /// A connection on which a request has begun.
  int Begin(const std::string& request) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    clients_.push_back(client);
    EXPECT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(send(client, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
    return client;
  }

  /// The whole answer.
  std::string Ask(const std::string& path, const std::string& method = "GET") {
    const int client = Begin(method + " " + path + " HTTP/1.0\r\n\r\n");
    std::string answer;
    char buffer[4096];
    for (ssize_t size; (size = read(client, buffer, sizeof buffer)) > 0;)
      answer.append(buffer, static_cast<std::size_t>(size));
    return answer;
  }

  std::string Body(const std::string& path) {
    const std::string answer = Ask(path);
    return answer.substr(answer.find("\r\n\r\n") + 4);
  }

  CollectStats stats_;
  std::unique_ptr<StatusServer> server_;
  std::vector<int> clients_;
};

TEST_F(StatusServerTest, EachPathHasItsAnswer) {
  Serve();
  EXPECT_THAT(Ask("/"), testing::AllOf(StartsWith("HTTP/1.1 200"), HasSubstr("default-src 'none'"),
                                       HasSubstr("text/html"), HasSubstr("</html>")));
  EXPECT_THAT(Ask("/", "HEAD"),
              testing::AllOf(StartsWith("HTTP/1.1 200"), Not(HasSubstr("</html>"))));
  EXPECT_THAT(Ask("/metrics"), StartsWith("HTTP/1.1 200"));
  EXPECT_THAT(Ask("/nothing"), testing::AllOf(StartsWith("HTTP/1.1 404"), HasSubstr("/metrics")));
  EXPECT_THAT(Ask("/", "POST"),
              testing::AllOf(StartsWith("HTTP/1.1 405"), HasSubstr("Allow: GET, HEAD")));
  EXPECT_THAT(Ask("/healthz"), StartsWith("HTTP/1.1 200"));
  stats_.NoteOutput(5, 0, true);
  EXPECT_THAT(Ask("/healthz"), StartsWith("HTTP/1.1 503"));
}

TEST_F(StatusServerTest, EverySeriesIsThereFromTheStart) {
  Serve();
  const std::string metrics = Body("/metrics");
  for (const char* const series :
       {"zmqwriter_collect_events_total{type=\"HttpData\"} 0\n",
        "zmqwriter_collect_event_bytes_total{type=\"GenericProtocolData\"} 0\n",
        "zmqwriter_collect_bad_messages_total{reason=\"multi_part\"} 0\n",
        "zmqwriter_collect_handshakes_failed_total{reason=\"other_key\"} 0\n",
        "zmqwriter_collect_handshakes_failed_total{reason=\"timed_out\"} 0\n",
        "zmqwriter_collect_memory_limit_total 0\n", "zmqwriter_collect_connections 0\n",
        "zmqwriter_collect_output_stalled 0\n",
        "zmqwriter_collect_build_info{version=\"" ZMQWRITER_VERSION "\"} 1\n",
        "# TYPE process_cpu_seconds_total counter\n", "\nprocess_start_time_seconds 1",
        "\nzmqwriter_collect_output_disk_free_bytes ", "\nprocess_open_fds ", "\nprocess_max_fds "})
    EXPECT_THAT(metrics, HasSubstr(series));
  EXPECT_THAT(metrics, Not(HasSubstr("clients_total")));
  EXPECT_THAT(metrics, Not(HasSubstr("type=\"NONE\"")));
}

TEST_F(StatusServerTest, MetricsAndJsonTellTheSame) {
  ZmqContext context;
  const ClientGate gate(&context, {CurveKey{}}, true);
  Serve(&gate);
  count(&stats_, "sensor-7");
  count(&stats_, "sensor-7");
  count(&stats_, "<b>\"\\\n");
  stats_.CountMalformed();
  stats_.CountRefusal(Refusal::kNoCurve);
  stats_.CountMemoryLimit();
  stats_.NoteConnections(3);
  stats_.NoteOutput(500, 2, false);
  EXPECT_THAT(
      Body("/metrics"),
      testing::AllOf(HasSubstr("agent_events_total{agent=\"sensor-7\"} 2\n"),
                     HasSubstr("agent_event_bytes_total{agent=\"sensor-7\"} 200\n"),
                     HasSubstr("agent_last_event_seconds{agent=\"sensor-7\"} 1"),
                     HasSubstr("clients_total{answer=\"denied\"} 0\n"),
                     HasSubstr("failed_total{reason=\"no_curve\"} 1\n"),
                     HasSubstr("memory_limit_total 1\n"), HasSubstr("collect_connections 3\n")));
  const auto status = nlohmann::json::parse(Body("/status.json"));
  EXPECT_EQ(status["version"], ZMQWRITER_VERSION);
  EXPECT_EQ(status["endpoints"][0], "tcp://0.0.0.0:5555");
  EXPECT_EQ(status["output"]["path"], "events.json");
  EXPECT_EQ(status["output"]["bytes"], 500);
  EXPECT_GT(status["output"]["disk_free"], 0);
  EXPECT_GT(status["memory"]["used"], 0);
  EXPECT_EQ(status["memory"]["limit"], 5000);
  EXPECT_EQ(status["memory"]["connections_ended"], 1);
  EXPECT_EQ(status["totals"]["events"], 3);
  EXPECT_EQ(status["types"],
            nlohmann::json::parse(R"([{"name":"HttpData","events":3,"bytes":300}])"));
  EXPECT_EQ(status["bad_messages"]["malformed"], 1);
  EXPECT_EQ(status["connections"]["open"], 3);
  EXPECT_EQ(status["connections"]["failed_handshakes"]["no_curve"], 1);
  EXPECT_EQ(status["clients"]["denied"], 0);
  ASSERT_EQ(status["agents"].size(), 2u);
  EXPECT_EQ(status["agents"][0]["name"], "<b>\"\\x5c\\x0a");
  const auto& agent = status["agents"][1];
  EXPECT_EQ(agent["name"], "sensor-7");
  EXPECT_EQ(agent["bytes"], 200);
  EXPECT_LE(agent["last_event"], status["now"]);
  ASSERT_EQ(agent["minutes"].size(), 60u);
  EXPECT_EQ(agent["minutes"][58].get<int>() + agent["minutes"][59].get<int>(), 2);
}

TEST_F(StatusServerTest, ScrapesWhileCountingSeeTheCountGrow) {
  Serve();
  std::atomic<bool> end{false};
  std::thread counting([&] {
    while (!end)
      stats_.CountEmpty();
  });
  for (int i = 0; i < 20; ++i)
    EXPECT_THAT(Body("/metrics"), HasSubstr("bad_messages_total{reason=\"empty\"} "));
  end = true;
  counting.join();
  EXPECT_THAT(Body("/metrics"), HasSubstr("bad_messages_total{reason=\"empty\"} " +
                                          std::to_string(stats_.Counts().empty) + "\n"));
}

TEST_F(StatusServerTest, SlowClientsKeepNobodyWaitingAndDoNotHoldUpTheEnd) {
  Serve();
  for (int i = 0; i < 100; ++i)
    Begin(i % 2 == 0 ? "" : "GET / HT");
  EXPECT_THAT(Ask("/healthz"), HasSubstr("200 OK"));
  server_.reset();
}

TEST_F(StatusServerTest, AddressesThatCannotBeServedAreNamed) {
  Serve();
  const std::string in_use = "127.0.0.1:" + std::to_string(port());
  for (const std::string& address : {in_use, std::string("192.0.2.1:0")}) {
    try {
      const StatusServer second(address, Watched{stats_, nullptr, true, "", "json"});
      FAIL() << address;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), StartsWith("cannot serve metrics on '" + address + "': "));
    }
  }
}

TEST_F(StatusServerTest, AddressMayBeOfIpv6) {
  const int probe = socket(AF_INET6, SOCK_STREAM, 0);
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const bool has_ipv6 =
      bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(probe);
  if (!has_ipv6)
    GTEST_SKIP() << "no IPv6 here";
  const StatusServer server("[::1]:0", Watched{stats_, nullptr, true, "", "json"});
  EXPECT_THAT(server.url(), testing::MatchesRegex("http://\\[::1\\]:[1-9][0-9]*/?"));
}

TEST_F(StatusServerTest, AddressesAreHostAndPortOnly) {
  for (const char* const good : {"127.0.0.1:0", "0.0.0.0:65535", "[::1]:9100", "localhost:1"})
    EXPECT_EQ(metrics_address_problem(good), "");
  for (const char* const bad :
       {"", ":", ":1", "1", "localhost", "localhost:", "localhost:-1", "localhost:+1",
        "localhost:65536", "localhost:1s", "localhost:1r", "::1:1", "[]:1", "a:1,b:2", "a b:1"})
    EXPECT_THAT(metrics_address_problem(bad), HasSubstr("must be HOST:PORT")) << bad;
}

}  // namespace
