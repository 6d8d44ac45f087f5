#include "NatsConnection.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "Files.h"

namespace zmqwriter {

namespace {

constexpr std::size_t kLongestSecret = 4096;
constexpr std::size_t kLongestCertificates = std::size_t{4} << 20;
constexpr int kPingMs = 1500;
constexpr int kUnansweredPings = 2;
constexpr int kShortestPauseMs = 100;
constexpr int kLongestPauseMs = 5000;
constexpr auto kLongestEnd = std::chrono::seconds(5);

void check(natsStatus status, const std::string& what) {
  if (status != NATS_OK)
    throw ConnectError(status, what + ": " + nats_problem(status));
}

std::vector<std::string> secret_lines(const std::string& path, std::size_t count,
                                      const char* expected) {
  std::istringstream content(read_small_file(path, kLongestSecret));
  std::vector<std::string> lines;
  for (std::string line; std::getline(content, line);)
    lines.push_back(line.substr(0, line.find_last_not_of(" \t\r") + 1));
  if (lines.size() != count || lines[0].empty())
    throw std::runtime_error(path + ": must hold " + expected);
  return lines;
}

/// Doubles with each attempt, so that a cluster that comes back is not overrun.
int64_t pause_after(natsConnection*, int attempts, void*) {
  return std::min(kLongestPauseMs, kShortestPauseMs << std::min(attempts, 10));
}

using Options = NatsPtr<natsOptions, natsOptions_Destroy>;

bool uses_tls(const NatsOptions& options) {
  return !options.ca.empty() || !options.certificate.empty() ||
         std::any_of(options.servers.begin(), options.servers.end(),
                     [](const std::string& url) { return url[0] == 't'; });
}

void set_secrets(const NatsOptions& options, natsOptions* set) {
  if (!options.user.empty()) {
    const auto lines = secret_lines(options.user, 2, "a user's name and a password, a line each");
    check(natsOptions_SetUserInfo(set, lines[0].c_str(), lines[1].c_str()), options.user);
  }
  if (!options.token.empty())
    check(natsOptions_SetToken(set, secret_lines(options.token, 1, "one line, a token")[0].c_str()),
          options.token);
  // The library does not say why it cannot read a file.
  for (const std::string& file :
       {options.credentials, options.ca, options.certificate, options.key})
    if (!file.empty())
      read_small_file(file, kLongestCertificates);
  if (!options.credentials.empty())
    check(natsOptions_SetUserCredentialsFromFiles(set, options.credentials.c_str(), nullptr),
          options.credentials);
  if (uses_tls(options))
    check(natsOptions_SetSecure(set, true), "TLS");
  if (!options.ca.empty())
    check(natsOptions_LoadCATrustedCertificates(set, options.ca.c_str()), options.ca);
  if (!options.certificate.empty())
    check(natsOptions_LoadCertificatesChain(set, options.certificate.c_str(), options.key.c_str()),
          options.certificate);
}

/// Whether such a failure to connect may be over later. With TLS, a connection that the server ends
/// may be one with a wrong certificate.
bool may_pass(natsStatus status, bool tls) {
  return status == NATS_NO_SERVER || status == NATS_TIMEOUT ||
         (!tls && (status == NATS_IO_ERROR || status == NATS_CONNECTION_CLOSED));
}

/// What to look at when connecting fails for this reason.
const char* hint(natsStatus status) {
  switch (status) {
    case NATS_CONNECTION_AUTH_FAILED:
      return "; look at --nats-user, --nats-token or --nats-creds";
    case NATS_SSL_ERROR:
      return "; look at --nats-ca, --nats-cert and --nats-key, and at the names in the server's "
             "certificate";
    case NATS_SECURE_CONNECTION_REQUIRED:
      return "; write tls:// in place of nats://, or give --nats-ca";
    case NATS_SECURE_CONNECTION_WANTED:
      return "; the server has no TLS";
    case NATS_PROTOCOL_ERROR:
    case NATS_IO_ERROR:
    case NATS_CONNECTION_CLOSED:
      return "; the server ended the connection: it may want another certificate (--nats-cert)";
    case NATS_TIMEOUT:
      return ": no answer within 2 s";
    case NATS_NO_SERVER:
      return "; its name is not known, or what is there does not answer";
    default:
      return "";
  }
}

}  // namespace

NatsLibrary::NatsLibrary() {
  check(nats_Open(-1), "libnats");
}

NatsLibrary::~NatsLibrary() {
  nats_CloseAndWait(std::chrono::milliseconds(kLongestEnd).count());
}

std::string nats_problem(natsStatus status) {
  natsStatus last = NATS_OK;
  const char* words = nats_GetLastError(&last);
  if (last != status || !words || !*words)
    return natsStatus_GetText(status);
  // The library puts the place in its source before them.
  const char* const place = *words == '(' ? std::strstr(words, "): ") : nullptr;
  return place ? place + 3 : words;
}

NatsConnection::NatsConnection(const NatsOptions& options, jsPubAckHandler handler, void* closure,
                               bool patient) {
  natsOptions* made = nullptr;
  check(natsOptions_Create(&made), "libnats");
  const Options set(made);
  std::vector<const char*> servers;
  for (const std::string& server : options.servers)
    servers.push_back(server.c_str());
  check(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())), servers[0]);
  set_secrets(options, made);
  natsOptions_SetName(made, "zmqwriter");
  natsOptions_SetTimeout(made, kAnswerMs);
  natsOptions_SetPingInterval(made, kPingMs);
  natsOptions_SetMaxPingsOut(made, kUnansweredPings);
  natsOptions_SetWriteDeadline(made, kAnswerMs);
  natsOptions_SetMaxReconnect(made, INT32_MAX);
  natsOptions_SetCustomReconnectDelay(made, pause_after, nullptr);
  natsOptions_SetReconnectBufSize(made, 1);  // who publishes keeps what was not acknowledged
  natsOptions_SetErrorHandler(made, OnError, this);
  natsOptions_SetDisconnectedCB(made, OnDisconnected, this);
  natsOptions_SetReconnectedCB(made, OnReconnected, this);
  natsOptions_SetClosedCB(made, OnClosed, this);

  if (patient)
    natsOptions_SetRetryOnFailedConnect(
        made, true, [](natsConnection*, void*) {}, nullptr);
  natsConnection* connection = nullptr;
  const natsStatus status = natsConnection_Connect(&connection, made);
  if (status != NATS_OK && status != NATS_NOT_YET_CONNECTED) {
    std::string names;
    for (const std::string& server : options.servers)
      names += (names.empty() ? "" : ", ") + server;
    throw ConnectError(status,
                       "cannot connect to " + names + ": " + nats_problem(status) + hint(status),
                       may_pass(status, uses_tls(options)));
  }
  connection_.reset(connection);
  jsOptions stream_options;
  jsOptions_Init(&stream_options);
  stream_options.Wait = kAnswerMs;
  stream_options.PublishAsync.AckHandler = handler;
  stream_options.PublishAsync.AckHandlerClosure = closure;
  jsCtx* stream = nullptr;
  check(natsConnection_JetStream(&stream, connection, &stream_options), "JetStream");
  stream_.reset(stream);
}

