// Attributes of record fields. The stand-in knows those that decide how a record value begins
// and what is logged.
#pragma once

#include "BroList.h"
#include "Obj.h"

class Val;

typedef enum { ATTR_OPTIONAL, ATTR_DEFAULT, ATTR_LOG } attr_tag;

class Attr : public BroObj {
 public:
  /// Takes over the reference of `val` (ATTR_DEFAULT only).
  explicit Attr(attr_tag t, Val* val = 0);
  ~Attr();

  attr_tag Tag() const { return tag; }
  /// Borrowed.
  Val* DefaultVal() const { return default_val; }

 private:
  attr_tag tag;
  Val* default_val;
};

class Attributes : public BroObj {
 public:
  /// Takes over the list and its elements.
  explicit Attributes(attr_list* a);
  ~Attributes();

  Attr* FindAttr(attr_tag t) const;

 private:
  attr_list* attrs;
};
