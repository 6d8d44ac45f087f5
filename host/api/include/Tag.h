// Numbers of component types.
#pragma once

#include "util.h"

class Tag {
 public:
  typedef uint32 type_t;
  typedef uint32 subtype_t;

  type_t Type() const { return type; }

 protected:
  explicit Tag(type_t arg_type) : type(arg_type) {}

 private:
  type_t type;
};
