#include "standin/Scripts.h"

#include "MainThread.h"
#include "ScriptReader.h"
#include "Val.h"
#include "Var.h"
#include "standin/Host.h"

namespace standin {

namespace {

ID* new_id(const std::string& name, BroType* type) {
  host::require_main_thread("defining a script item");
  ID* id = new ID;
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

}  // namespace

void define_option(const std::string& name, Val* value) {
  new_const(name, value)->SetRedefinable();
}

void define_const(const std::string& name, Val* value) {
  new_const(name, value);
}

void define_type(const std::string& name, BroType* type) {
  new_id(name, type)->MakeType();
}

void declare_function(const std::string& name) {
  if (!global_scope()->Lookup(name))
    new_id(name, nullptr);
}

void forget_scripts() {
  global_scope()->Clear();
}

void load_script(const std::string& path) {
  ScriptReader({}).Load(path);
}

void redefine(const std::string& name, const std::string& text) {
  ID* id = global_scope()->Lookup(name);
  if (!id || !id->IsConst())
    throw HostError(name + ": there is no such option; the plug-in's scripts declare them");
  if (!id->IsRedefinable())
    throw HostError(name + ": its declaration does not carry &redef");
  // The host puts the text between quotes and parses it.
  const std::string content = unescaped(text, name);
  id->SetVal(new StringVal(static_cast<int>(content.size()), content.data()));
}

}  // namespace standin
