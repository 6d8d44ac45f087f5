// Script values. Main thread only; reference-counted as Obj.h says.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Attr.h"
#include "BroList.h"
#include "BroString.h"
#include "Desc.h"
#include "Dict.h"
#include "ID.h"
#include "IPAddr.h"
#include "Obj.h"
#include "Scope.h"
#include "StateAccess.h"
#include "Timer.h"
#include "Type.h"
#include "net_util.h"

using namespace std;

class AddrVal;
class BroFile;
class EnumVal;
class Func;
class ListVal;
class PatternVal;
class PortVal;
class RE_Matcher;
class RecordVal;
class StringVal;
class SubNetVal;
class TableEntryVal;
class TableVal;
class VectorVal;
class PDict(TableEntryVal);

typedef union {
  bro_int_t int_val;
  bro_uint_t uint_val;
  double double_val;
  IPAddr* addr_val;
  IPPrefix* subnet_val;
  BroString* string_val;
  Func* func_val;
  BroFile* file_val;
  RE_Matcher* re_val;
  const PDict(TableEntryVal) * table_val;
  val_list* val_list_val;
  vector<Val*>* vector_val;
} BroValUnion;

#define STANDIN_CONST_ACCESSOR(Expected, Result, Member, Name)          \
  Result Name() const {                                                 \
    CHECK_TAG(type->Tag(), Expected, "Val::CONST_ACCESSOR", type_name); \
    return static_cast<Result>(val.Member);                             \
  }
#define STANDIN_ACCESSOR(Expected, Result, Member, Name)          \
  Result Name() {                                                 \
    CHECK_TAG(type->Tag(), Expected, "Val::ACCESSOR", type_name); \
    return val.Member;                                            \
  }
