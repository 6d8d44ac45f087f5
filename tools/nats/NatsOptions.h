// Where the servers of a JetStream engine are, and how to get in.
#pragma once

#include <string>
#include <vector>

namespace zmqwriter {

struct NatsOptions {
  std::vector<std::string> servers;  // nats://HOST:PORT or tls://HOST:PORT; empty: none
  std::string prefix = "zmqwriter";  // of the subjects
  // Names of files; empty: none.
  std::string ca;           // certificates that the servers' must be signed with
  std::string certificate;  // the client's, with `key`
  std::string key;
  std::string user;         // a name and a password, a line each
  std::string token;        // a token
  std::string credentials;  // as made by the engine's own tools
};

/// The servers of "nats://HOST[:PORT][,nats://...]" with their ports. Throws std::invalid_argument
/// that says what is wrong.
std::vector<std::string> nats_servers(const std::string& list);

/// What is wrong with a prefix of subjects; empty for a good one.
std::string subject_prefix_problem(const std::string& prefix);

}  // namespace zmqwriter
