// The host's table of log writers. Main thread only.
#pragma once

#include "logging/Component.h"
#include "plugin/ComponentManager.h"

class EnumVal;

namespace logging {

class Manager : public plugin::ComponentManager<logging::Tag, logging::Component> {
 public:
  Manager();

  /// Calls the factory of `writer` (a value of GetTagType). Never null.
  WriterBackend* CreateBackend(WriterFrontend* frontend, EnumVal* writer);
};

}  // namespace logging

extern logging::Manager* log_mgr;
