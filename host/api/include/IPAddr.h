// IP addresses and prefixes of either family. Values; any thread.
#pragma once

#include <netinet/in.h>
#include <string.h>

#include <string>

#include "BroString.h"
#include "Hash.h"
#include "threading/SerialTypes.h"

typedef in_addr in4_addr;

class IPAddr {
 public:
  typedef IPFamily Family;
  enum ByteOrder { Host, Network };

  /// All zero.
  IPAddr();
  explicit IPAddr(const in4_addr& in4);
  explicit IPAddr(const in6_addr& arg_in6) : in6(arg_in6) {}
  /// Text. What is no address is reported and becomes all zero.
  IPAddr(const std::string& s) { Init(s); }
  IPAddr(const char* s) { Init(s); }
  IPAddr(const BroString& s);
  /// One word (IPv4) or four (IPv6).
  IPAddr(Family family, const uint32_t* bytes, ByteOrder order);
  IPAddr(const IPAddr& other) : in6(other.in6) {}

  IPAddr& operator=(const IPAddr& other) {
    in6 = other.in6;
    return *this;
  }

  Family GetFamily() const {
    return memcmp(in6.s6_addr, v4_mapped_prefix, sizeof(v4_mapped_prefix)) == 0 ? IPv4 : IPv6;
  }

  bool IsLoopback() const;
  bool IsMulticast() const;
  bool IsBroadcast() const;

  /// Points into this object (network order); returns the number of words: 1 (IPv4) or 4.
  int GetBytes(const uint32_t** bytes) const;
  /// Always 16 bytes.
  void CopyIPv6(uint32_t* bytes, ByteOrder order = Network) const;
  void CopyIPv6(in6_addr* arg_in6) const { *arg_in6 = in6; }
  /// The last 4 bytes, whatever the family.
  void CopyIPv4(in4_addr* in4) const { memcpy(in4, in6.s6_addr + 12, 4); }

  /// Relative to 128 bits: keeps the topmost bits, clears the others.
  void Mask(int top_bits_to_keep);
  /// Relative to 128 bits: clears the topmost bits, keeps the others.
  void ReverseMask(int top_bits_to_chop);

  operator std::string() const { return AsString(); }
  string AsString() const;
  /// IPv6 in brackets.
  string AsURIString() const;
  string AsHexString() const;
  string PtrName() const;

  void ConvertToThreadingValue(threading::Value::addr_t* v) const;

  friend bool operator==(const IPAddr& a, const IPAddr& b) {
    return memcmp(&a.in6, &b.in6, sizeof(in6_addr)) == 0;
  }
  friend bool operator!=(const IPAddr& a, const IPAddr& b) { return !(a == b); }
  friend bool operator<(const IPAddr& a, const IPAddr& b) {
    return memcmp(&a.in6, &b.in6, sizeof(in6_addr)) < 0;
  }
  friend bool operator>(const IPAddr& a, const IPAddr& b) { return b < a; }
  friend bool operator<=(const IPAddr& a, const IPAddr& b) { return !(b < a); }
  friend bool operator>=(const IPAddr& a, const IPAddr& b) { return !(a < b); }
  friend IPAddr operator|(const IPAddr& a, const IPAddr& b);

 private:
  void Init(const std::string& s);

  in6_addr in6;  // IPv4 as a v4-mapped address

  static const uint8_t v4_mapped_prefix[12];
};

class IPPrefix {
 public:
  IPPrefix() : length(0) {}
  IPPrefix(const in4_addr& in4, uint8_t length);
  IPPrefix(const in6_addr& in6, uint8_t length);
  /// `length` counts from the address's own start unless `len_is_v6_relative`.
  IPPrefix(const IPAddr& addr, uint8_t length, bool len_is_v6_relative = false);

  const IPAddr& Prefix() const { return prefix; }
  /// Of 32 or of 128 bits, by family.
  uint8_t Length() const {
    return static_cast<uint8_t>(prefix.GetFamily() == IPv4 ? length - 96 : length);
  }
  /// Always of 128 bits.
  uint8_t LengthIPv6() const { return length; }
  bool Contains(const IPAddr& addr) const;

  string AsString() const;
  operator std::string() const { return AsString(); }
  void ConvertToThreadingValue(threading::Value::subnet_t* v) const;

  friend bool operator==(const IPPrefix& a, const IPPrefix& b) {
    return a.prefix == b.prefix && a.length == b.length;
  }

 private:
  void Init(int length_of_128);

  IPAddr prefix;
  uint8_t length;  // of 128 bits
};
