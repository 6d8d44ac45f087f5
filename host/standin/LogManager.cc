#include "HostReporter.h"
#include "ThreadManager.h"
#include "logging/Manager.h"
#include "logging/WriterFrontend.h"

namespace logging {

Manager::Manager() : plugin::ComponentManager<logging::Tag, logging::Component>("Log", "Writer") {}

WriterBackend* Manager::CreateBackend(WriterFrontend* frontend, EnumVal* writer) {
  Component* component = Lookup(writer);
  if (!component)
    host::any_reporter().InternalError("unknown writer in CreateBackend for %s", frontend->Name());
  WriterBackend* backend = component->Factory()(frontend);
  if (!backend)
    host::any_reporter().InternalError("factory of writer %s returned null",
                                       component->Name().c_str());
  thread_mgr->Add(backend, frontend);
  return backend;
}

}  // namespace logging
