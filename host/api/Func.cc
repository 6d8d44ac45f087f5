#include "Func.h"

#include "HostReporter.h"

BuiltinFunc::BuiltinFunc(built_in_func arg_func, const char* arg_name, int arg_is_pure)
    : func(arg_func), is_pure(arg_is_pure) {
  ID* id = global_scope()->Lookup(arg_name);
  if (!id)
    host::any_reporter().InternalError("built-in function %s missing", arg_name);
  if (id->HasVal())
    host::any_reporter().InternalError("built-in function %s multiply defined", arg_name);
  id->SetVal(new Val(this));
}

Val* BuiltinFunc::Call(val_list* args, Frame* parent) const {
  Val* result = func(parent, args);
  loop_over_list(*args, i) Unref((*args)[i]);
  return result;
}
