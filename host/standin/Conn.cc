#include "Conn.h"

#include <arpa/inet.h>

#include "Desc.h"

namespace {

// Fields of the script record `connection`.
enum ConnField {
  kId,
  kOrig,
  kResp,
  kStartTime,
  kDuration,
  kService,
  kHistory,
  kUid,
  kTunnel,
  kVlan,
  kInnerVlan
};

uint32 host_port(uint32 network_port) {
  return ntohs(static_cast<uint16_t>(network_port));
}

Val* endpoint_val(uint32 flow_label) {
  RecordVal* v = new RecordVal(internal_type("endpoint")->AsRecordType());
  v->Assign(0, new Val(uint64(0), TYPE_COUNT));
  v->Assign(1, new Val(uint64(0), TYPE_COUNT));
  v->Assign(4, new Val(flow_label, TYPE_COUNT));
  return v;
}

}  // namespace

Connection::Connection(NetSessions*, HashKey*, double t, const ConnID* id, uint32 flow,
                       uint32 arg_vlan, uint32 arg_inner_vlan, const EncapsulationStack*)
    : orig_addr(id->src_addr),
      resp_addr(id->dst_addr),
      orig_port(id->src_port),
      resp_port(id->dst_port),
      proto(TRANSPORT_UNKNOWN),
      vlan(arg_vlan),
      inner_vlan(arg_inner_vlan),
      flow_label(flow),
      start_time(t),
      last_time(t),
      uid(),
      conn_val(nullptr) {}

Connection::~Connection() {
  if (conn_val) {
    conn_val->SetOrigin(nullptr);
    Unref(conn_val);
  }
}

RecordVal* Connection::BuildIdVal() const {
  RecordVal* v = new RecordVal(internal_type("conn_id")->AsRecordType());
  v->Assign(0, new AddrVal(orig_addr));
  v->Assign(1, new PortVal(host_port(orig_port), proto));
  v->Assign(2, new AddrVal(resp_addr));
  v->Assign(3, new PortVal(host_port(resp_port), proto));
  return v;
}

void Connection::FillConnVal() {
  conn_val->Assign(kId, BuildIdVal());
  conn_val->Assign(kOrig, endpoint_val(flow_label));
  conn_val->Assign(kResp, endpoint_val(0));
  conn_val->Assign(kHistory, new StringVal(""));
  conn_val->Assign(kUid, new StringVal(uid.Base62("C")));
  if (vlan)
    conn_val->Assign(kVlan, new Val(static_cast<int32>(vlan), TYPE_INT));
  if (inner_vlan)
    conn_val->Assign(kInnerVlan, new Val(static_cast<int32>(inner_vlan), TYPE_INT));
}

RecordVal* Connection::BuildConnVal() {
  if (!conn_val) {
    if (!uid)
      uid.Set(bits_per_uid);
    conn_val = new RecordVal(internal_type("connection")->AsRecordType());
    FillConnVal();
  }
  conn_val->Assign(kStartTime, new Val(start_time, TYPE_TIME));
  conn_val->Assign(kDuration, new Val(last_time - start_time, TYPE_INTERVAL));
  conn_val->SetOrigin(this);
  Ref(conn_val);
  return conn_val;
}

void Connection::Describe(ODesc* d) const {
  d->Add(orig_addr);
  d->Add(":");
  d->Add(host_port(orig_port));
  d->Add(" -> ");
  d->Add(resp_addr);
  d->Add(":");
  d->Add(host_port(resp_port));
}
