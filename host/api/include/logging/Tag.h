// Number of a log writer class.
#pragma once

#include "../Tag.h"  // not this file

namespace plugin {
template <class T>
class TaggedComponent;
}

namespace logging {

class Tag : public ::Tag {
 public:
  /// No writer at all.
  Tag() {}

  operator bool() const { return Type() != 0; }
  bool operator==(const Tag& other) const { return Equals(other); }
  bool operator!=(const Tag& other) const { return !Equals(other); }
  bool operator<(const Tag& other) const { return Before(other); }

 private:
  friend class plugin::TaggedComponent<Tag>;
  explicit Tag(type_t type, subtype_t subtype = 0) : ::Tag(type, subtype) {}
};

}  // namespace logging
