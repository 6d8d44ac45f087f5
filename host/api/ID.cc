#include "ID.h"

#include "Desc.h"
#include "Val.h"

ID::ID(const char* arg_name, bool arg_is_export)
    : name(arg_name),
      is_export(arg_is_export),
      is_const(false),
      is_redefinable(false),
      is_type(false),
      type(nullptr),
      val(nullptr) {}

ID::~ID() {
  Unref(type);
  Unref(val);
}

void ID::SetType(BroType* t) {
  Unref(type);
  type = t;
}

void ID::SetVal(Val* v) {
  Unref(val);
  val = v;
}

void ID::Describe(ODesc* d) const {
  d->Add(name);
}
