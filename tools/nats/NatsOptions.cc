#include "NatsOptions.h"

#include <sstream>
#include <stdexcept>

#include "Text.h"

namespace zmqwriter {

namespace {

constexpr const char kPort[] = ":4222";

std::string server_of(const std::string& url) {
  const std::size_t scheme = url.find("://");
  const std::string kind = url.substr(0, scheme);
  if (scheme == std::string::npos || (kind != "nats" && kind != "tls"))
    throw std::invalid_argument("'" + url + "' must be nats://HOST:PORT or tls://HOST:PORT");
  const std::string address = url.substr(scheme + 3);
  if (address.find('@') != std::string::npos)
    throw std::invalid_argument(
        "no secret belongs on the command line, where others see it: use --nats-user FILE or "
        "--nats-token FILE");
  const std::size_t colon = address.find(':', address.find(']') + 1);
  const std::string port = colon == std::string::npos ? "1" : address.substr(colon + 1);
  const auto number = number_in<unsigned>(port);
  if (address.empty() || colon == 0 || address.find_first_of("/ ?#") != std::string::npos ||
      !number || *number == 0 || *number > 65535)
    throw std::invalid_argument("'" + url + "' must be " + kind + "://HOST:PORT");
  return colon == std::string::npos ? url + kPort : url;
}

}  // namespace

std::vector<std::string> nats_servers(const std::string& list) {
  std::vector<std::string> servers;
  std::istringstream urls(list + ',');
  for (std::string url; std::getline(urls, url, ',');)
    servers.push_back(server_of(url));
  return servers;
}

std::string subject_prefix_problem(const std::string& prefix) {
  const std::string dotted = '.' + prefix + '.';
  const bool good = dotted.find("..") == std::string::npos && prefix.size() <= 200 &&
                    prefix[0] != '$' && prefix.find_first_of("*> \t\r\n") == std::string::npos;
  return good ? "" : "'" + prefix + "' must be words with dots between, without *, > and spaces";
}

}  // namespace zmqwriter
