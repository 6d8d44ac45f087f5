// Script values. Main thread only; reference-counted as Obj.h says.
#pragma once

#include <string>
#include <vector>

#include "BroList.h"
#include "BroString.h"
#include "ID.h"
#include "IPAddr.h"
#include "Obj.h"
#include "Scope.h"
#include "StateAccess.h"
#include "Type.h"
#include "net_util.h"

using namespace std;

class EnumVal;
class Func;
class RecordVal;
class StringVal;
class VectorVal;

typedef union {
  bro_int_t int_val;
  bro_uint_t uint_val;
  double double_val;
  BroString* string_val;
  Func* func_val;
  vector<Val*>* vector_val;
} BroValUnion;

#define HOST_CONST_ACCESSOR(Expected, Result, Member, Name)             \
  Result Name() const {                                                 \
    CHECK_TAG(type->Tag(), Expected, "Val::CONST_ACCESSOR", type_name); \
    return val.Member;                                                  \
  }

#define HOST_CONVERTER(Expected, Class, Name)                      \
  Class* Name() {                                                  \
    CHECK_TAG(type->Tag(), Expected, "Val::CONVERTER", type_name); \
    return reinterpret_cast<Class*>(this);                         \
  }                                                                \
  const Class* Name() const {                                      \
    CHECK_TAG(type->Tag(), Expected, "Val::CONVERTER", type_name); \
    return reinterpret_cast<const Class*>(this);                   \
  }

class Val : public BroObj {
 public:
  // None of these converts: the argument's class decides which member is filled, the tag is
  // stored as it is. A double for double, time and interval; an integer for int, count and bool.
  Val(bool b, TypeTag t) : type(base_type(t)) { val.int_val = b; }
  Val(int32 i, TypeTag t) : type(base_type(t)) { val.int_val = i; }
  Val(uint32 u, TypeTag t) : type(base_type(t)) { val.uint_val = u; }
  Val(int64 i, TypeTag t) : type(base_type(t)) { val.int_val = i; }
  Val(uint64 u, TypeTag t) : type(base_type(t)) { val.uint_val = u; }
  Val(double d, TypeTag t) : type(base_type(t)) { val.double_val = d; }
  /// Takes over f's reference.
  explicit Val(Func* f);
  virtual ~Val();

  Val* Ref() {
    ::Ref(this);
    return this;
  }

  BroType* Type() { return type; }
  const BroType* Type() const { return type; }

  HOST_CONST_ACCESSOR(TYPE_INT, bro_int_t, int_val, AsInt)
  HOST_CONST_ACCESSOR(TYPE_COUNT, bro_uint_t, uint_val, AsCount)
  HOST_CONST_ACCESSOR(TYPE_DOUBLE, double, double_val, AsDouble)
  HOST_CONST_ACCESSOR(TYPE_STRING, const BroString*, string_val, AsString)
  int AsEnum() const {
    CHECK_TAG(type->Tag(), TYPE_ENUM, "Val::CONST_ACCESSOR", type_name);
    return static_cast<int>(val.int_val);
  }
  Func* AsFunc() {
    CHECK_TAG(type->Tag(), TYPE_FUNC, "Val::ACCESSOR", type_name);
    return val.func_val;
  }

  HOST_CONVERTER(TYPE_RECORD, RecordVal, AsRecordVal)
  HOST_CONVERTER(TYPE_STRING, StringVal, AsStringVal)
  HOST_CONVERTER(TYPE_VECTOR, VectorVal, AsVectorVal)

 protected:
  /// Takes its own reference. The value is the derived class's to fill.
  explicit Val(BroType* t) : type(t->Ref()) {}

  BroValUnion val;
  BroType* type;
};

#undef HOST_CONST_ACCESSOR
#undef HOST_CONVERTER

class StringVal : public Val {
 public:
  explicit StringVal(const char* s);
  /// Ends at the first NUL byte.
  explicit StringVal(const string& s);
  /// Any bytes.
  StringVal(int length, const char* s);
  ~StringVal();

  int Len() { return val.string_val->Len(); }
  const char* CheckString() { return val.string_val->CheckString(); }
};

class EnumVal : public Val {
 public:
  EnumVal(int i, EnumType* t) : Val(t) { val.int_val = i; }
};

class RecordVal : public Val {
 public:
  /// Takes its own reference on the type. Every field begins unset.
  explicit RecordVal(RecordType* t);
  ~RecordVal();

  /// Takes over new_val's reference (0: unset). Neither type nor range is checked by the host;
  /// an index outside the record aborts here.
  void Assign(int field, Val* new_val, Opcode op = OP_ASSIGN);
  /// Borrowed; 0 if unset.
  Val* Lookup(int field) const;
  /// Borrowed. An unknown name aborts.
  Val* Lookup(const char* field, bool with_default = false) const;

  /// What the record was made from; not owned.
  void SetOrigin(BroObj* o) { origin = o; }
  BroObj* GetOrigin() const { return origin; }

 private:
  RecordType* record_type;
  BroObj* origin;
};

class VectorVal : public Val {
 public:
  /// Takes its own reference on the type.
  explicit VectorVal(VectorType* t);
  ~VectorVal();

  /// Takes over element's reference in any case; false if its type does not fit. Grows as needed.
  bool Assign(unsigned int index, Val* element, Opcode op = OP_ASSIGN);

  /// Borrowed; 0 if unset or out of range.
  Val* Lookup(unsigned int index) const;
  unsigned int Size() const { return static_cast<unsigned int>(val.vector_val->size()); }

 private:
  VectorType* vector_type;
};
