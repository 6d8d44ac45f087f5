#include "Val.h"

#include "Func.h"
#include "HostReporter.h"

Val::Val(Func* f) : type(base_type(TYPE_FUNC)) {
  val.func_val = f;
}

Val::~Val() {
  if (type->Tag() == TYPE_FUNC)
    Unref(val.func_val);
  Unref(type);
}

StringVal::StringVal(const char* s) : StringVal(static_cast<int>(strlen(s)), s) {}

// As in the host: only what stands before the first NUL byte.
StringVal::StringVal(const string& s) : StringVal(s.c_str()) {}

StringVal::StringVal(int length, const char* s) : Val(base_type_no_ref(TYPE_STRING)) {
  val.string_val = new BroString(reinterpret_cast<const u_char*>(s), length, 1);
}

StringVal::~StringVal() {
  delete val.string_val;
}

RecordVal::RecordVal(RecordType* t) : Val(t), record_type(t), origin(nullptr) {
  val.vector_val = new vector<Val*>(static_cast<size_t>(t->NumFields()));
}

RecordVal::~RecordVal() {
  for (Val* field : *val.vector_val)
    Unref(field);
  delete val.vector_val;
}

void RecordVal::Assign(int field, Val* new_val, Opcode) {
  record_type->FieldDecl(field);  // refuses what is no field
  Val*& slot = (*val.vector_val)[static_cast<size_t>(field)];
  Unref(slot);
  slot = new_val;
}

Val* RecordVal::Lookup(int field) const {
  record_type->FieldDecl(field);
  return (*val.vector_val)[static_cast<size_t>(field)];
}

Val* RecordVal::Lookup(const char* field, bool) const {
  const int offset = record_type->FieldOffset(field);
  if (offset < 0)
    host::any_reporter().InternalError("missing record field: %s", field);
  return Lookup(offset);
}

VectorVal::VectorVal(VectorType* t) : Val(t), vector_type(t) {
  val.vector_val = new vector<Val*>;
}

VectorVal::~VectorVal() {
  for (Val* element : *val.vector_val)
    Unref(element);
  delete val.vector_val;
}

bool VectorVal::Assign(unsigned int index, Val* element, Opcode) {
  if (element && element->Type()->Tag() != vector_type->YieldType()->Tag()) {
    Unref(element);
    return false;
  }
  if (index >= Size())
    val.vector_val->resize(index + 1, nullptr);
  Val*& slot = (*val.vector_val)[index];
  Unref(slot);
  slot = element;
  return true;
}

Val* VectorVal::Lookup(unsigned int index) const {
  return index < Size() ? (*val.vector_val)[index] : nullptr;
}
