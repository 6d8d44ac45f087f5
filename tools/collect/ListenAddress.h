// Strict checks of the addresses that a collector may listen on. libzmq and the HTTP server accept
// more, such as port 99999, and then use another port. Any thread.
#pragma once

#include <string>

namespace zmqwriter {

/// Empty if the text is tcp://HOST:PORT, with * for a port that the system chooses, or ipc://PATH;
/// else what is wrong. Whether this machine has such a host is checked by binding.
std::string bind_endpoint_problem(const std::string& endpoint);

/// Empty if the text is HOST:PORT, with a host that is a name, an IPv4 address or an IPv6 address
/// in brackets; else what is wrong.
std::string metrics_address_problem(const std::string& address);

}  // namespace zmqwriter
