#include "Obj.h"

#include "Desc.h"
#include "HostReporter.h"
#include "standin/MainThread.h"

// Without a file name: no location.
Location no_location;
Location start_location;
Location end_location;

unsigned long long TransientID::counter = 0;

void Location::Describe(ODesc* d) const {
  if (!filename) {
    d->Add("<no location>");
    return;
  }
  d->Add(filename);
  if (first_line) {
    d->Add(", line ");
    d->Add(first_line);
  }
}

BroObj::~BroObj() {}

void BroObj::Describe(ODesc* d) const {
  d->Add("<object>");
}

bool BroObj::SetLocationInfo(const Location* start, const Location* end) {
  // Every constructor passes here.
  standin::require_main_thread("creating a script object");
  location = *start;
  location.last_line = end->last_line;
  location.last_column = end->last_column;
  return true;
}

void BroObj::BadTag(const char* msg, const char* t1, const char* t2) const {
  std::string text = msg;
  if (t1)
    text += std::string(" (") + t1 + (t2 ? std::string("/") + t2 : "") + ")";
  ODesc d;
  Describe(&d);
  Reporter& to = standin::host_reporter();
  to.PushLocation(GetLocationInfo());
  to.FatalError("%s (%s)", text.c_str(), d.Description());
}

void bad_ref(int type) {
  standin::host_reporter().InternalError(
      type == 0 ? "bad reference count: object is used after its end or referenced too often"
                : "bad reference count: object was released too often");
}
