#include "List.h"

#include <algorithm>

BaseList::BaseList(int size) : entry(nullptr), max_entries(0), num_entries(0) {
  if (size > 0)
    grow(size);
}

BaseList::BaseList(const BaseList& other) : entry(nullptr), max_entries(0), num_entries(0) {
  *this = other;
}

BaseList& BaseList::operator=(const BaseList& other) {
  if (this == &other)
    return *this;
  clear();
  grow(other.num_entries);
  std::copy(other.entry, other.entry + other.num_entries, entry);
  num_entries = other.num_entries;
  return *this;
}

void BaseList::clear() {
  delete[] entry;
  entry = nullptr;
  max_entries = num_entries = 0;
}

void BaseList::insert(ent a) {
  grow(num_entries + 1);
  std::copy_backward(entry, entry + num_entries, entry + num_entries + 1);
  entry[0] = a;
  ++num_entries;
}

void BaseList::append(ent a) {
  grow(num_entries + 1);
  entry[num_entries++] = a;
}

ent BaseList::remove(ent a) {
  const int n = member_pos(a);
  return n < 0 ? nullptr : remove_nth(n);
}

ent BaseList::remove_nth(int n) {
  if (n < 0 || n >= num_entries)
    return nullptr;
  ent removed = entry[n];
  std::copy(entry + n + 1, entry + num_entries, entry + n);
  --num_entries;
  return removed;
}

ent BaseList::get() {
  return num_entries ? entry[--num_entries] : nullptr;
}

ent BaseList::replace(int n, ent a) {
  if (n < 0)
    return nullptr;
  grow(n + 1);
  while (num_entries <= n)
    entry[num_entries++] = nullptr;
  std::swap(entry[n], a);
  return a;
}

int BaseList::member_pos(ent a) const {
  ent* found = std::find(entry, entry + num_entries, a);
  return found == entry + num_entries ? -1 : static_cast<int>(found - entry);
}

void BaseList::grow(int at_least) {
  if (at_least <= max_entries)
    return;
  const int size = std::max(at_least, max_entries * 2);
  ent* bigger = new ent[static_cast<size_t>(size)];
  std::copy(entry, entry + num_entries, bigger);
  delete[] entry;
  entry = bigger;
  max_entries = size;
}
