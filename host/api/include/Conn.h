// Connections. Main thread only.
#pragma once

#include "Func.h"
#include "IPAddr.h"
#include "Net.h"
#include "Reporter.h"
#include "UID.h"
#include "Val.h"
#include "logging/WriterBackend.h"

class EncapsulationStack;
class HashKey;
class NetSessions;

struct ConnID {
  IPAddr src_addr;
  IPAddr dst_addr;
  uint32 src_port;  // network order
  uint32 dst_port;
  bool is_one_way;
};

class Connection : public BroObj {
 public:
  /// Only `id` is looked at.
  Connection(NetSessions* s, HashKey* k, double t, const ConnID* id, uint32 flow, uint32 vlan,
             uint32 inner_vlan, const EncapsulationStack* encap);
  /// The script record, if others still hold it, loses its origin.
  virtual ~Connection();

  const IPAddr& OrigAddr() const { return id.src_addr; }
  const IPAddr& RespAddr() const { return id.dst_addr; }
  /// 16 bits in network order.
  uint32 OrigPort() const { return id.src_port; }
  uint32 RespPort() const { return id.dst_port; }

  /// The script record `connection`, whose origin is this object. New reference.
  RecordVal* BuildConnVal();

 private:
  ConnID id;
  RecordVal* conn_val;
};
