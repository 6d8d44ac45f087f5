// The host's table of log writers. Main thread only.
#pragma once

#include <string>
#include <vector>

#include "logging/Component.h"
#include "logging/WriterBackend.h"
#include "plugin/ComponentManager.h"

namespace logging {

class Manager : public plugin::ComponentManager<logging::Tag, logging::Component> {
 public:
  /// A rotation that a writer has reported as done.
  struct Rotation {
    std::string new_name;
    std::string old_name;
    double open;
    double close;
    bool terminating;
  };

  Manager();

  /// As the base class; refuses the names of the host's own writers, too.
  void RegisterComponent(Component* component, const std::string& prefix = "");

  /// Calls the factory of `writer` (a value of GetTagType). Never null.
  WriterBackend* CreateBackend(WriterFrontend* frontend, EnumVal* writer);

  /// There is no postprocessor here: the rotation is only noted. `writer` may be gone by now.
  bool FinishedRotation(WriterFrontend* writer, const Rotation& rotation);
  const std::vector<Rotation>& Rotations() const { return rotations; }

 private:
  std::vector<Rotation> rotations;
};

}  // namespace logging

extern logging::Manager* log_mgr;
