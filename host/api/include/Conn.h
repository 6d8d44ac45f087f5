// Connections. Main thread only.
#pragma once

#include <string>

#include "Func.h"
#include "IPAddr.h"
#include "Net.h"
#include "NetVar.h"
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
  /// `s`, `k` and `arg_encap` are not looked at and may be 0.
  Connection(NetSessions* s, HashKey* k, double t, const ConnID* id, uint32 flow, uint32 vlan,
             uint32 inner_vlan, const EncapsulationStack* arg_encap);
  /// The script record, if others still hold it, loses its origin.
  virtual ~Connection();

  const IPAddr& OrigAddr() const { return orig_addr; }
  const IPAddr& RespAddr() const { return resp_addr; }
  /// 16 bits in network order.
  uint32 OrigPort() const { return orig_port; }
  uint32 RespPort() const { return resp_port; }
  TransportProto ConnTransport() const { return proto; }
  void SetTransport(TransportProto arg_proto) { proto = arg_proto; }
  double StartTime() const { return start_time; }
  double LastTime() const { return last_time; }
  void SetLastTime(double t) { last_time = t; }

  /// Not set before the script record was built.
  Bro::UID GetUID() const { return uid; }

  /// The script record `connection`, whose origin is this object. New reference.
  RecordVal* BuildConnVal();

  void Describe(ODesc* d) const;

 private:
  RecordVal* BuildIdVal() const;
  void FillConnVal();

  IPAddr orig_addr;
  IPAddr resp_addr;
  uint32 orig_port;
  uint32 resp_port;
  TransportProto proto;
  uint32 vlan;
  uint32 inner_vlan;
  uint32 flow_label;
  double start_time;
  double last_time;
  Bro::UID uid;
  RecordVal* conn_val;
};