#define STANDIN_CONVERTER(Expected, Class, Name)                   \
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
  Val(bool b, TypeTag t) : type(base_type(t)) { Init(static_cast<bro_int_t>(b)); }
  Val(int32 i, TypeTag t) : type(base_type(t)) { Init(static_cast<bro_int_t>(i)); }
  Val(uint32 u, TypeTag t) : type(base_type(t)) { Init(static_cast<bro_uint_t>(u)); }
  Val(int64 i, TypeTag t) : type(base_type(t)) { Init(static_cast<bro_int_t>(i)); }
  Val(uint64 u, TypeTag t) : type(base_type(t)) { Init(static_cast<bro_uint_t>(u)); }
  Val(double d, TypeTag t) : type(base_type(t)) {
    Init(bro_uint_t(0));
    val.double_val = d;
  }
  /// Takes over f's reference.
  explicit Val(Func* f);
  /// A value of type `file`; the stand-in has no files to own.
  explicit Val(BroFile* f);
  /// A type as a value; takes its own reference.
  Val(BroType* t, bool type_type);
  Val();
  virtual ~Val();

  Val* Ref() {
    ::Ref(this);
    return this;
  }

  /// By internal class; the wrong class gives an internal warning and 0.
  bro_int_t InternalInt() const;
  bro_uint_t InternalUnsigned() const;
  double InternalDouble() const;
  /// Converted; 0 for what is no number.
  bro_int_t CoerceToInt() const;
  bro_uint_t CoerceToUnsigned() const;
  double CoerceToDouble() const;

  BroType* Type() { return type; }
  const BroType* Type() const { return type; }

  bool AsBool() const {
    CHECK_TAG(type->Tag(), TYPE_BOOL, "Val::CONST_ACCESSOR", type_name);
    return val.int_val != 0;
  }
  STANDIN_CONST_ACCESSOR(TYPE_INT, bro_int_t, int_val, AsInt)
  STANDIN_CONST_ACCESSOR(TYPE_COUNT, bro_uint_t, uint_val, AsCount)
  STANDIN_CONST_ACCESSOR(TYPE_COUNTER, bro_uint_t, uint_val, AsCounter)
  STANDIN_CONST_ACCESSOR(TYPE_DOUBLE, double, double_val, AsDouble)
  STANDIN_CONST_ACCESSOR(TYPE_TIME, double, double_val, AsTime)
  STANDIN_CONST_ACCESSOR(TYPE_INTERVAL, double, double_val, AsInterval)
  STANDIN_CONST_ACCESSOR(TYPE_ENUM, int, int_val, AsEnum)
  STANDIN_CONST_ACCESSOR(TYPE_STRING, const BroString*, string_val, AsString)
  STANDIN_CONST_ACCESSOR(TYPE_FUNC, const Func*, func_val, AsFunc)
  STANDIN_CONST_ACCESSOR(TYPE_TABLE, const PDict(TableEntryVal) *, table_val, AsTable)
  STANDIN_CONST_ACCESSOR(TYPE_RECORD, const val_list*, val_list_val, AsRecord)
  STANDIN_CONST_ACCESSOR(TYPE_FILE, const BroFile*, file_val, AsFile)
  STANDIN_CONST_ACCESSOR(TYPE_PATTERN, const RE_Matcher*, re_val, AsPattern)
  STANDIN_CONST_ACCESSOR(TYPE_VECTOR, const vector<Val*>*, vector_val, AsVector)
  STANDIN_ACCESSOR(TYPE_FUNC, Func*, func_val, AsFunc)
  STANDIN_ACCESSOR(TYPE_FILE, BroFile*, file_val, AsFile)
  STANDIN_ACCESSOR(TYPE_PATTERN, RE_Matcher*, re_val, AsPattern)
  STANDIN_ACCESSOR(TYPE_VECTOR, vector<Val*>*, vector_val, AsVector)

  const IPPrefix& AsSubNet() const {
    CHECK_TAG(type->Tag(), TYPE_SUBNET, "Val::SubNet", type_name);
    return *val.subnet_val;
  }
  BroType* AsType() const {
    CHECK_TAG(type->Tag(), TYPE_TYPE, "Val::Type", type_name);
    return type;
  }
  const IPAddr& AsAddr() const {
    if (type->Tag() != TYPE_ADDR)
      BadTag("Val::AsAddr", type_name(type->Tag()));
    return *val.addr_val;
  }

  STANDIN_CONVERTER(TYPE_PATTERN, PatternVal, AsPatternVal)
  STANDIN_CONVERTER(TYPE_PORT, PortVal, AsPortVal)
  STANDIN_CONVERTER(TYPE_SUBNET, SubNetVal, AsSubNetVal)
  STANDIN_CONVERTER(TYPE_ADDR, AddrVal, AsAddrVal)
  STANDIN_CONVERTER(TYPE_TABLE, TableVal, AsTableVal)
  STANDIN_CONVERTER(TYPE_RECORD, RecordVal, AsRecordVal)
  STANDIN_CONVERTER(TYPE_LIST, ListVal, AsListVal)
  STANDIN_CONVERTER(TYPE_STRING, StringVal, AsStringVal)
  STANDIN_CONVERTER(TYPE_VECTOR, VectorVal, AsVectorVal)

  EnumVal* AsEnumVal() {
    CHECK_TAG(type->Tag(), TYPE_ENUM, "Val::CONVERTER", type_name);
    return reinterpret_cast<EnumVal*>(this);
  }

  void Describe(ODesc* d) const;

 protected:
  explicit Val(TypeTag t) : type(base_type(t)) { Init(bro_uint_t(0)); }
  /// Takes its own reference.
  explicit Val(BroType* t) : type(t->Ref()) { Init(bro_uint_t(0)); }

  /// The text of the value itself, without the type's quirks.
  virtual void ValDescribe(ODesc* d) const;

  BroValUnion val;
  BroType* type;

 private:
  void Init(bro_int_t i) { val.int_val = i; }
  void Init(bro_uint_t u) { val.uint_val = u; }
};
#undef STANDIN_CONST_ACCESSOR
#undef STANDIN_ACCESSOR
#undef STANDIN_CONVERTER

class StringVal : public Val {
 public:
  /// Takes ownership.
  explicit StringVal(BroString* s);
  explicit StringVal(const char* s);
  /// Ends at the first NUL byte.
  explicit StringVal(const string& s);
  /// Any bytes.
  StringVal(int length, const char* s);
  ~StringVal();

  int Len();
  const u_char* Bytes();
  const char* CheckString();

 protected:
  void ValDescribe(ODesc* d) const;
};

class PortVal : public Val {
 public:
  /// Host order.
  PortVal(uint32 p, TransportProto port_type);
  explicit PortVal(uint32 p);

  /// Host order, without the protocol.
  uint32 Port() const;
  TransportProto PortType() const;
  int IsTCP() const { return PortType() == TRANSPORT_TCP; }
  int IsUDP() const { return PortType() == TRANSPORT_UDP; }
  int IsICMP() const { return PortType() == TRANSPORT_ICMP; }

 protected:
  void ValDescribe(ODesc* d) const;
};

