// What a collector may be told to listen on. libzmq and the HTTP server read addresses generously,
// a port of 99999 as another one: these are strict. Any thread.
#pragma once

#include <string>

namespace zmqwriter {

/// Empty if the text is tcp://HOST:PORT, with * for a port that the system chooses, or ipc://PATH;
/// else what is wrong. Whether this machine has such a host shows when it is bound.
std::string bind_endpoint_problem(const std::string& endpoint);

/// Empty if the text is HOST:PORT, with a host that is a name, an IPv4 address or an IPv6 address
/// in brackets; else what is wrong.
std::string metrics_address_problem(const std::string& address);

}  // namespace zmqwriter
