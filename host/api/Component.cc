#include "logging/Component.h"

#include "HostReporter.h"
#include "logging/Manager.h"
#include "util.h"

logging::Manager* log_mgr = nullptr;

namespace plugin {

Component::Component(component::Type arg_type, const std::string& arg_name)
    : type(arg_type), name(arg_name), canon_name(canonify_name(arg_name)) {}

Component::~Component() {}

}  // namespace plugin

namespace logging {

Component::Component(const std::string& name, factory_callback arg_factory)
    : plugin::Component(plugin::component::WRITER, name), factory(arg_factory) {
  if (!log_mgr)
    host::any_reporter().InternalError(
        "component %s is created before log_mgr exists: create it in Configure()", name.c_str());
  log_mgr->RegisterComponent(this, "WRITER_");
}

Component::~Component() {}

}  // namespace logging