class AddrVal : public Val {
 public:
  explicit AddrVal(const char* text);
  explicit AddrVal(uint32 addr);           // IPv4, network order
  explicit AddrVal(const uint32 addr[4]);  // IPv6, network order
  explicit AddrVal(const IPAddr& addr);
  ~AddrVal();

 protected:
  void ValDescribe(ODesc* d) const;
};

class SubNetVal : public Val {
 public:
  explicit SubNetVal(const char* text);
  SubNetVal(const char* text, int width);
  SubNetVal(uint32 addr, int width);           // IPv4, network order
  SubNetVal(const uint32 addr[4], int width);  // IPv6, network order
  SubNetVal(const IPAddr& addr, int width);
  explicit SubNetVal(const IPPrefix& prefix);
  ~SubNetVal();

  const IPAddr& Prefix() const;
  int Width() const;
  IPAddr Mask() const;

 protected:
  void ValDescribe(ODesc* d) const;
};

// Units of IntervalVal, in seconds.
#define Microseconds 1e-6
#define Milliseconds 1e-3
#define Seconds 1.0
#define Minutes (60 * Seconds)
#define Hours (60 * Minutes)
#define Days (24 * Hours)

class IntervalVal : public Val {
 public:
  IntervalVal(double quantity, double units) : Val(quantity * units, TYPE_INTERVAL) {}
};

class EnumVal : public Val {
 public:
  EnumVal(int i, EnumType* t);

 protected:
  void ValDescribe(ODesc* d) const;
};

class ListVal : public Val {
 public:
  explicit ListVal(TypeTag t);
  ~ListVal();

  int Length() const { return vals.length(); }
  /// Borrowed.
  Val* Index(const int n) { return vals[n]; }
  const Val* Index(const int n) const { return vals[n]; }
  /// Takes over v's reference.
  void Append(Val* v);

 protected:
  void ValDescribe(ODesc* d) const;

 private:
  TypeTag tag;
  val_list vals;
};

class RecordVal : public Val {
 public:
  /// Takes its own reference on the type. Fields with a default begin with it, containers that
  /// are not optional begin empty, all others unset.
  explicit RecordVal(RecordType* t);
  ~RecordVal();

  /// Takes over new_val's reference (0: unset). Neither type nor range is checked by the host;
  /// an index outside the record aborts here.
  void Assign(int field, Val* new_val, Opcode op = OP_ASSIGN);
  /// Borrowed; 0 if unset.
  Val* Lookup(int field) const;
  /// New reference; 0 if unset and without default.
  Val* LookupWithDefault(int field) const;
  /// Borrowed, or a new reference if `with_default`. An unknown name aborts.
  Val* Lookup(const char* field, bool with_default = false) const;

  /// What the record was made from; not owned.
  void SetOrigin(BroObj* o) { origin = o; }
  BroObj* GetOrigin() const { return origin; }

 protected:
  void ValDescribe(ODesc* d) const;

 private:
  Val* InitialValue(int field) const;

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
  bool Assign(Val* index, Val* element, Opcode op = OP_ASSIGN);
  /// Takes over one reference for each element assigned.
  bool AssignRepeat(unsigned int index, unsigned int how_many, Val* element);

  /// Borrowed; 0 if unset or out of range.
  Val* Lookup(unsigned int index) const;
  Val* Lookup(Val* index);

  unsigned int Size() const;
  /// Both return the old size.
  unsigned int Resize(unsigned int new_num_elements);
  unsigned int ResizeAtLeast(unsigned int new_num_elements);

 protected:
  void ValDescribe(ODesc* d) const;

 private:
  VectorType* vector_type;
};

/// A table or set. The stand-in orders the elements by the text of their index.
class TableVal : public Val {
 public:
  /// Takes its own reference on the type.
  explicit TableVal(TableType* t, Attributes* attrs = 0);
  ~TableVal();

  /// Takes over new_val's reference (0 for sets), leaves `index` to the caller. Returns 1.
  int Assign(Val* index, Val* new_val, Opcode op = OP_ASSIGN);
  /// Borrowed; for a set the value of a found element is the table itself. 0 if there is none.
  Val* Lookup(Val* index, bool use_default_val = true);
  int Size() const { return static_cast<int>(entries.size()); }

 protected:
  void ValDescribe(ODesc* d) const;

 private:
  struct Entry {
    Val* index;
    Val* value;
  };
  map<string, Entry> entries;
};

/// Unrefs the elements and deletes the list. Null is allowed.
extern void delete_vals(val_list* vals);
