// Script identifiers.
#pragma once

#include <string>

#include "Obj.h"
#include "Type.h"

class Func;
class Val;

class ID : public BroObj {
 public:
  ID(const char* name, bool is_export);
  ~ID();

  const char* Name() const { return name.c_str(); }
  bool IsExport() const { return is_export; }

  bool IsConst() const { return is_const; }
  void SetConst() { is_const = true; }
  bool IsRedefinable() const { return is_redefinable; }
  void SetRedefinable() { is_redefinable = true; }

  /// Takes over t's reference.
  void SetType(BroType* t);
  BroType* Type() const { return type; }
  void MakeType() { is_type = true; }
  /// The type that this name stands for; 0 if it names a value.
  BroType* AsType() const { return is_type ? type : 0; }

  int HasVal() const { return val != 0; }
  Val* ID_Val() const { return val; }
  /// Takes over v's reference.
  void SetVal(Val* v);

  void Describe(ODesc* d) const;

 private:
  std::string name;
  bool is_export;
  bool is_const;
  bool is_redefinable;
  bool is_type;
  BroType* type;
  Val* val;
};
