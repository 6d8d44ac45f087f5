// Numbers of component types.
#pragma once

#include "util.h"

class EnumVal;

class Tag {
 public:
  typedef uint32 type_t;
  typedef uint32 subtype_t;

  type_t Type() const { return type; }
  subtype_t Subtype() const { return subtype; }

 protected:
  Tag() : type(0), subtype(0) {}
  explicit Tag(type_t arg_type, subtype_t arg_subtype = 0) : type(arg_type), subtype(arg_subtype) {}

  bool Equals(const Tag& other) const { return type == other.type && subtype == other.subtype; }
  bool Before(const Tag& other) const {
    return type != other.type ? type < other.type : subtype < other.subtype;
  }

 private:
  type_t type;
  subtype_t subtype;
};
