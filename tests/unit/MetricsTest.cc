// Metrics over HTTP while the collector goes on counting.
#include "Metrics.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>

#include "ClientGate.h"
#include "ListenAddress.h"
#include "Zmq.h"

namespace {

using namespace zmqwriter;
using testing::HasSubstr;
using testing::StartsWith;

/// A connection to a port of this machine.
int connect_to(std::uint16_t port) {
  const int client = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  return client;
}

std::uint16_t port_of(const Metrics& metrics) {
  const std::string start = "http://127.0.0.1:";
  EXPECT_THAT(metrics.url(), StartsWith(start));
  return static_cast<std::uint16_t>(std::stoi(metrics.url().substr(start.size())));
}

std::string scrape(const Metrics& metrics) {
  const int client = connect_to(port_of(metrics));
  const std::string request = "GET /metrics HTTP/1.0\r\n\r\n";
  EXPECT_EQ(write(client, request.data(), request.size()), static_cast<ssize_t>(request.size()));
  std::string answer;
  char buffer[4096];
  for (ssize_t size; (size = read(client, buffer, sizeof buffer)) > 0;)
    answer.append(buffer, static_cast<std::size_t>(size));
  close(client);
  return answer;
}

TEST(MetricsTest, ScrapesWhileCountingSeeTheCountGrow) {
  CollectStats stats;
  const Metrics metrics("127.0.0.1:0", stats, nullptr);
  EXPECT_THAT(scrape(metrics), HasSubstr("bad_messages_total{reason=\"empty\"} 0"));
  std::atomic<bool> end{false};
  std::thread counting([&] {
    while (!end)
      stats.CountEmpty();
  });
  for (int i = 0; i < 20; ++i)
    EXPECT_THAT(scrape(metrics), HasSubstr("bad_messages_total{reason=\"empty\"} "));
  end = true;
  counting.join();
  EXPECT_THAT(scrape(metrics), HasSubstr("bad_messages_total{reason=\"empty\"} " +
                                         std::to_string(stats.Counts().empty) + "\n"));
}

TEST(MetricsTest, ClientsAreToldOnlyWithAGate) {
  CollectStats stats;
  {
    const Metrics metrics("127.0.0.1:0", stats, nullptr);
    EXPECT_EQ(scrape(metrics).find("clients_total"), std::string::npos);
  }
  ZmqContext context;
  const ClientGate gate(&context, {CurveKey{}}, true);
  const Metrics metrics("127.0.0.1:0", stats, &gate);
  EXPECT_THAT(scrape(metrics), HasSubstr("zmqwriter_collect_clients_total{answer=\"denied\"} 0"));
}

TEST(MetricsTest, EndsAlsoWithConnectionsOnWhichNothingComes) {
  CollectStats stats;
  int idle = -1;
  {
    const Metrics metrics("127.0.0.1:0", stats, nullptr);
    idle = connect_to(port_of(metrics));
    EXPECT_THAT(scrape(metrics), HasSubstr("200 OK"));
  }
  close(idle);
}

TEST(MetricsTest, AddressInUseIsNamed) {
  CollectStats stats;
  const Metrics first("127.0.0.1:0", stats, nullptr);
  const std::string address = "127.0.0.1:" + std::to_string(port_of(first));
  try {
    const Metrics second(address, stats, nullptr);
    FAIL() << "two servers on one address";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("cannot serve metrics on '" + address + "'"));
  }
}

TEST(MetricsTest, AddressesAreHostAndPortOnly) {
  for (const char* const good : {"127.0.0.1:0", "0.0.0.0:65535", "[::1]:9100", "localhost:1"})
    EXPECT_EQ(metrics_address_problem(good), "");
  for (const char* const bad :
       {"", ":", ":1", "1", "localhost", "localhost:", "localhost:-1", "localhost:+1",
        "localhost:65536", "localhost:1s", "localhost:1r", "::1:1", "[]:1", "a:1,b:2", "a b:1"})
    EXPECT_THAT(metrics_address_problem(bad), HasSubstr("must be HOST:PORT")) << bad;
}

}  // namespace
