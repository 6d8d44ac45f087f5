// What a shared object registers while it is loaded.
#pragma once

#include <list>
#include <map>
#include <string>

#include "plugin/Manager.h"

namespace host {

struct Registration {
  plugin::Plugin* plugin = nullptr;  // the last one that registered
  std::map<std::string, std::list<plugin::Manager::bif_init_func>> bif_inits;  // by lower-case name
};

/// Where registrations go. Whoever loads an object empties it before and looks into it afterwards.
Registration& registration();

}  // namespace host
