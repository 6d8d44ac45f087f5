#include <algorithm>

#include "Desc.h"
#include "HostReporter.h"
#include "logging/Manager.h"
#include "logging/WriterFrontend.h"

logging::Manager* log_mgr = nullptr;

namespace logging {

Component::Component(const std::string& name, factory_callback arg_factory)
    : plugin::Component(plugin::component::WRITER, name), factory(arg_factory) {
  if (!log_mgr)
    standin::host_reporter().InternalError(
        "component %s is created before log_mgr exists: create it in Configure()", name.c_str());
  log_mgr->RegisterComponent(this, "WRITER_");
}

Component::~Component() {}

void Component::DoDescribe(ODesc* d) const {
  d->Add("Log::WRITER_" + CanonicalName());
}

Manager::Manager() : plugin::ComponentManager<logging::Tag, logging::Component>("Log", "Writer") {}

void Manager::RegisterComponent(Component* component, const std::string& prefix) {
  const std::string& name = component->CanonicalName();
  if (name == "ASCII" || name == "NONE" || name == "SQLITE")
    standin::host_reporter().FatalError("Component '%s::%s' defined more than once",
                                        GetModule().c_str(), name.c_str());
  plugin::ComponentManager<logging::Tag, logging::Component>::RegisterComponent(component, prefix);
}

WriterBackend* Manager::CreateBackend(WriterFrontend* frontend, EnumVal* writer) {
  Component* component = Lookup(writer);
  if (!component)
    standin::host_reporter().InternalError("unknown writer in CreateBackend for %s",
                                           frontend->Name());
  WriterBackend* backend = component->Factory()(frontend);
  if (!backend)
    standin::host_reporter().InternalError("factory of writer %s returned null",
                                           component->Name().c_str());
  return backend;
}

bool Manager::FinishedRotation(WriterFrontend*, const Rotation& rotation) {
  rotations.push_back(rotation);
  return true;
}

}  // namespace logging
