#include "IPAddr.h"

#include <arpa/inet.h>

#include <algorithm>

#include "HostReporter.h"

const uint8_t IPAddr::v4_mapped_prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

namespace {

string format_address(int family, const void* bytes) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(family, bytes, text, sizeof(text)) ? text : "<bad IP address>";
}

// Clears the bits from `first` up to, not including, `last`.
void clear_bits(in6_addr* addr, int first, int last) {
  for (int bit = first; bit < last; ++bit)
    addr->s6_addr[bit / 8] &= static_cast<uint8_t>(~(0x80 >> (bit % 8)));
}

}  // namespace

IPAddr::IPAddr() {
  memset(&in6, 0, sizeof(in6));
}

IPAddr::IPAddr(const in4_addr& in4) {
  memcpy(in6.s6_addr, v4_mapped_prefix, sizeof(v4_mapped_prefix));
  memcpy(in6.s6_addr + sizeof(v4_mapped_prefix), &in4, sizeof(in4));
}

IPAddr::IPAddr(const BroString& s) {
  Init(s.CheckString());
}

IPAddr::IPAddr(Family family, const uint32_t* bytes, ByteOrder order) {
  uint8_t* to = in6.s6_addr;
  int words = 4;
  if (family == IPv4) {
    memcpy(to, v4_mapped_prefix, sizeof(v4_mapped_prefix));
    to += sizeof(v4_mapped_prefix);
    words = 1;
  }
  for (int i = 0; i < words; ++i) {
    const uint32_t word = order == Host ? htonl(bytes[i]) : bytes[i];
    memcpy(to + 4 * i, &word, sizeof(word));
  }
}

void IPAddr::Init(const std::string& s) {
  in4_addr in4;
  if (inet_pton(AF_INET, s.c_str(), &in4) == 1) {
    *this = IPAddr(in4);
  } else if (inet_pton(AF_INET6, s.c_str(), &in6) != 1) {
    standin::host_reporter().Error("Bad IP address: %s", s.c_str());
    memset(&in6, 0, sizeof(in6));
  }
}

bool IPAddr::IsLoopback() const {
  return GetFamily() == IPv4 ? in6.s6_addr[12] == 127 : IN6_IS_ADDR_LOOPBACK(&in6) != 0;
}

bool IPAddr::IsMulticast() const {
  return GetFamily() == IPv4 ? (in6.s6_addr[12] & 0xf0) == 0xe0 : in6.s6_addr[0] == 0xff;
}

bool IPAddr::IsBroadcast() const {
  return GetFamily() == IPv4 &&
         std::all_of(in6.s6_addr + 12, in6.s6_addr + 16, [](uint8_t byte) { return byte == 0xff; });
}

int IPAddr::GetBytes(const uint32_t** bytes) const {
  const bool v4 = GetFamily() == IPv4;
  *bytes = reinterpret_cast<const uint32_t*>(in6.s6_addr + (v4 ? 12 : 0));
  return v4 ? 1 : 4;
}

void IPAddr::CopyIPv6(uint32_t* bytes, ByteOrder order) const {
  memcpy(bytes, in6.s6_addr, sizeof(in6.s6_addr));
  if (order == Host)
    std::transform(bytes, bytes + 4, bytes, [](uint32_t word) { return ntohl(word); });
}

void IPAddr::Mask(int top_bits_to_keep) {
  if (top_bits_to_keep < 0 || top_bits_to_keep > 128)
    standin::host_reporter().Error("Bad IPAddr mask length: %d", top_bits_to_keep);
  else
    clear_bits(&in6, top_bits_to_keep, 128);
}

void IPAddr::ReverseMask(int top_bits_to_chop) {
  if (top_bits_to_chop < 0 || top_bits_to_chop > 128)
    standin::host_reporter().Error("Bad IPAddr mask length: %d", top_bits_to_chop);
  else
    clear_bits(&in6, 0, top_bits_to_chop);
}

string IPAddr::AsString() const {
  return GetFamily() == IPv4 ? format_address(AF_INET, in6.s6_addr + 12)
                             : format_address(AF_INET6, &in6);
}

string IPAddr::AsURIString() const {
  return GetFamily() == IPv4 ? AsString() : "[" + AsString() + "]";
}

string IPAddr::AsHexString() const {
  string text;
  for (int i = GetFamily() == IPv4 ? 12 : 0; i < 16; ++i) {
    char hex[2];
    bytetohex(in6.s6_addr[i], hex);
    text.append(hex, 2);
  }
  return text;
}

string IPAddr::PtrName() const {
  string text;
  if (GetFamily() == IPv4) {
    for (int i = 15; i >= 12; --i)
      text += std::to_string(in6.s6_addr[i]) + ".";
    return text + "in-addr.arpa";
  }
  for (int i = 15; i >= 0; --i) {
    char hex[2];
    bytetohex(in6.s6_addr[i], hex);
    text.append({hex[1], '.', hex[0], '.'});
  }
  return text + "ip6.arpa";
}

void IPAddr::ConvertToThreadingValue(threading::Value::addr_t* v) const {
  v->family = GetFamily();
  if (v->family == IPv4)
    CopyIPv4(&v->in.in4);
  else
    CopyIPv6(&v->in.in6);
}

IPAddr operator|(const IPAddr& a, const IPAddr& b) {
  IPAddr result;
  for (int i = 0; i < 16; ++i)
    result.in6.s6_addr[i] = a.in6.s6_addr[i] | b.in6.s6_addr[i];
  return result;
}

IPPrefix::IPPrefix(const in4_addr& in4, uint8_t arg_length) : prefix(in4) {
  Init(96 + std::min<int>(arg_length, 32));
}

IPPrefix::IPPrefix(const in6_addr& in6, uint8_t arg_length) : prefix(in6) {
  Init(std::min<int>(arg_length, 128));
}

IPPrefix::IPPrefix(const IPAddr& addr, uint8_t arg_length, bool len_is_v6_relative) : prefix(addr) {
  const bool add = addr.GetFamily() == IPv4 && !len_is_v6_relative;
  Init(std::min(arg_length + (add ? 96 : 0), 128));
}

void IPPrefix::Init(int length_of_128) {
  length = static_cast<uint8_t>(length_of_128);
  prefix.Mask(length_of_128);
}

bool IPPrefix::Contains(const IPAddr& addr) const {
  IPAddr masked = addr;
  masked.Mask(length);
  return masked == prefix;
}

string IPPrefix::AsString() const {
  return prefix.AsString() + "/" + std::to_string(Length());
}

void IPPrefix::ConvertToThreadingValue(threading::Value::subnet_t* v) const {
  prefix.ConvertToThreadingValue(&v->prefix);
  v->length = length;
}
