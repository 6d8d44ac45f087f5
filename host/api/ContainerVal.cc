#include "HostReporter.h"
#include "Val.h"

// Values that hold other values.

namespace {

void describe_element(ODesc* d, const Val* v) {
  if (v)
    v->Describe(d);
  else
    d->Add("<uninitialized>");
}

// Values are told apart by their text.
string index_key(const Val* index) {
  ODesc d;
  d.SetQuotes(1);
  index->Describe(&d);
  return string(d.Description(), static_cast<size_t>(d.Len()));
}

}  // namespace

void delete_vals(val_list* vals) {
  if (!vals)
    return;
  loop_over_list(*vals, i) Unref((*vals)[i]);
  delete vals;
}

ListVal::ListVal(TypeTag t) : Val(TYPE_LIST), tag(t), vals() {}

ListVal::~ListVal() {
  loop_over_list(vals, i) Unref(vals[i]);
}

void ListVal::Append(Val* v) {
  if (tag != TYPE_ANY && v->Type()->Tag() != tag)
    standin::host_reporter().InternalError("heterogeneous list in ListVal::Append");
  vals.append(v);
}

void ListVal::ValDescribe(ODesc* d) const {
  loop_over_list(vals, i) {
    if (i > 0)
      d->Add(", ");
    describe_element(d, vals[i]);
  }
}

RecordVal::RecordVal(RecordType* t) : Val(t), record_type(t), origin(nullptr) {
  val.val_list_val = new val_list(t->NumFields());
  for (int i = 0; i < t->NumFields(); ++i)
    val.val_list_val->append(InitialValue(i));
}

RecordVal::~RecordVal() {
  delete_vals(val.val_list_val);
}

Val* RecordVal::InitialValue(int field) const {
  const TypeDecl* decl = record_type->FieldDecl(field);
  if (decl->attrs) {
    if (const Attr* attr = decl->attrs->FindAttr(ATTR_DEFAULT))
      return attr->DefaultVal()->Ref();
    if (decl->attrs->FindAttr(ATTR_OPTIONAL))
      return nullptr;
  }
  switch (decl->type->Tag()) {
    case TYPE_RECORD:
      return new RecordVal(decl->type->AsRecordType());
    case TYPE_TABLE:
      return new TableVal(decl->type->AsTableType());
    case TYPE_VECTOR:
      return new VectorVal(decl->type->AsVectorType());
    default:
      return nullptr;
  }
}

void RecordVal::Assign(int field, Val* new_val, Opcode) {
  record_type->FieldDecl(field);  // refuses what is no field
  Unref(val.val_list_val->replace(field, new_val));
}

Val* RecordVal::Lookup(int field) const {
  record_type->FieldDecl(field);
  return (*val.val_list_val)[field];
}

Val* RecordVal::LookupWithDefault(int field) const {
  if (Val* v = Lookup(field))
    return v->Ref();
  const TypeDecl* decl = record_type->FieldDecl(field);
  const Attr* attr = decl->attrs ? decl->attrs->FindAttr(ATTR_DEFAULT) : nullptr;
  return attr ? attr->DefaultVal()->Ref() : nullptr;
}

Val* RecordVal::Lookup(const char* field, bool with_default) const {
  const int offset = record_type->FieldOffset(field);
  if (offset < 0)
    standin::host_reporter().InternalError("missing record field: %s", field);
  return with_default ? LookupWithDefault(offset) : Lookup(offset);
}

void RecordVal::ValDescribe(ODesc* d) const {
  d->Add("[");
  for (int i = 0; i < record_type->NumFields(); ++i) {
    if (i > 0)
      d->Add(", ");
    d->Add(record_type->FieldName(i));
    d->Add("=");
    describe_element(d, (*val.val_list_val)[i]);
  }
  d->Add("]");
}

VectorVal::VectorVal(VectorType* t) : Val(t), vector_type(t) {
  val.vector_val = new vector<Val*>;
}

VectorVal::~VectorVal() {
  for (Val* v : *val.vector_val)
    Unref(v);
  delete val.vector_val;
}

bool VectorVal::Assign(unsigned int index, Val* element, Opcode) {
  if (element && !same_type(element->Type(), vector_type->YieldType())) {
    Unref(element);
    return false;
  }
  ResizeAtLeast(index + 1);
  Unref((*val.vector_val)[index]);
  (*val.vector_val)[index] = element;
  return true;
}

bool VectorVal::Assign(Val* index, Val* element, Opcode op) {
  return Assign(static_cast<unsigned int>(index->AsListVal()->Index(0)->CoerceToUnsigned()),
                element, op);
}

bool VectorVal::AssignRepeat(unsigned int index, unsigned int how_many, Val* element) {
  ResizeAtLeast(index + how_many);
  for (unsigned int i = index; i < index + how_many; ++i) {
    if (!Assign(i, element))
      return false;
  }
  return true;
}

Val* VectorVal::Lookup(unsigned int index) const {
  return index < Size() ? (*val.vector_val)[index] : nullptr;
}

Val* VectorVal::Lookup(Val* index) {
  return Lookup(static_cast<unsigned int>(index->AsListVal()->Index(0)->CoerceToUnsigned()));
}

unsigned int VectorVal::Size() const {
  return static_cast<unsigned int>(val.vector_val->size());
}

unsigned int VectorVal::Resize(unsigned int new_num_elements) {
  const unsigned int old_size = Size();
  for (unsigned int i = new_num_elements; i < old_size; ++i)
    Unref((*val.vector_val)[i]);
  val.vector_val->resize(new_num_elements, nullptr);
  return old_size;
}

unsigned int VectorVal::ResizeAtLeast(unsigned int new_num_elements) {
  return new_num_elements > Size() ? Resize(new_num_elements) : Size();
}

void VectorVal::ValDescribe(ODesc* d) const {
  d->Add("[");
  for (unsigned int i = 0; i < Size(); ++i) {
    if (i > 0)
      d->Add(", ");
    describe_element(d, Lookup(i));
  }
  d->Add("]");
}

TableVal::TableVal(TableType* t, Attributes*) : Val(t), entries() {}

TableVal::~TableVal() {
  for (auto& entry : entries) {
    Unref(entry.second.index);
    Unref(entry.second.value);
  }
}

int TableVal::Assign(Val* index, Val* new_val, Opcode) {
  Entry& entry = entries.insert({index_key(index), {nullptr, nullptr}}).first->second;
  if (!entry.index)
    entry.index = index->Ref();
  Unref(entry.value);
  entry.value = new_val;
  return 1;
}

Val* TableVal::Lookup(Val* index, bool) {
  auto found = entries.find(index_key(index));
  if (found == entries.end())
    return nullptr;
  return type->IsSet() ? this : found->second.value;
}

void TableVal::ValDescribe(ODesc* d) const {
  d->Add("{");
  bool first = true;
  for (const auto& entry : entries) {
    if (!first)
      d->Add(", ");
    first = false;
    entry.second.index->Describe(d);
    if (entry.second.value) {
      d->Add(" = ");
      entry.second.value->Describe(d);
    }
  }
  d->Add("}");
}
