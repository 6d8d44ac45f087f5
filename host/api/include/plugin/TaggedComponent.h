// A component with a number of its own.
#pragma once

namespace plugin {

template <class T>
class TaggedComponent {
 public:
  /// Draws the next number of T; the first is 1.
  explicit TaggedComponent(typename T::subtype_t = 0) : tag(++type_counter) {}

  T Tag() const { return tag; }

 private:
  T tag;
  static typename T::type_t type_counter;
};

template <class T>
typename T::type_t TaggedComponent<T>::type_counter(0);

}  // namespace plugin
