#include "IPAddr.h"

#include <arpa/inet.h>

#include "HostReporter.h"

const uint8_t IPAddr::v4_mapped_prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

void IPAddr::Init(const std::string& s) {
  in_addr in4;
  if (inet_pton(AF_INET, s.c_str(), &in4) == 1) {
    memcpy(in6.s6_addr, v4_mapped_prefix, sizeof(v4_mapped_prefix));
    memcpy(in6.s6_addr + sizeof(v4_mapped_prefix), &in4, sizeof(in4));
  } else if (inet_pton(AF_INET6, s.c_str(), &in6) != 1) {
    host::any_reporter().Error("Bad IP address: %s", s.c_str());
    memset(&in6, 0, sizeof(in6));
  }
}

int IPAddr::GetBytes(const uint32_t** bytes) const {
  const bool v4 = GetFamily() == IPv4;
  *bytes = reinterpret_cast<const uint32_t*>(in6.s6_addr + (v4 ? 12 : 0));
  return v4 ? 1 : 4;
}
