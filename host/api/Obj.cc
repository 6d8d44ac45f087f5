#include "Obj.h"

#include <string>

#include "HostReporter.h"
#include "MainThread.h"

Location start_location;
Location end_location;

unsigned long long TransientID::counter = 0;

Location::~Location() {}

BroObj::~BroObj() {}

bool BroObj::SetLocationInfo(const Location*, const Location*) {
  // Every constructor passes here.
  host::require_main_thread("creating a script object");
  return true;
}

void BroObj::BadTag(const char* msg, const char* t1, const char* t2) const {
  std::string text = msg;
  if (t1)
    text += std::string(" (") + t1 + (t2 ? std::string("/") + t2 : "") + ")";
  host::any_reporter().FatalError("%s", text.c_str());
}

void bad_ref(int type) {
  host::any_reporter().InternalError(
      type == 0 ? "bad reference count: object is used after its end or referenced too often"
                : "bad reference count: object was released too often");
}
