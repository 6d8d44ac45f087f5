// What crosses the border between the main thread and a writer thread: column descriptions and
// values. The layout is the host's, byte by byte.
//
// A Value owns what it points to. Neither type synchronises anything: a Value has one owner at a
// time, a Field does not change after construction.
#pragma once

#include <netinet/in.h>
#include <stddef.h>

#include <string>

#include "Type.h"
#include "net_util.h"

using namespace std;

namespace threading {

/// One column of a log.
struct Field {
  const char* name;            ///< flattened, e.g. id.orig_h
  const char* secondary_name;  ///< null for log writers
  TypeTag type;                ///< sets are TYPE_TABLE
  TypeTag subtype;             ///< element type of sets and vectors, else TYPE_VOID
  bool optional;               ///< of the innermost record field only: says nothing about absence

  Field(const char* name, const char* secondary_name, TypeTag type, TypeTag subtype, bool optional);
  Field(const Field& other);
  ~Field();

  /// E.g. "count", "set[string]", "vector[addr]".
  string TypeName() const;

 private:
  Field();
  Field& operator=(const Field&);
};

/// One value. Strings (`string_val`) are not NUL-terminated, except those of enum, file and func.
struct Value {
  TypeTag type;
  bool present;  ///< false: unset; the whole union is zero then

  struct set_t {
    bro_int_t size;
    Value** vals;
  };
  typedef set_t vec_t;
  struct port_t {
    bro_uint_t port;  ///< host byte order
    TransportProto proto;
  };
  struct addr_t {
    IPFamily family;
    union {
      struct in_addr in4;
      struct in6_addr in6;
    } in;  ///< network byte order
  };
  struct subnet_t {
    addr_t prefix;
    uint8_t length;  ///< always of 128 bits: an IPv4 /16 is 112
  };

  union _val {
    bro_int_t int_val;
    bro_uint_t uint_val;
    port_t port_val;
    double double_val;
    set_t set_val;
    vec_t vector_val;
    addr_t addr_val;
    subnet_t subnet_val;
    struct {
      char* data;
      int length;
    } string_val;

    _val() { memset(this, 0, sizeof(_val)); }
  } val;

  Value(TypeTag arg_type = TYPE_ERROR, bool arg_present = true)
      : type(arg_type), present(arg_present) {}
  /// Frees strings and elements, of present values only.
  ~Value();

 private:
  Value(const Value&);
  Value& operator=(const Value&);
};

#if defined(__LP64__)
static_assert(sizeof(Field) == 32 && offsetof(Field, secondary_name) == 8 &&
                  offsetof(Field, type) == 16 && offsetof(Field, subtype) == 20 &&
                  offsetof(Field, optional) == 24,
              "a column has the host's layout");
static_assert(sizeof(Value) == 32 && offsetof(Value, present) == 4 && offsetof(Value, val) == 8,
              "a value has the host's layout");
static_assert(sizeof(Value::_val) == 24 && sizeof(Value::set_t) == 16 &&
                  sizeof(Value::port_t) == 16 && sizeof(Value::addr_t) == 20 &&
                  offsetof(Value::addr_t, in) == 4 && sizeof(Value::subnet_t) == 24 &&
                  offsetof(Value::subnet_t, length) == 20,
              "the parts of a value have the host's layout");
#endif

}  // namespace threading
