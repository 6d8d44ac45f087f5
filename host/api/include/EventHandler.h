// Script events, by name.
#pragma once

#include <string>

#include "util.h"

class EventHandler {
 public:
  explicit EventHandler(const char* arg_name) : name(arg_name), used(false) {}

  const char* Name() const { return name.c_str(); }
  /// Whether anybody listens. The stand-in runs no scripts, so nobody does.
  operator bool() const;

  void SetUsed() { used = true; }
  bool Used() const { return used; }

 private:
  std::string name;
  bool used;
};

class EventHandlerPtr {
 public:
  EventHandlerPtr(EventHandler* p = 0) : handler(p) {}

  EventHandler* Ptr() { return handler; }
  EventHandler* operator->() { return handler; }
  operator bool() const { return handler && *handler; }
  bool operator==(const EventHandlerPtr& h) const { return handler == h.handler; }

 private:
  EventHandler* handler;
};
