#include "Scope.h"

#include "Val.h"
#include "standin/Scripts.h"

Scope::~Scope() {
  for (auto& id : ids)
    Unref(id.second);
}

ID* Scope::Lookup(const char* name) const {
  return Lookup(std::string(name));
}

ID* Scope::Lookup(const std::string& name) const {
  auto found = ids.find(name);
  return found == ids.end() ? nullptr : found->second;
}

void Scope::Insert(const char* name, ID* id) {
  ID*& slot = ids[name];
  Unref(slot);
  slot = id;
}

namespace {

Scope* current_scope = nullptr;

VectorType* vector_of(TypeTag tag) {
  return new VectorType(base_type(tag));
}

SetType* set_of(TypeTag tag) {
  TypeList* indices = new TypeList(base_type_no_ref(tag));
  indices->Append(base_type(tag));
  return new SetType(indices, nullptr);
}

void define_connection_types() {
  using standin::FieldSpec;
  RecordType* conn_id =
      standin::record_type("conn_id", {FieldSpec("orig_h", base_type(TYPE_ADDR), false, true),
                                       FieldSpec("orig_p", base_type(TYPE_PORT), false, true),
                                       FieldSpec("resp_h", base_type(TYPE_ADDR), false, true),
                                       FieldSpec("resp_p", base_type(TYPE_PORT), false, true)});
  RecordType* endpoint =
      standin::record_type("endpoint", {FieldSpec("size", base_type(TYPE_COUNT)),
                                        FieldSpec("state", base_type(TYPE_COUNT)),
                                        FieldSpec("num_pkts", base_type(TYPE_COUNT), true),
                                        FieldSpec("num_bytes_ip", base_type(TYPE_COUNT), true),
                                        FieldSpec("flow_label", base_type(TYPE_COUNT))});
  RecordType* connection = standin::record_type(
      "connection",
      {FieldSpec("id", conn_id->Ref()), FieldSpec("orig", endpoint->Ref()),
       FieldSpec("resp", endpoint->Ref()), FieldSpec("start_time", base_type(TYPE_TIME)),
       FieldSpec("duration", base_type(TYPE_INTERVAL)), FieldSpec("service", set_of(TYPE_STRING)),
       FieldSpec("history", base_type(TYPE_STRING)), FieldSpec("uid", base_type(TYPE_STRING)),
       FieldSpec("tunnel", base_type(TYPE_ANY), true), FieldSpec("vlan", base_type(TYPE_INT), true),
       FieldSpec("inner_vlan", base_type(TYPE_INT), true)});
  standin::define_type("conn_id", conn_id);
  standin::define_type("endpoint", endpoint);
  standin::define_type("connection", connection);
}

// What the host's own base scripts define before any plug-in's script is read.
void define_host_types() {
  standin::define_type("string_vec", vector_of(TYPE_STRING));
  standin::define_type("index_vec", vector_of(TYPE_COUNT));
  standin::define_type("addr_vec", vector_of(TYPE_ADDR));
  standin::define_type("string_set", set_of(TYPE_STRING));
  standin::define_type("addr_set", set_of(TYPE_ADDR));
  standin::define_type("count_set", set_of(TYPE_COUNT));
  define_connection_types();
  EnumType* proto = new EnumType("transport_proto");
  proto->AddName("GLOBAL", "unknown_transport", TRANSPORT_UNKNOWN, true, false);
  proto->AddName("GLOBAL", "tcp", TRANSPORT_TCP, true, false);
  proto->AddName("GLOBAL", "udp", TRANSPORT_UDP, true, false);
  proto->AddName("GLOBAL", "icmp", TRANSPORT_ICMP, true, false);
  standin::define_type("transport_proto", proto);
}

}  // namespace

Scope* global_scope() {
  if (!current_scope) {
    current_scope = new Scope;
    define_host_types();
  }
  return current_scope;
}

void standin::forget_scripts() {
  Unref(current_scope);
  current_scope = nullptr;
}
