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

namespace {

ID* internal_id(const char* kind, const char* name) {
  ID* id = global_scope()->Lookup(name);
  if (!id)
    host::any_reporter().InternalError("internal %s %s missing", kind, name);
  return id;
}

}  // namespace

Val* internal_val(const char* name) {
  return internal_id("variable", name)->ID_Val();
}

Val* internal_const_val(const char* name) {
  const ID* id = internal_id("variable", name);
  if (!id->IsConst())
    host::any_reporter().InternalError("internal variable %s is not constant", name);
  return id->ID_Val();
}

// As in the host: a name that is no type gives the type of its value.
BroType* internal_type(const char* name) {
  return internal_id("type", name)->Type();
}

Func* internal_func(const char* name) {
  Val* v = internal_val(name);
  return v ? v->AsFunc() : nullptr;
}
