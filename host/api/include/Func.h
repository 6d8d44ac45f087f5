// Script functions.
#pragma once

#include <string>

#include "BroList.h"
#include "Expr.h"
#include "Frame.h"
#include "Obj.h"
#include "Type.h"
#include "Val.h"
#include "Var.h"

class Func : public BroObj {
 public:
  enum Kind { BRO_FUNC, BUILTIN_FUNC };

  explicit Func(Kind arg_kind) : kind(arg_kind), type(0) {}
  virtual ~Func();

  virtual int IsPure() const = 0;
  /// Consumes the references in `args`, not the list itself. New reference, or 0 for no value.
  virtual Val* Call(val_list* args, Frame* parent = 0) const = 0;

  Kind GetKind() const { return kind; }
  const char* Name() const { return name.c_str(); }
  FuncType* FType() const { return type ? type->AsFuncType() : 0; }

  void Describe(ODesc* d) const;

 protected:
  Kind kind;
  BroType* type;
  std::string name;
};

typedef Val* (*built_in_func)(Frame* frame, val_list* args);

class BuiltinFunc : public Func {
 public:
  /// Becomes the value of the identifier `name`, which must be declared and must have none.
  BuiltinFunc(built_in_func func, const char* name, int is_pure);

  int IsPure() const { return is_pure; }
  Val* Call(val_list* args, Frame* parent = 0) const;
  built_in_func TheFunc() const { return func; }

 private:
  built_in_func func;
  int is_pure;
};

/// Reports an error of the calling expression; the caller must return by itself.
extern void builtin_error(const char* msg, BroObj* arg = 0);
