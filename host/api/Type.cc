#include "Type.h"

#include <array>

#include "Attr.h"
#include "Desc.h"
#include "HostReporter.h"

namespace {

// One shared object for each tag that needs nothing but its tag.
std::array<BroType*, NUM_TYPES> make_base_types() {
  std::array<BroType*, NUM_TYPES> types;
  for (int t = 0; t < NUM_TYPES; ++t)
    types[static_cast<size_t>(t)] = new BroType(static_cast<TypeTag>(t), true);
  return types;
}

InternalTypeTag internal_type_of(TypeTag t) {
  switch (t) {
    case TYPE_VOID:
      return TYPE_INTERNAL_VOID;
    case TYPE_BOOL:
    case TYPE_INT:
    case TYPE_ENUM:
      return TYPE_INTERNAL_INT;
    case TYPE_COUNT:
    case TYPE_COUNTER:
    case TYPE_PORT:
      return TYPE_INTERNAL_UNSIGNED;
    case TYPE_DOUBLE:
    case TYPE_TIME:
    case TYPE_INTERVAL:
      return TYPE_INTERNAL_DOUBLE;
    case TYPE_STRING:
      return TYPE_INTERNAL_STRING;
    case TYPE_ADDR:
      return TYPE_INTERNAL_ADDR;
    case TYPE_SUBNET:
      return TYPE_INTERNAL_SUBNET;
    case TYPE_ERROR:
      return TYPE_INTERNAL_ERROR;
    default:
      return TYPE_INTERNAL_OTHER;
  }
}

bool same_types(const type_list* a, const type_list* b, bool match_names) {
  if (a->length() != b->length())
    return false;
  loop_over_list(*a, i) {
    if (!same_type((*a)[i], (*b)[i], 0, match_names))
      return false;
  }
  return true;
}

bool same_records(const RecordType* a, const RecordType* b, bool match_names) {
  if (a->NumFields() != b->NumFields())
    return false;
  for (int i = 0; i < a->NumFields(); ++i) {
    if (match_names && !streq(a->FieldName(i), b->FieldName(i)))
      return false;
    if (!same_type(a->FieldType(i), b->FieldType(i), 0, match_names))
      return false;
  }
  return true;
}

bool same_yields(const BroType* a, const BroType* b, bool match_names) {
  const BroType* yield_a = a->YieldType();
  const BroType* yield_b = b->YieldType();
  if (!yield_a || !yield_b)
    return yield_a == yield_b;
  return same_type(yield_a, yield_b, 0, match_names) != 0;
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

BroType::BroType(TypeTag t, bool) : tag(t), internal_tag(internal_type_of(t)), name() {}

BroType::~BroType() {}

BroType* BroType::YieldType() {
  return nullptr;
}

int BroType::HasField(const char*) const {
  return 0;
}

BroType* BroType::FieldType(const char*) const {
  return nullptr;
}

void BroType::Describe(ODesc* d) const {
  d->Add(type_name(tag));
}

TypeList::TypeList(BroType* arg_pure_type) : BroType(TYPE_LIST), pure_type(arg_pure_type), types() {
  if (pure_type)
    pure_type->Ref();
}

TypeList::~TypeList() {
  loop_over_list(types, i) Unref(types[i]);
  Unref(pure_type);
}

void TypeList::Describe(ODesc* d) const {
  loop_over_list(types, i) {
    if (i > 0)
      d->Add(",");
    types[i]->Describe(d);
  }
}

TableType::TableType(TypeList* ind, BroType* yield)
    : BroType(TYPE_TABLE), indices(ind), yield_type(yield) {}

TableType::~TableType() {
  Unref(indices);
  Unref(yield_type);
}

void TableType::Describe(ODesc* d) const {
  d->Add(yield_type ? "table[" : "set[");
  indices->Describe(d);
  d->Add("]");
  if (yield_type) {
    d->Add(" of ");
    yield_type->Describe(d);
  }
}

SetType::SetType(TypeList* ind, ListExpr*) : TableType(ind, nullptr) {}

FuncType::FuncType(RecordType* arg_args, BroType* arg_yield, function_flavor arg_flavor)
    : BroType(TYPE_FUNC), args(arg_args), yield(arg_yield), flavor(arg_flavor) {}

FuncType::~FuncType() {
  Unref(args);
  Unref(yield);
}

void FuncType::Describe(ODesc* d) const {
  d->Add(flavor == FUNC_FLAVOR_EVENT ? "event" : flavor == FUNC_FLAVOR_HOOK ? "hook" : "function");
}

void OpaqueType::Describe(ODesc* d) const {
  d->Add("opaque of " + opaque_name);
}

TypeDecl::TypeDecl(BroType* t, const char* i, attr_list* arg_attrs, bool)
    : type(t), attrs(arg_attrs ? new Attributes(arg_attrs) : nullptr), id(i) {}

TypeDecl::~TypeDecl() {
  Unref(type);
  Unref(attrs);
  delete[] id;
}

RecordType::RecordType(type_decl_list* arg_types)
    : BroType(TYPE_RECORD), num_fields(arg_types->length()), types(arg_types) {}

RecordType::~RecordType() {
  loop_over_list(*types, i) delete (*types)[i];
  delete types;
}

BroType* RecordType::FieldType(const char* field) const {
  const int offset = FieldOffset(field);
  return offset >= 0 ? FieldType(offset) : nullptr;
}

BroType* RecordType::FieldType(int field) const {
  return FieldDecl(field)->type;
}

int RecordType::FieldOffset(const char* field) const {
  loop_over_list(*types, i) {
    if (streq((*types)[i]->id, field))
      return i;
  }
  return -1;
}

const char* RecordType::FieldName(int field) const {
  return FieldDecl(field)->id;
}

const TypeDecl* RecordType::FieldDecl(int field) const {
  return const_cast<RecordType*>(this)->FieldDecl(field);
}

TypeDecl* RecordType::FieldDecl(int field) {
  if (field < 0 || field >= num_fields)
    standin::host_reporter().InternalError("record type %s has no field number %d",
                                           GetName().c_str(), field);
  return (*types)[field];
}

void RecordType::Describe(ODesc* d) const {
  d->Add("record { ");
  loop_over_list(*types, i) {
    d->Add((*types)[i]->id);
    d->Add(":");
    (*types)[i]->type->Describe(d);
    d->Add("; ");
  }
  d->Add("}");
}

EnumType::EnumType(const string& arg_name) : BroType(TYPE_ENUM), names() {
  SetName(arg_name);
}

EnumType::~EnumType() {}

namespace {

string full_name(const string& module_name, const char* name) {
  if (module_name.empty() || module_name == "GLOBAL" || strstr(name, "::"))
    return name;
  return module_name + "::" + name;
}

}  // namespace

void EnumType::AddName(const string& module_name, const char* name, bro_int_t val, bool, bool) {
  names[full_name(module_name, name)] = val;
}

bro_int_t EnumType::Lookup(const string& module_name, const char* name) const {
  auto found = names.find(full_name(module_name, name));
  return found == names.end() ? -1 : found->second;
}

const char* EnumType::Lookup(bro_int_t value) const {
  for (const auto& name : names) {
    if (name.second == value)
      return name.first.c_str();
  }
  return nullptr;
}

void EnumType::Describe(ODesc* d) const {
  d->Add("enum " + GetName());
}

VectorType::VectorType(BroType* t) : BroType(TYPE_VECTOR), yield_type(t) {}

VectorType::~VectorType() {
  Unref(yield_type);
}

void VectorType::Describe(ODesc* d) const {
  d->Add("vector of ");
  yield_type->Describe(d);
}

BroType* base_type_no_ref(TypeTag tag) {
  static const std::array<BroType*, NUM_TYPES> types = make_base_types();
  return types.at(static_cast<size_t>(tag));
}

int same_type(const BroType* t1, const BroType* t2, int, bool match_names) {
  if (t1 == t2 || t1->Tag() == TYPE_ANY || t2->Tag() == TYPE_ANY)
    return 1;
  if (t1->Tag() != t2->Tag())
    return 0;
  switch (t1->Tag()) {
    case TYPE_ENUM:
      return t1->GetName() == t2->GetName();
    case TYPE_TABLE:
      return same_types(t1->AsTableType()->IndexTypes(), t2->AsTableType()->IndexTypes(),
                        match_names) &&
             same_yields(t1, t2, match_names);
    case TYPE_VECTOR:
      return same_yields(t1, t2, match_names);
    case TYPE_RECORD:
      return same_records(t1->AsRecordType(), t2->AsRecordType(), match_names);
    case TYPE_OPAQUE:
      return t1->AsOpaqueType()->Name() == t2->AsOpaqueType()->Name();
    default:
      return 1;
  }
}
