#include "Attr.h"

#include "Val.h"

Attr::Attr(attr_tag t, Val* val) : tag(t), default_val(val) {}

Attr::~Attr() {
  Unref(default_val);
}

Attributes::Attributes(attr_list* a) : attrs(a) {}

Attributes::~Attributes() {
  loop_over_list(*attrs, i) Unref((*attrs)[i]);
  delete attrs;
}

Attr* Attributes::FindAttr(attr_tag t) const {
  loop_over_list(*attrs, i) {
    if ((*attrs)[i]->Tag() == t)
      return (*attrs)[i];
  }
  return nullptr;
}
