#include "Scope.h"

#include "Func.h"
#include "HostReporter.h"
#include "Val.h"
#include "Var.h"

ID::~ID() {
  Unref(type);
  Unref(val);
}

void ID::SetVal(Val* v) {
  Unref(val);
  val = v;
}

Scope::Scope() {
  Clear();
}

Scope::~Scope() {
  for (auto& id : ids)
    Unref(id.second);
}

void Scope::Clear() {
  for (auto& id : ids)
    Unref(id.second);
  ids.clear();
  const auto define_type = [this](const char* name, BroType* type) {
    ID* id = new ID;
    id->SetType(type);
    id->MakeType();
    Insert(name, id);
  };
  define_type("string_vec", new VectorType(base_type(TYPE_STRING)));
  // Nobody looks into it: what counts is the connection that it was made from.
  define_type("connection", new RecordType(new type_decl_list));
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

Scope* global_scope() {
  static Scope* scope = new Scope;
  return scope;
}

Val* internal_val(const char* name) {
  ID* id = global_scope()->Lookup(name);
  if (!id)
    host::any_reporter().InternalError("internal variable %s missing", name);
  return id->ID_Val();
}

Val* internal_const_val(const char* name) {
  Val* v = internal_val(name);
  if (!global_scope()->Lookup(name)->IsConst())
    host::any_reporter().InternalError("internal variable %s is not constant", name);
  return v;
}

BroType* internal_type(const char* name) {
  ID* id = global_scope()->Lookup(name);
  if (!id)
    host::any_reporter().InternalError("internal type %s missing", name);
  // As in the host: a name that is no type gives the type of its value.
  return id->Type();
}

Func* internal_func(const char* name) {
  Val* v = internal_val(name);
  return v ? v->AsFunc() : nullptr;
}
