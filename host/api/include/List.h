// The host's growing arrays of pointers. A list does not own what it points to.
//
// PList(Type) names the list class of a type, PListdeclare(Type) declares it.
#pragma once

#include <vector>

#include "util.h"

#define List(type) type##List
#define PList(type) type##PList
#define declare(metatype, type) metatype##declare(type)
#define loop_over_list(list, i) for (int i = 0; i < (list).length(); ++i)

typedef void* ent;

class BaseList {
 public:
  int length() const { return static_cast<int>(entries.size()); }

 protected:
  void append(ent a) { entries.push_back(a); }
  /// 0 behind the end.
  ent nth(int n) const { return n >= 0 && n < length() ? entries[static_cast<size_t>(n)] : 0; }

 private:
  std::vector<ent> entries;
};

#define PListdeclare(type)                         \
  struct PList(type) : BaseList {                  \
    void append(type* a) {                         \
      BaseList::append(static_cast<void*>(a));     \
    }                                              \
    type* operator[](int n) const {                \
      return static_cast<type*>(BaseList::nth(n)); \
    }                                              \
  }
