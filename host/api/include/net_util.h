// Enumerations of the network layer.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "util.h"

enum TransportProto {
  TRANSPORT_UNKNOWN,
  TRANSPORT_TCP,
  TRANSPORT_UDP,
  TRANSPORT_ICMP,
};

// Not AF_*, and neither 4 nor 6.
enum IPFamily { IPv4, IPv6 };
