// Script functions.
#pragma once

#include <string>

#include "BroList.h"
#include "Obj.h"
#include "Type.h"
#include "Val.h"
#include "Var.h"

class Frame;

class Func : public BroObj {
 public:
  virtual int IsPure() const = 0;
  /// Consumes the references in `args`, not the list itself. New reference, or 0 for no value.
  virtual Val* Call(val_list* args, Frame* parent = 0) const = 0;
};

typedef Val* (*built_in_func)(Frame* frame, val_list* args);

class BuiltinFunc : public Func {
 public:
  /// Becomes the value of the identifier `name`, which must be declared and must have none.
  BuiltinFunc(built_in_func func, const char* name, int is_pure);

  int IsPure() const { return is_pure; }
  Val* Call(val_list* args, Frame* parent = 0) const;

 private:
  built_in_func func;
  int is_pure;
};
