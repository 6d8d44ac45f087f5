// The event queue. The stand-in runs no scripts: nobody listens to any event.
#pragma once

#include "EventHandler.h"
#include "Val.h"

namespace analyzer {
typedef uint32_t ID;
}
class TimerMgr;

class EventMgr : public BroObj {
 public:
  /// Consumes the list and its elements.
  void QueueEvent(EventHandlerPtr h, val_list* vl, SourceID src = SOURCE_LOCAL,
                  analyzer::ID aid = 0, TimerMgr* mgr = 0, BroObj* obj = 0);
};

extern EventMgr mgr;
