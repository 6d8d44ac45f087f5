#include "threading/Formatter.h"

#include <arpa/inet.h>

#include "NumberText.h"

namespace threading {
namespace formatter {

Formatter::Formatter(threading::MsgThread* t) : thread(t) {}

Formatter::~Formatter() {}

string Formatter::Render(const threading::Value::addr_t& addr) const {
  char text[INET6_ADDRSTRLEN];
  const void* bytes = &addr.in;
  const int family = addr.family == IPv4 ? AF_INET : AF_INET6;
  return inet_ntop(family, bytes, text, sizeof(text)) ? text : "<bad address>";
}

string Formatter::Render(const threading::Value::subnet_t& subnet) const {
  const int length = subnet.prefix.family == IPv4 ? subnet.length - 96 : subnet.length;
  return Render(subnet.prefix) + "/" + std::to_string(length);
}

string Formatter::Render(double d) const {
  return standin::fixed_number(d);
}

TransportProto Formatter::ParseProto(const string& proto) const {
  const string lower = strtolower(proto);
  if (lower == "tcp")
    return TRANSPORT_TCP;
  if (lower == "udp")
    return TRANSPORT_UDP;
  if (lower == "icmp")
    return TRANSPORT_ICMP;
  return TRANSPORT_UNKNOWN;
}

threading::Value::addr_t Formatter::ParseAddr(const string& addr) const {
  threading::Value::addr_t result;
  memset(&result, 0, sizeof(result));
  if (inet_pton(AF_INET, addr.c_str(), &result.in.in4) == 1) {
    result.family = IPv4;
    return result;
  }
  result.family = IPv6;
  if (inet_pton(AF_INET6, addr.c_str(), &result.in.in6) != 1) {
    if (thread)
      thread->Warning(("not an IP address: " + addr).c_str());
    memset(&result.in, 0, sizeof(result.in));
  }
  return result;
}

}  // namespace formatter
}  // namespace threading