std::string why_no_server_answers(const NatsOptions& options) {
  std::string reasons;
  NatsOptions one = options;
  for (const std::string& server : options.servers) {
    one.servers = {server};
    try {
      const NatsConnection connection(one);
      return "";
    } catch (const ConnectError& error) {
      if (!error.may_pass)
        throw;
      reasons += (reasons.empty() ? "" : "; ") + std::string(error.what());
    }
  }
  return reasons;
}

NatsConnection::~NatsConnection() {
  if (!connection_)
    return;
  natsConnection_Close(get());
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, kLongestEnd, [this] { return over_; });
}

bool NatsConnection::connected() const {
  return natsConnection_Status(get()) == NATS_CONN_STATUS_CONNECTED;
}

std::string NatsConnection::last_problem() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return problem_;
}

bool NatsConnection::refused() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return refused_;
}

void NatsConnection::ForgetProblem() {
  const std::lock_guard<std::mutex> lock(mutex_);
  problem_.clear();
  refused_ = false;
}

std::vector<std::pair<std::string, bool>> NatsConnection::servers() const {
  std::vector<std::pair<std::string, bool>> known;
  char current[1024] = "";
  natsConnection_GetConnectedUrl(get(), current, sizeof current);
  char** names = nullptr;
  int count = 0;
  if (natsConnection_GetServers(get(), &names, &count) == NATS_OK) {
    for (int i = 0; i < count; ++i) {
      known.emplace_back(names[i], std::strcmp(names[i], current) == 0);
      std::free(names[i]);
    }
    std::free(names);
  }
  std::sort(known.begin(), known.end());
  return known;
}

void NatsConnection::NoteProblem(natsStatus status, const char* text) {
  const std::lock_guard<std::mutex> lock(mutex_);
  problem_ = text && *text ? text : natsStatus_GetText(status);
  refused_ = status == NATS_NOT_PERMITTED || status == NATS_CONNECTION_AUTH_FAILED;
}

void NatsConnection::OnError(natsConnection* connection, natsSubscription*, natsStatus status,
                             void* self) {
  const char* text = nullptr;
  natsConnection_GetLastError(connection, &text);
  static_cast<NatsConnection*>(self)->NoteProblem(status, text);
}

void NatsConnection::OnDisconnected(natsConnection* connection, void* self) {
  const char* text = nullptr;
  const natsStatus status = natsConnection_GetLastError(connection, &text);
  if (status != NATS_OK)
    static_cast<NatsConnection*>(self)->NoteProblem(status, text);
}

void NatsConnection::OnReconnected(natsConnection*, void* self) {
  ++static_cast<NatsConnection*>(self)->reconnections_;
}

void NatsConnection::OnClosed(natsConnection* connection, void* self) {
  OnDisconnected(connection, self);
  auto* const closed = static_cast<NatsConnection*>(self);
  const std::lock_guard<std::mutex> lock(closed->mutex_);
  closed->over_ = true;
  closed->changed_.notify_all();
}

}  // namespace zmqwriter
