// Number of a log writer class.
#pragma once

#include "../Tag.h"  // not this file

namespace plugin {
template <class T>
class TaggedComponent;
}

namespace logging {

class Tag : public ::Tag {
 private:
  friend class plugin::TaggedComponent<Tag>;
  explicit Tag(type_t type) : ::Tag(type) {}
};

}  // namespace logging
