// A log writer as a component.
#pragma once

#include "../Tag.h"
#include "logging/Tag.h"
#include "plugin/Component.h"
#include "plugin/ComponentManager.h"
#include "plugin/TaggedComponent.h"

namespace logging {

class WriterBackend;
class WriterFrontend;

class Component : public plugin::Component, public plugin::TaggedComponent<logging::Tag> {
 public:
  /// Called on the main thread; must return a new object.
  typedef WriterBackend* (*factory_callback)(WriterFrontend* frontend);

  /// Registers with log_mgr, which must exist: from then on Log::WRITER_<CANONICAL> exists.
  Component(const std::string& name, factory_callback factory);
  ~Component();

  factory_callback Factory() const { return factory; }

 private:
  factory_callback factory;
};

}  // namespace logging
