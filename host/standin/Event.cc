#include "Event.h"

TimerMgr* timer_mgr = nullptr;

EventMgr mgr;

EventHandler::operator bool() const {
  return false;
}

void EventMgr::QueueEvent(EventHandlerPtr, val_list* vl, SourceID, analyzer::ID, TimerMgr*,
                          BroObj*) {
  delete_vals(vl);
}
