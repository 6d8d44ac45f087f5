#include "StatusServer.h"

#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "StopSignals.h"
#include "Text.h"

namespace zmqwriter {

namespace {

constexpr char kPage[] =
#include "page.inc"
    ;

constexpr unsigned kMostConnections = 512;
constexpr unsigned kQuietSeconds = 5;  // then a connection is ended

bool is_host(const std::string& host) {
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  const char* const allowed = bracketed ? "[]0123456789abcdefABCDEF:."
                                        : "0123456789abcdefghijklmnopqrstuvwxyz"
                                          "ABCDEFGHIJKLMNOPQRSTUVWXYZ.-";
  return !host.empty() && host.find_first_not_of(allowed) == std::string::npos;
}

struct Answer {
  unsigned status;
  const char* type;
  std::string body;
};

Answer answer_to(const std::string& path, const Watched& collector) {
  if (path == "/")
    return {MHD_HTTP_OK, "text/html; charset=utf-8", kPage};
  if (path == "/status.json")
    return {MHD_HTTP_OK, "application/json", status_json(collector)};
  if (path == "/metrics")
    return {MHD_HTTP_OK, "text/plain; version=0.0.4; charset=utf-8", metrics_text(collector)};
  if (path == "/healthz" && collector.stats.Counts().blocked())
    return {MHD_HTTP_SERVICE_UNAVAILABLE, "text/plain", "the output accepts nothing\n"};
  if (path == "/healthz")
    return {MHD_HTTP_OK, "text/plain", "ok\n"};
  return {MHD_HTTP_NOT_FOUND, "text/plain", "try /, /status.json, /metrics or /healthz\n"};
}

MHD_Result answer_request(void* collector, MHD_Connection* connection, const char* path,
                          const char* method, const char*, const char*, std::size_t* upload_size,
                          void** begun) {
  if (!*begun) {
    *begun = connection;
    return MHD_YES;  // the answer follows the request's body
  }
  if (*upload_size > 0) {
    *upload_size = 0;
    return MHD_YES;
  }
  const bool reads = std::strcmp(method, "GET") == 0 || std::strcmp(method, "HEAD") == 0;
  Answer answer = reads ? answer_to(path, *static_cast<const Watched*>(collector))
                        : Answer{MHD_HTTP_METHOD_NOT_ALLOWED, "text/plain", "GET or HEAD only\n"};
  MHD_Response* const response = MHD_create_response_from_buffer(
      answer.body.size(), answer.body.data(), MHD_RESPMEM_MUST_COPY);
  if (!response)
    return MHD_NO;
  MHD_add_response_header(response, "Content-Type", answer.type);
  MHD_add_response_header(response, "Cache-Control", "no-store");
  MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
  // The page loads nothing but /status.json, whatever an agent's name may look like.
  MHD_add_response_header(response, "Content-Security-Policy",
                          "default-src 'none'; style-src 'unsafe-inline'; script-src "
                          "'unsafe-inline'; connect-src 'self'; img-src data:; "
                          "frame-ancestors 'none'");
  if (!reads)
    MHD_add_response_header(response, "Allow", "GET, HEAD");
  const MHD_Result queued = MHD_queue_response(connection, answer.status, response);
  MHD_destroy_response(response);
  return queued;
}

}  // namespace

std::string metrics_address_problem(const std::string& address) {
  const std::size_t colon = address.rfind(':');
  if (colon != std::string::npos && is_host(address.substr(0, colon)) &&
      number_in<std::uint16_t>(address.substr(colon + 1)))
    return "";
  return "'" + address + "' must be HOST:PORT, like 127.0.0.1:9155, or port 0 for one that the " +
         "system chooses";
}

StatusServer::StatusServer(const std::string& address, const Watched& collector)
    : collector_(collector) {
  const auto fail = [&address](const char* why) {
    throw std::runtime_error("cannot serve metrics on '" + address + "': " + why);
  };
  const std::size_t colon = address.rfind(':');
  std::string host = address.substr(0, colon);
  if (host.front() == '[')
    host = host.substr(1, host.size() - 2);
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  if (const int problem =
          getaddrinfo(host.c_str(), address.substr(colon + 1).c_str(), &hints, &found))
    fail(gai_strerror(problem));
  const SignalsHeldBack held_back;
  const unsigned both_families = found->ai_family == AF_INET6 ? MHD_USE_DUAL_STACK : 0;
  errno = 0;
  daemon_ = MHD_start_daemon(MHD_USE_AUTO | MHD_USE_INTERNAL_POLLING_THREAD | both_families, 0,
                             nullptr, nullptr, answer_request, const_cast<Watched*>(&collector_),
                             MHD_OPTION_SOCK_ADDR, found->ai_addr, MHD_OPTION_CONNECTION_LIMIT,
                             kMostConnections, MHD_OPTION_CONNECTION_TIMEOUT, kQuietSeconds,
                             MHD_OPTION_END);
  const int error = errno;
  freeaddrinfo(found);
  if (!daemon_)
    fail(error ? std::strerror(error) : "the HTTP server does not start");
  const unsigned port = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
  url_ = "http://" + address.substr(0, colon + 1) + std::to_string(port) + "/";
}

StatusServer::~StatusServer() {
  MHD_stop_daemon(daemon_);
}

}  // namespace zmqwriter
