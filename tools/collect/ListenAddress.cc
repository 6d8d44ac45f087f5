#include "ListenAddress.h"

#include <cstdint>

#include "Text.h"

namespace zmqwriter {

namespace {

bool is_host(const std::string& host) {
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  const char* const allowed = bracketed ? "[]0123456789abcdefABCDEF:."
                                        : "0123456789abcdefghijklmnopqrstuvwxyz"
                                          "ABCDEFGHIJKLMNOPQRSTUVWXYZ.-";
  return !host.empty() && host.find_first_not_of(allowed) == std::string::npos;
}

/// What follows the prefix; empty if the text does not begin with it.
std::string after(const std::string& prefix, const std::string& text) {
  return text.compare(0, prefix.size(), prefix) == 0 ? text.substr(prefix.size()) : "";
}

}  // namespace

std::string bind_endpoint_problem(const std::string& endpoint) {
  const std::string tcp = after("tcp://", endpoint);
  const std::size_t colon = tcp.rfind(':');
  const std::string port = colon == std::string::npos ? "" : tcp.substr(colon + 1);
  if ((colon != 0 && (port == "*" || number_in<std::uint16_t>(port))) ||
      !after("ipc://", endpoint).empty())
    return "";
  return "'" + endpoint + "' must be tcp://HOST:PORT, like tcp://127.0.0.1:5555, with * for a " +
         "port that the system chooses, or ipc://PATH";
}

std::string metrics_address_problem(const std::string& address) {
  const std::size_t colon = address.rfind(':');
  if (colon != std::string::npos && is_host(address.substr(0, colon)) &&
      number_in<std::uint16_t>(address.substr(colon + 1)))
    return "";
  return "'" + address + "' must be HOST:PORT, like 127.0.0.1:9155, or port 0 for one that the " +
         "system chooses";
}

}  // namespace zmqwriter
