#include "Poison.h"

#include <string.h>

namespace standin {

namespace {

// memset that stays although the memory is freed next.
void overwrite(void* memory, size_t size) {
  memset(memory, kPoisonByte, size);
  __asm__ __volatile__("" : : "r"(memory) : "memory");
}

void poison_elements(threading::Value::set_t* set) {
  for (bro_int_t i = 0; i < set->size; ++i) {
    poison(set->vals[i]);
    delete set->vals[i];
  }
  overwrite(set->vals, sizeof(set->vals[0]) * static_cast<size_t>(set->size));
  delete[] set->vals;
}

void poison_content(threading::Value* value) {
  switch (value->type) {
    case TYPE_ENUM:
    case TYPE_STRING:
    case TYPE_FILE:
    case TYPE_FUNC:
      if (value->val.string_val.data)
        overwrite(value->val.string_val.data, static_cast<size_t>(value->val.string_val.length));
      delete[] value->val.string_val.data;
      return;
    case TYPE_TABLE:
      poison_elements(&value->val.set_val);
      return;
    case TYPE_VECTOR:
      poison_elements(&value->val.vector_val);
      return;
    default:
      return;
  }
}

}  // namespace

void poison(threading::Value* value) {
  if (value->present)
    poison_content(value);
  value->present = false;
  value->type = TYPE_ERROR;
  overwrite(&value->val, sizeof(value->val));
}

}  // namespace standin
