// The components of one kind, with a script enum that names them. Main thread only.
#pragma once

#include <map>
#include <string>

#include "Reporter.h"
#include "Type.h"
#include "Val.h"

namespace plugin {

/// T: tag class, C: component class.
template <class T, class C>
class ComponentManager {
 public:
  /// Makes the script enum `module`::`local_id`.
  ComponentManager(const std::string& module, const std::string& local_id)
      : module_(module), enum_type_(new EnumType(module + "::" + local_id)) {}
  ~ComponentManager() { Unref(enum_type_); }

  EnumType* GetTagType() const { return enum_type_; }

  /// 0 if there is none.
  C* Lookup(const std::string& canonical_name) const {
    typename std::map<std::string, C*>::const_iterator i = by_name_.find(canonical_name);
    return i == by_name_.end() ? 0 : i->second;
  }
  C* Lookup(EnumVal* val) const {
    typename std::map<int, C*>::const_iterator i = by_number_.find(val->AsEnum());
    return i == by_number_.end() ? 0 : i->second;
  }

  /// Adds the enumerator `prefix` + canonical name. A name may occur once only: fatal otherwise.
  /// The component stays its plug-in's.
  void RegisterComponent(C* component, const std::string& prefix = "") {
    const std::string& name = component->CanonicalName();
    const int number = static_cast<int>(component->Tag().Type());
    if (Lookup(name))
      reporter->FatalError("Component '%s::%s' defined more than once", module_.c_str(),
                           name.c_str());
    by_name_[name] = component;
    by_number_[number] = component;
    enum_type_->AddName(module_, (prefix + name).c_str(), number, true, false);
  }

 private:
  ComponentManager(const ComponentManager&);
  ComponentManager& operator=(const ComponentManager&);

  std::string module_;
  EnumType* enum_type_;
  std::map<std::string, C*> by_name_;
  std::map<int, C*> by_number_;
};

}  // namespace plugin
