// The options of a command line that lead to a JetStream engine.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "NatsOptions.h"
#include "OptionChecks.h"

namespace zmqwriter {

/// `name` is the option that takes the servers. Returns that option.
inline CLI::Option* add_nats_options(CLI::App* command, const std::string& name,
                                     const std::string& description, NatsOptions* options) {
  CLI::Option* const servers =
      add_parsed_option(
          command, name,
          [options](const std::string& list) { options->servers = nats_servers(list); },
          description)
          ->type_name("nats://HOST[:PORT][,...]");
  command->add_option("--prefix", options->prefix, "First word of the subjects")
      ->type_name("WORD")
      ->check(option_check(subject_prefix_problem))
      ->needs(servers)
      ->capture_default_str();
  const auto file = [&](const char* flag, std::string* path, const char* about) {
    return command->add_option(flag, *path, about)
        ->type_name("FILE")
        ->check(not_empty())
        ->needs(servers);
  };
  file("--nats-ca", &options->ca, "Certificates that sign the servers' (turns TLS on)");
  CLI::Option* const certificate =
      file("--nats-cert", &options->certificate, "The certificate to show to the servers");
  CLI::Option* const key = file("--nats-key", &options->key, "Its key");
  certificate->needs(key);
  key->needs(certificate);
  CLI::Option* const user =
      file("--nats-user", &options->user, "File with a user's name and a password, a line each");
  CLI::Option* const token = file("--nats-token", &options->token, "File with a token");
  CLI::Option* const credentials = file("--nats-creds", &options->credentials,
                                        "File of credentials, as the engine's tools make");
  user->excludes(token)->excludes(credentials);
  token->excludes(credentials);
  return servers;
}

}  // namespace zmqwriter
