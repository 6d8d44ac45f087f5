// Script identifiers.
#pragma once

#include "Obj.h"
#include "Type.h"

class Val;

class ID : public BroObj {
 public:
  ID() : is_const(false), is_redefinable(false), is_type(false), type(0), val(0) {}
  ~ID();

  bool IsConst() const { return is_const; }
  void SetConst() { is_const = true; }
  bool IsRedefinable() const { return is_redefinable; }
  void SetRedefinable() { is_redefinable = true; }

  /// Takes over t's reference. Once only.
  void SetType(BroType* t) { type = t; }
  BroType* Type() const { return type; }
  void MakeType() { is_type = true; }
  /// The type that this name stands for; 0 if it names a value.
  BroType* AsType() const { return is_type ? type : 0; }

  int HasVal() const { return val != 0; }
  Val* ID_Val() const { return val; }
  /// Takes over v's reference.
  void SetVal(Val* v);

 private:
  bool is_const;
  bool is_redefinable;
  bool is_type;
  BroType* type;
  Val* val;
};
