// Script types.
#pragma once

#include <map>
#include <string>

#include "BroList.h"
#include "Dict.h"
#include "Obj.h"

using namespace std;

typedef enum {
  TYPE_VOID,
  TYPE_BOOL,
  TYPE_INT,
  TYPE_COUNT,
  TYPE_COUNTER,
  TYPE_DOUBLE,
  TYPE_TIME,
  TYPE_INTERVAL,
  TYPE_STRING,
  TYPE_PATTERN,
  TYPE_ENUM,
  TYPE_TIMER,
  TYPE_PORT,
  TYPE_ADDR,
  TYPE_SUBNET,
  TYPE_ANY,
  TYPE_TABLE,
  TYPE_UNION,
  TYPE_RECORD,
  TYPE_LIST,
  TYPE_FUNC,
  TYPE_FILE,
  TYPE_VECTOR,
  TYPE_OPAQUE,
  TYPE_TYPE,
  TYPE_ERROR
} TypeTag;

#define NUM_TYPES (int(TYPE_ERROR) + 1)

typedef enum { FUNC_FLAVOR_FUNCTION, FUNC_FLAVOR_EVENT, FUNC_FLAVOR_HOOK } function_flavor;

typedef enum {
  TYPE_INTERNAL_VOID,
  TYPE_INTERNAL_INT,
  TYPE_INTERNAL_UNSIGNED,
  TYPE_INTERNAL_DOUBLE,
  TYPE_INTERNAL_STRING,
  TYPE_INTERNAL_ADDR,
  TYPE_INTERNAL_SUBNET,
  TYPE_INTERNAL_OTHER,
  TYPE_INTERNAL_ERROR
} InternalTypeTag;

/// The script name of a tag, e.g. "count". Any thread.
extern const char* type_name(TypeTag t);

class Attributes;
class EnumType;
class FuncType;
class ListExpr;
class OpaqueType;
class RecordType;
class SetType;
class SubNetType;
class TableType;
class TypeList;
class TypeType;
class VectorType;

#define STANDIN_AS_TYPE(Class, Tag)                       \
  const Class* As##Class() const {                        \
    CHECK_TAG(tag, Tag, "BroType::As" #Class, type_name); \
    return reinterpret_cast<const Class*>(this);          \
  }                                                       \
  Class* As##Class() {                                    \
    CHECK_TAG(tag, Tag, "BroType::As" #Class, type_name); \
    return reinterpret_cast<Class*>(this);                \
  }

class BroType : public BroObj {
 public:
  BroType(TypeTag t, bool base_type = false);
  ~BroType();

  TypeTag Tag() const { return tag; }
  InternalTypeTag InternalType() const { return internal_tag; }

  /// Element type of containers and result of functions; 0 for all others.
  virtual BroType* YieldType();
  virtual const BroType* YieldType() const { return const_cast<BroType*>(this)->YieldType(); }
  virtual int HasField(const char* field) const;
  virtual BroType* FieldType(const char* field) const;

  STANDIN_AS_TYPE(TypeList, TYPE_LIST)
  STANDIN_AS_TYPE(TableType, TYPE_TABLE)
  STANDIN_AS_TYPE(RecordType, TYPE_RECORD)
  STANDIN_AS_TYPE(SubNetType, TYPE_SUBNET)
  STANDIN_AS_TYPE(FuncType, TYPE_FUNC)
  STANDIN_AS_TYPE(EnumType, TYPE_ENUM)
  STANDIN_AS_TYPE(VectorType, TYPE_VECTOR)
  STANDIN_AS_TYPE(OpaqueType, TYPE_OPAQUE)
  STANDIN_AS_TYPE(TypeType, TYPE_TYPE)

  const SetType* AsSetType() const {
    if (!IsSet())
      BadTag("BroType::AsSetType", type_name(tag));
    return reinterpret_cast<const SetType*>(this);
  }
  SetType* AsSetType() {
    if (!IsSet())
      BadTag("BroType::AsSetType", type_name(tag));
    return reinterpret_cast<SetType*>(this);
  }

  int IsSet() const { return tag == TYPE_TABLE && YieldType() == 0; }
  int IsTable() const { return tag == TYPE_TABLE && YieldType() != 0; }

  BroType* Ref() {
    ::Ref(this);
    return this;
  }

  virtual void Describe(ODesc* d) const;

  /// Script name of a type that has one, else "".
  void SetName(const string& arg_name) { name = arg_name; }
  string GetName() const { return name; }

 private:
  TypeTag tag;
  InternalTypeTag internal_tag;
  string name;
};
#undef STANDIN_AS_TYPE

/// Several types in a row: index of a table, arguments.
class TypeList : public BroType {
 public:
  explicit TypeList(BroType* arg_pure_type = 0);
  ~TypeList();

  const type_list* Types() const { return &types; }
  type_list* Types() { return &types; }
  /// Takes over t's reference.
  void Append(BroType* t) { types.append(t); }

  void Describe(ODesc* d) const;

 private:
  BroType* pure_type;
  type_list types;
};

class TableType : public BroType {
 public:
  /// Takes over both references; `yield` is 0 for a set.
  TableType(TypeList* ind, BroType* yield);
  ~TableType();

