#include "Type.h"

#include <array>

#include "HostReporter.h"

namespace {

// One shared object for each tag that needs nothing but its tag.
std::array<BroType*, NUM_TYPES> make_base_types() {
  std::array<BroType*, NUM_TYPES> types;
  for (int t = 0; t < NUM_TYPES; ++t)
    types[static_cast<size_t>(t)] = new BroType(static_cast<TypeTag>(t));
  return types;
}

}  // namespace

const char* type_name(TypeTag t) {
  static const char* const names[NUM_TYPES] = {
      "void",    "bool",  "int",   "count", "counter", "double", "time", "interval", "string",
      "pattern", "enum",  "timer", "port",  "addr",    "subnet", "any",  "table",    "union",
      "record",  "types", "func",  "file",  "vector",  "opaque", "type", "error"};
  const int number = static_cast<int>(t);
  return number >= 0 && number < NUM_TYPES ? names[number] : "type_name(): not a type tag";
}

BroType* base_type_no_ref(TypeTag tag) {
  static const std::array<BroType*, NUM_TYPES> types = make_base_types();
  return types.at(static_cast<size_t>(tag));
}

TypeDecl::~TypeDecl() {
  Unref(type);
  delete[] id;
}

RecordType::~RecordType() {
  loop_over_list(*types, i) delete (*types)[i];
  delete types;
}

int RecordType::FieldOffset(const char* field) const {
  loop_over_list(*types, i) {
    if (strcmp((*types)[i]->id, field) == 0)
      return i;
  }
  return -1;
}

const TypeDecl* RecordType::FieldDecl(int field) const {
  if (field < 0 || field >= NumFields())
    host::any_reporter().InternalError("a record type has no field number %d", field);
  return (*types)[field];
}

void EnumType::AddName(const string& module_name, const char* name, bro_int_t val, bool, bool) {
  names[val] = module_name + "::" + name;
}

const char* EnumType::Lookup(bro_int_t value) const {
  const auto found = names.find(value);
  return found == names.end() ? nullptr : found->second.c_str();
}
