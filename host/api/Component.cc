#include "plugin/Component.h"

#include "Desc.h"
#include "util.h"

namespace plugin {

Component::Component(component::Type arg_type, const std::string& arg_name)
    : type(arg_type), name(arg_name), canon_name(canonify_name(arg_name)) {}

Component::~Component() {}

void Component::Describe(ODesc* d) const {
  static const char* const type_names[] = {"Reader",        "Writer",     "Analyzer",
                                           "File Analyzer", "I/O Source", "Packet Source",
                                           "Packet Dumper"};
  d->Add("    [");
  d->Add(type_names[type]);
  d->Add("] ");
  d->Add(name);
  d->Add(" (");
  DoDescribe(d);
  d->Add(")");
}

void Component::DoDescribe(ODesc*) const {}

}  // namespace plugin
