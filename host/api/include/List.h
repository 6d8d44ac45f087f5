// The host's growing arrays of pointers. A list does not own what it points to.
//
// PList(Type) names the list class of a type, PListdeclare(Type) declares it.
#pragma once

#include <stdarg.h>

#include "util.h"

#define List(type) type##List
#define PList(type) type##PList
#define declare(metatype, type) metatype##declare(type)
#define loop_over_list(list, i) for (int i = 0; i < (list).length(); ++i)

typedef void* ent;

class BaseList {
 public:
  ~BaseList() { clear(); }

  /// Empties the list; its elements stay as they are.
  void clear();
  int length() const { return num_entries; }

 protected:
  /// `size`: room to begin with; 0 for none.
  explicit BaseList(int size = 0);
  BaseList(const BaseList& other);
  BaseList& operator=(const BaseList& other);

  void insert(ent a);  // at the front
  void append(ent a);
  ent remove(ent a);  // 0 if it is not in the list
  ent remove_nth(int n);
  ent get();  // takes the last one; 0 if empty
  ent replace(int n, ent a);
  bool is_member(ent a) const { return member_pos(a) >= 0; }
  int member_pos(ent a) const;  // -1 if it is not in the list
  ent nth(int n) const { return n >= 0 && n < num_entries ? entry[n] : 0; }

 private:
  void grow(int at_least);

  ent* entry;
  int max_entries;
  int num_entries;
};

#define PListdeclare(type)                                \
  struct PList(type) : BaseList {                         \
    explicit PList(type)(type * first...) : BaseList() {  \
      va_list rest;                                       \
      va_start(rest, first);                              \
      for (type* e = first; e; e = va_arg(rest, type*))   \
        append(e);                                        \
      va_end(rest);                                       \
    }                                                     \
    PList(type)() : BaseList() {}                         \
    explicit PList(type)(int size) : BaseList(size) {}    \
                                                          \
    void insert(type* a) {                                \
      BaseList::insert(static_cast<void*>(a));            \
    }                                                     \
    void append(type* a) {                                \
      BaseList::append(static_cast<void*>(a));            \
    }                                                     \
    type* remove(type* a) {                               \
      return static_cast<type*>(BaseList::remove(a));     \
    }                                                     \
    type* remove_nth(int n) {                             \
      return static_cast<type*>(BaseList::remove_nth(n)); \
    }                                                     \
    type* get() {                                         \
      return static_cast<type*>(BaseList::get());         \
    }                                                     \
    type* replace(int n, type* a) {                       \
      return static_cast<type*>(BaseList::replace(n, a)); \
    }                                                     \
    type* operator[](int n) const {                       \
      return static_cast<type*>(BaseList::nth(n));        \
    }                                                     \
    bool is_member(type* a) const {                       \
      return BaseList::is_member(static_cast<void*>(a));  \
    }                                                     \
    int member_pos(type* a) const {                       \
      return BaseList::member_pos(static_cast<void*>(a)); \
    }                                                     \
  }
