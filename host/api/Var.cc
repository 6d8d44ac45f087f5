#include "Var.h"

#include <map>
#include <string>

#include "Func.h"
#include "HostReporter.h"
#include "Scope.h"
#include "Val.h"

namespace {

ID* require_id(const char* name) {
  ID* id = global_scope()->Lookup(name);
  if (!id)
    standin::host_reporter().InternalError("internal variable %s missing", name);
  return id;
}

}  // namespace

Val* internal_val(const char* name) {
  return require_id(name)->ID_Val();
}

Val* internal_const_val(const char* name) {
  ID* id = require_id(name);
  if (!id->IsConst())
    standin::host_reporter().InternalError("internal variable %s is not constant", name);
  return id->ID_Val();
}

BroType* internal_type(const char* name) {
  ID* id = global_scope()->Lookup(name);
  if (!id)
    standin::host_reporter().InternalError("internal type %s missing", name);
  // As in the host: a name that is no type gives the type of its value.
  return id->Type();
}

Func* internal_func(const char* name) {
  Val* v = internal_val(name);
  return v ? v->AsFunc() : nullptr;
}

EventHandlerPtr internal_handler(const char* name) {
  // Handlers live as long as the process: plug-ins keep pointers to them.
  static std::map<std::string, EventHandler*>* handlers = new std::map<std::string, EventHandler*>;
  EventHandler*& handler = (*handlers)[name];
  if (!handler)
    handler = new EventHandler(name);
  handler->SetUsed();
  return handler;
}

Val* opt_internal_val(const char* name) {
  ID* id = global_scope()->Lookup(name);
  return id ? id->ID_Val() : nullptr;
}

double opt_internal_double(const char* name) {
  Val* v = opt_internal_val(name);
  return v ? v->InternalDouble() : 0;
}

bro_int_t opt_internal_int(const char* name) {
  Val* v = opt_internal_val(name);
  return v ? v->InternalInt() : 0;
}

bro_uint_t opt_internal_unsigned(const char* name) {
  Val* v = opt_internal_val(name);
  return v ? v->InternalUnsigned() : 0;
}

StringVal* opt_internal_string(const char* name) {
  Val* v = opt_internal_val(name);
  return v ? v->AsStringVal() : nullptr;
}

TableVal* opt_internal_table(const char* name) {
  Val* v = opt_internal_val(name);
  return v ? v->AsTableVal() : nullptr;
}