  using BroType::YieldType;
  BroType* YieldType() { return yield_type; }
  TypeList* Indices() const { return indices; }
  const type_list* IndexTypes() const { return indices->Types(); }

  void Describe(ODesc* d) const;

 private:
  TypeList* indices;
  BroType* yield_type;
};

class SetType : public TableType {
 public:
  SetType(TypeList* ind, ListExpr* elements);
};

class FuncType : public BroType {
 public:
  /// Takes over the references of `args` and `yield` (0: none).
  FuncType(RecordType* args, BroType* yield, function_flavor flavor);
  ~FuncType();

  RecordType* Args() const { return args; }
  using BroType::YieldType;
  BroType* YieldType() { return yield; }
  function_flavor Flavor() const { return flavor; }

  void Describe(ODesc* d) const;

 private:
  RecordType* args;
  BroType* yield;
  function_flavor flavor;
};

class TypeType : public BroType {
 public:
  explicit TypeType(BroType* t) : BroType(TYPE_TYPE), type(t->Ref()) {}
  ~TypeType() { Unref(type); }
  BroType* Type() { return type; }

 private:
  BroType* type;
};

class SubNetType : public BroType {
 public:
  SubNetType() : BroType(TYPE_SUBNET) {}
};

class OpaqueType : public BroType {
 public:
  explicit OpaqueType(const string& arg_name) : BroType(TYPE_OPAQUE), opaque_name(arg_name) {}
  const string& Name() const { return opaque_name; }
  void Describe(ODesc* d) const;

 private:
  string opaque_name;
};

/// One field of a record type.
class TypeDecl {
 public:
  /// Takes over t's reference and `i`, a new[] string. Attributes: see Attr.h.
  TypeDecl(BroType* t, const char* i, attr_list* attrs = 0, bool in_record = false);
  ~TypeDecl();

  BroType* type;
  Attributes* attrs;
  const char* id;

 private:
  TypeDecl(const TypeDecl&);
  TypeDecl& operator=(const TypeDecl&);
};

class RecordType : public BroType {
 public:
  /// Takes over the list and its elements.
  explicit RecordType(type_decl_list* types);
  ~RecordType();

  int HasField(const char* field) const { return FieldOffset(field) >= 0; }
  BroType* FieldType(const char* field) const;
  BroType* FieldType(int field) const;
  /// Negative if there is no such field.
  int FieldOffset(const char* field) const;
  const char* FieldName(int field) const;
  const TypeDecl* FieldDecl(int field) const;
  TypeDecl* FieldDecl(int field);
  int NumFields() const { return num_fields; }

  void Describe(ODesc* d) const;

 private:
  int num_fields;
  type_decl_list* types;
};

class EnumType : public BroType {
 public:
  explicit EnumType(const string& arg_name);
  ~EnumType();

  void AddName(const string& module_name, const char* name, bro_int_t val, bool is_export,
               bool deprecated);
  /// -1 if there is none.
  bro_int_t Lookup(const string& module_name, const char* name) const;
  /// 0 if there is none.
  const char* Lookup(bro_int_t value) const;

  void Describe(ODesc* d) const;

 private:
  map<string, bro_int_t> names;
};

class VectorType : public BroType {
 public:
  /// Takes over t's reference.
  explicit VectorType(BroType* t);
  ~VectorType();

  using BroType::YieldType;
  BroType* YieldType() { return yield_type; }

  void Describe(ODesc* d) const;

 private:
  BroType* yield_type;
};

/// The shared type object of a plain tag; borrowed.
extern BroType* base_type_no_ref(TypeTag tag);
/// The same with a new reference.
inline BroType* base_type(TypeTag tag) {
  return base_type_no_ref(tag)->Ref();
}

/// Non-zero if a value of one can stand for the other.
extern int same_type(const BroType* t1, const BroType* t2, int is_init = 0,
                     bool match_record_field_names = true);

#define IsIntegral(t) (t == TYPE_INT || t == TYPE_COUNT || t == TYPE_COUNTER)
#define IsArithmetic(t) (IsIntegral(t) || t == TYPE_DOUBLE)
#define IsBool(t) (t == TYPE_BOOL)
#define IsInterval(t) (t == TYPE_INTERVAL)
#define IsRecord(t) (t == TYPE_RECORD || t == TYPE_UNION)
#define IsFunc(t) (t == TYPE_FUNC)
#define IsMutable(t) (t == TYPE_RECORD || t == TYPE_TABLE || t == TYPE_VECTOR)
#define IsVector(t) (t == TYPE_VECTOR)
#define IsString(t) (t == TYPE_STRING)
#define IsErrorType(t) (t == TYPE_ERROR)
#define BothIntegral(t1, t2) (IsIntegral(t1) && IsIntegral(t2))
#define BothArithmetic(t1, t2) (IsArithmetic(t1) && IsArithmetic(t2))
#define BothInterval(t1, t2) (IsInterval(t1) && IsInterval(t2))
#define BothString(t1, t2) (IsString(t1) && IsString(t2))
#define EitherIntegral(t1, t2) (IsIntegral(t1) || IsIntegral(t2))
#define EitherArithmetic(t1, t2) (IsArithmetic(t1) || IsArithmetic(t2))
#define EitherInterval(t1, t2) (IsInterval(t1) || IsInterval(t2))
#define EitherString(t1, t2) (IsString(t1) || IsString(t2))
