// Script types.
#pragma once

#include <map>
#include <string>

#include "BroList.h"
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

/// The script name of a tag, e.g. "count". Any thread.
extern const char* type_name(TypeTag t);

class EnumType;
class RecordType;
class VectorType;

#define HOST_AS_TYPE(Class, Tag)                          \
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
  explicit BroType(TypeTag t) : tag(t) {}

  TypeTag Tag() const { return tag; }

  HOST_AS_TYPE(RecordType, TYPE_RECORD)
  HOST_AS_TYPE(EnumType, TYPE_ENUM)
  HOST_AS_TYPE(VectorType, TYPE_VECTOR)

  BroType* Ref() {
    ::Ref(this);
    return this;
  }

 private:
  TypeTag tag;
};

#undef HOST_AS_TYPE

/// One field of a record type.
class TypeDecl {
 public:
  /// Takes over t's reference and `i`, a new[] string.
  TypeDecl(BroType* t, const char* i) : type(t), id(i) {}
  ~TypeDecl();

  BroType* type;
  const char* id;

 private:
  TypeDecl(const TypeDecl&);
  TypeDecl& operator=(const TypeDecl&);
};

class RecordType : public BroType {
 public:
  /// Takes over the list and its elements.
  explicit RecordType(type_decl_list* arg_types) : BroType(TYPE_RECORD), types(arg_types) {}
  ~RecordType();

  /// Negative if there is no such field.
  int FieldOffset(const char* field) const;
  const char* FieldName(int field) const { return FieldDecl(field)->id; }
  /// An index outside the record aborts.
  const TypeDecl* FieldDecl(int field) const;
  int NumFields() const { return types->length(); }

 private:
  type_decl_list* types;
};

class EnumType : public BroType {
 public:
  explicit EnumType(const string&) : BroType(TYPE_ENUM) {}

  void AddName(const string& module_name, const char* name, bro_int_t val, bool is_export,
               bool deprecated);
  /// With its module; 0 if there is none.
  const char* Lookup(bro_int_t value) const;

 private:
  map<bro_int_t, string> names;
};

class VectorType : public BroType {
 public:
  /// Takes over t's reference.
  explicit VectorType(BroType* t) : BroType(TYPE_VECTOR), yield_type(t) {}
  ~VectorType() { Unref(yield_type); }

  BroType* YieldType() { return yield_type; }

 private:
  BroType* yield_type;
};

/// The shared type object of a plain tag; borrowed.
extern BroType* base_type_no_ref(TypeTag tag);
/// The same with a new reference.
inline BroType* base_type(TypeTag tag) {
  return base_type_no_ref(tag)->Ref();
}

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
