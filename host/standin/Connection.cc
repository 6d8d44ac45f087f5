#include "Conn.h"

Connection::Connection(NetSessions*, HashKey*, double, const ConnID* arg_id, uint32, uint32, uint32,
                       const EncapsulationStack*)
    : id(*arg_id), conn_val(nullptr) {}

Connection::~Connection() {
  if (conn_val)
    conn_val->SetOrigin(nullptr);
  Unref(conn_val);
}

RecordVal* Connection::BuildConnVal() {
  if (!conn_val)
    conn_val = new RecordVal(internal_type("connection")->AsRecordType());
  conn_val->SetOrigin(this);
  Ref(conn_val);
  return conn_val;
}
