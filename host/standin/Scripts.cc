#include "standin/Scripts.h"

#include <errno.h>
#include <stdlib.h>

#include <map>
#include <memory>

#include "Attr.h"
#include "ScriptTokens.h"
#include "Val.h"
#include "Var.h"
#include "standin/Host.h"
#include "standin/MainThread.h"
#include "standin/ValueText.h"

namespace standin {

namespace {

ID* new_id(const std::string& name, BroType* type) {
  require_main_thread("defining a script item");
  ID* id = new ID(name.c_str(), true);
  id->SetType(type);
  global_scope()->Insert(name.c_str(), id);
  return id;
}

ID* new_const(const std::string& name, Val* value) {
  ID* id = new_id(name, value->Type()->Ref());
  id->SetConst();
  id->SetVal(value);
  return id;
}

// Seconds of a unit as scripts write it; 0 for what is none.
double seconds_of(std::string unit) {
  if (unit.size() > 1 && unit.back() == 's' && unit != "ms")
    unit.pop_back();
  static const std::map<std::string, double> units = {
      {"usec", Microseconds}, {"msec", Milliseconds}, {"sec", Seconds},
      {"min", Minutes},       {"hr", Hours},          {"day", Days}};
  auto found = units.find(unit);
  return found == units.end() ? 0 : found->second;
}

// "5sec", "1.5 min".
Val* parse_interval(const std::string& text) {
  char* end = nullptr;
  const double quantity = strtod(text.c_str(), &end);
  if (end == text.c_str())
    return nullptr;
  const double unit = seconds_of(strstrip(end));
  return unit != 0 ? new IntervalVal(quantity, unit) : nullptr;
}

Val* to_val(const threading::Value& value) {
  switch (value.type) {
    case TYPE_BOOL:
      return new Val(value.val.int_val != 0, TYPE_BOOL);
    case TYPE_INT:
      return new Val(value.val.int_val, TYPE_INT);
    case TYPE_COUNT:
    case TYPE_COUNTER:
      return new Val(value.val.uint_val, value.type);
    case TYPE_DOUBLE:
    case TYPE_TIME:
    case TYPE_INTERVAL:
      return new Val(value.val.double_val, value.type);
    case TYPE_PORT:
      return new PortVal(static_cast<uint32>(value.val.port_val.port), value.val.port_val.proto);
    default:
      return nullptr;
  }
}

Val* parse_enum(const std::string& text, const EnumType* type) {
  const std::string& type_name = type->GetName();
  const size_t colons = type_name.rfind("::");
  const std::string module = colons == std::string::npos ? "GLOBAL" : type_name.substr(0, colons);
  const bro_int_t number = type->Lookup(module, text.c_str());
  return number < 0 ? nullptr : new EnumVal(static_cast<int>(number), const_cast<EnumType*>(type));
}

// The type that a literal has by itself.
TypeTag tag_of_literal(const std::string& text) {
  if (text == "T" || text == "F")
    return TYPE_BOOL;
  if (text.empty() || text.find_first_of("0123456789") == std::string::npos)
    return TYPE_ERROR;
  if (text.find('/') != std::string::npos)
    return text.find_first_of(".:") == std::string::npos ? TYPE_PORT : TYPE_SUBNET;
  if (text.find_first_not_of("0123456789") == std::string::npos)
    return TYPE_COUNT;
  if (text.find_first_not_of("+-0123456789") == std::string::npos)
    return TYPE_INT;
  if (text.find_first_not_of("+-0123456789.eE") == std::string::npos)
    return TYPE_DOUBLE;
  return TYPE_INTERVAL;
}

Val* parse_as(const std::string& text, TypeTag tag, const BroType* type, std::string* error) {
  if (tag == TYPE_INTERVAL)
    return parse_interval(text);
  if (tag == TYPE_ENUM)
    return type ? parse_enum(text, type->AsEnumType()) : nullptr;
  if (tag == TYPE_ADDR || tag == TYPE_SUBNET) {
    std::unique_ptr<threading::Value> checked(
        parse_value(text, tag, TYPE_VOID, ValueMarkers(), error));
    if (!checked)
      return nullptr;
    return tag == TYPE_ADDR ? static_cast<Val*>(new AddrVal(text.c_str()))
                            : new SubNetVal(text.c_str());
  }
  std::unique_ptr<threading::Value> value(parse_value(text, tag, TYPE_VOID, ValueMarkers(), error));
  return value ? to_val(*value) : nullptr;
}

}  // namespace

void define_const(const std::string& name, Val* value) {
  new_const(name, value);
}

void define_option(const std::string& name, Val* value) {
  new_const(name, value)->SetRedefinable();
}

void declare_option(const std::string& name, BroType* type) {
  ID* id = new_id(name, type);
  id->SetConst();
  id->SetRedefinable();
}

void define_type(const std::string& name, BroType* type) {
  if (type->GetName().empty())
    type->SetName(name);
  new_id(name, type)->MakeType();
}

void declare_function(const std::string& name) {
  if (!global_scope()->Lookup(name))
    new_id(name, nullptr);
}

TypeDecl* make_field(const std::string& name, BroType* type, bool optional, bool log,
                     Val* default_value) {
  attr_list* attrs = new attr_list;
  if (optional)
    attrs->append(new Attr(ATTR_OPTIONAL));
  if (log)
    attrs->append(new Attr(ATTR_LOG));
  if (default_value)
    attrs->append(new Attr(ATTR_DEFAULT, default_value));
  return new TypeDecl(type, copy_string(name.c_str()), attrs, true);
}

RecordType* record_type(const std::string& name, std::initializer_list<FieldSpec> fields) {
  type_decl_list* decls = new type_decl_list;
  for (const FieldSpec& field : fields)
    decls->append(
        make_field(field.name, field.type, field.optional, field.log, field.default_value));
  RecordType* type = new RecordType(decls);
  type->SetName(name);
  return type;
}

Val* parse_literal(const std::string& text, const BroType* type, std::string* error) {
  const TypeTag tag = type ? type->Tag() : tag_of_literal(text);
  if (tag == TYPE_ERROR)
    return nullptr;
  Val* value = parse_as(text, tag, type, error);
  if (!value && error->empty())
    *error = "\"" + text + "\" is no value of type " + type_name(tag);
  return value;
}

void redefine(const std::string& name, const std::string& text) {
  ID* id = global_scope()->Lookup(name);
  if (!id || id->AsType() || !id->Type())
    throw HostError(name + ": there is no such option; the plug-in's scripts declare them");
  if (!id->IsRedefinable())
    throw HostError(name + ": its declaration does not carry &redef");
  if (id->Type()->Tag() == TYPE_STRING) {
    // The host puts the text between quotes and parses it, so escapes count.
    ScriptTokens tokens("\"" + text + "\";", name + "=" + text);
    const ScriptToken content = tokens.Take();
    if (content.kind != ScriptToken::kString || !tokens.Peek().is(";"))
      throw HostError(name + ": a quotation mark in the value has to be written as \\\"");
    id->SetVal(new StringVal(static_cast<int>(content.text.size()), content.text.data()));
    return;
  }
  std::string error;
  Val* value = parse_literal(text, id->Type(), &error);
  if (!value)
    throw HostError(name + ": " + error);
  id->SetVal(value);
}

}  // namespace standin
