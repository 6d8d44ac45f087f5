// IP addresses of either family. Values; any thread.
#pragma once

#include <netinet/in.h>
#include <string.h>

#include <string>

#include "BroString.h"
#include "threading/SerialTypes.h"

class IPAddr {
 public:
  typedef IPFamily Family;

  /// All zero.
  IPAddr() { memset(&in6, 0, sizeof(in6)); }
  /// Text. What is no address is reported and becomes all zero.
  IPAddr(const std::string& s) { Init(s); }
  IPAddr(const char* s) { Init(s); }

  Family GetFamily() const {
    return memcmp(in6.s6_addr, v4_mapped_prefix, sizeof(v4_mapped_prefix)) == 0 ? IPv4 : IPv6;
  }

  /// Points into this object (network order); returns the number of words: 1 (IPv4) or 4.
  int GetBytes(const uint32_t** bytes) const;

 private:
  void Init(const std::string& s);

  in6_addr in6;  // IPv4 as a v4-mapped address
  static const uint8_t v4_mapped_prefix[12];
};
