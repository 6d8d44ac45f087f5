#include "Func.h"

#include "Desc.h"
#include "HostReporter.h"
#include "Scope.h"

Func::~Func() {
  Unref(type);
}

void Func::Describe(ODesc* d) const {
  d->Add(name);
}

BuiltinFunc::BuiltinFunc(built_in_func arg_func, const char* arg_name, int arg_is_pure)
    : Func(BUILTIN_FUNC), func(arg_func), is_pure(arg_is_pure) {
  name = arg_name;
  ID* id = global_scope()->Lookup(arg_name);
  if (!id)
    standin::host_reporter().InternalError("built-in function %s missing", arg_name);
  if (id->HasVal())
    standin::host_reporter().InternalError("built-in function %s multiply defined", arg_name);
  if (id->Type())
    type = id->Type()->Ref();
  id->SetVal(new Val(this));
}

Val* BuiltinFunc::Call(val_list* args, Frame* parent) const {
  Val* result = func(parent, args);
  loop_over_list(*args, i) Unref((*args)[i]);
  return result;
}

void builtin_error(const char* msg, BroObj* arg) {
  if (!arg) {
    standin::host_reporter().Error("%s", msg);
    return;
  }
  ODesc d;
  arg->Describe(&d);
  standin::host_reporter().Error("%s: %s", msg, d.Description());
}
