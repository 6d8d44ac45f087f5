#include "threading/formatters/Ascii.h"

#include "standin/ValueText.h"

namespace threading {
namespace formatter {

Ascii::SeparatorInfo::SeparatorInfo(const string& arg_separator, const string& arg_set_separator,
                                    const string& arg_unset_field, const string& arg_empty_field)
    : separator(arg_separator),
      set_separator(arg_set_separator),
      unset_field(arg_unset_field),
      empty_field(arg_empty_field) {}

Ascii::SeparatorInfo::SeparatorInfo()
    : SeparatorInfo("SHOULD_NOT_BE_USED", "SHOULD_NOT_BE_USED", "SHOULD_NOT_BE_USED",
                    "SHOULD_NOT_BE_USED") {}

Ascii::Ascii(threading::MsgThread* t, const SeparatorInfo& info) : Formatter(t), separators(info) {}

Ascii::~Ascii() {}

bool Ascii::Describe(ODesc* desc, int num_fields, const threading::Field* const* fields,
                     threading::Value** vals) const {
  for (int i = 0; i < num_fields; ++i) {
    if (i > 0)
      desc->AddRaw(separators.separator);
    if (!Describe(desc, vals[i], fields[i]->name))
      return false;
  }
  return true;
}

bool Ascii::Describe(ODesc* desc, threading::Value* val, const string& name) const {
  if (!val->present) {
    desc->Add(separators.unset_field);
    return true;
  }
  switch (val->type) {
    case TYPE_BOOL:
      desc->Add(val->val.int_val ? "T" : "F");
      return true;
    case TYPE_INT:
      desc->Add(val->val.int_val);
      return true;
    case TYPE_COUNT:
    case TYPE_COUNTER:
      desc->Add(val->val.uint_val);
      return true;
    case TYPE_PORT:
      desc->Add(val->val.port_val.port);
      return true;
    case TYPE_SUBNET:
      desc->Add(Render(val->val.subnet_val));
      return true;
    case TYPE_ADDR:
      desc->Add(Render(val->val.addr_val));
      return true;
    case TYPE_DOUBLE:
      desc->Add(val->val.double_val);
      return true;
    case TYPE_TIME:
    case TYPE_INTERVAL:
      desc->Add(Render(val->val.double_val));
      return true;
    case TYPE_ENUM:
    case TYPE_STRING:
    case TYPE_FILE:
    case TYPE_FUNC:
      DescribeText(desc, *val);
      return true;
    case TYPE_TABLE:
      return DescribeContainer(desc, val->val.set_val, name);
    case TYPE_VECTOR:
      return DescribeContainer(desc, val->val.vector_val, name);
    default:
      Complain(string("unsupported field format ") + type_name(val->type) + " for " + name);
      return false;
  }
}

void Ascii::DescribeText(ODesc* desc, const threading::Value& val) const {
  const char* data = val.val.string_val.data;
  const size_t length = static_cast<size_t>(val.val.string_val.length);
  if (length == 0) {
    desc->Add(separators.empty_field);
    return;
  }
  if (string(data, length) != separators.unset_field) {
    desc->AddN(data, static_cast<int>(length));
    return;
  }
  // A value that reads like the marker of unset values.
  char hex[2];
  bytetohex(static_cast<unsigned char>(data[0]), hex);
  desc->AddRaw("\\x", 2);
  desc->AddRaw(hex, 2);
  desc->AddN(data + 1, static_cast<int>(length) - 1);
}

bool Ascii::DescribeContainer(ODesc* desc, const threading::Value::set_t& set,
                              const string& name) const {
  if (set.size == 0) {
    desc->Add(separators.empty_field);
    return true;
  }
  desc->AddEscapeSequence(separators.set_separator);
  bool success = true;
  for (bro_int_t i = 0; success && i < set.size; ++i) {
    if (i > 0)
      desc->AddRaw(separators.set_separator);
    success = Describe(desc, set.vals[i], name);
  }
  desc->RemoveEscapeSequence(separators.set_separator);
  return success;
}

threading::Value* Ascii::ParseValue(const string& s, const string& name, TypeTag type,
                                    TypeTag subtype) const {
  standin::ValueMarkers markers;
  markers.set_separator = separators.set_separator;
  markers.unset_field = separators.unset_field;
  markers.empty_field = separators.empty_field;
  string error;
  threading::Value* value = standin::parse_value(s, type, subtype, markers, &error);
  if (!value)
    Complain(name + ": " + error);
  return value;
}

void Ascii::Complain(const string& text) const {
  if (GetThread())
    GetThread()->Error(text.c_str());
}

}  // namespace formatter
}  // namespace threading
