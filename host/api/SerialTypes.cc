#include "threading/SerialTypes.h"

#include "util.h"

namespace threading {

Field::Field(const char* arg_name, const char* arg_secondary_name, TypeTag arg_type,
             TypeTag arg_subtype, bool arg_optional)
    : name(copy_string(arg_name)),
      secondary_name(copy_string(arg_secondary_name)),
      type(arg_type),
      subtype(arg_subtype),
      optional(arg_optional) {}

Field::Field(const Field& other)
    : Field(other.name, other.secondary_name, other.type, other.subtype, other.optional) {}

Field::~Field() {
  delete[] name;
  delete[] secondary_name;
}

string Field::TypeName() const {
  switch (type) {
    case TYPE_TABLE:
      return string("set[") + type_name(subtype) + "]";
    case TYPE_VECTOR:
      return string("vector[") + type_name(subtype) + "]";
    default:
      return type_name(type);
  }
}

namespace {

void delete_elements(const Value::set_t& set) {
  for (bro_int_t i = 0; i < set.size; ++i)
    delete set.vals[i];
  delete[] set.vals;
}

}  // namespace

Value::~Value() {
  if (!present)
    return;
  switch (type) {
    case TYPE_ENUM:
    case TYPE_STRING:
    case TYPE_FILE:
    case TYPE_FUNC:
      delete[] val.string_val.data;
      return;
    case TYPE_TABLE:
      delete_elements(val.set_val);
      return;
    case TYPE_VECTOR:
      delete_elements(val.vector_val);
      return;
    default:
      return;
  }
}

}  // namespace threading
