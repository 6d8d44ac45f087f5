// Root of the host's reference-counted objects.
//
// Counts start at 1, are plain integers and belong to the main thread: creating a BroObj
// elsewhere aborts here.
#pragma once

#include <limits.h>

#include "SerialObj.h"
#include "util.h"

using namespace std;

/// Where in the scripts something stands. The stand-in knows no locations.
class Location {
 public:
  // constexpr: static objects of any file may ask for the locations below.
  constexpr Location() {}
  virtual ~Location();
};

/// Where the script parser is.
extern Location start_location;
extern Location end_location;

class BroObj : public SerialObj {
 public:
  BroObj() : ref_cnt(1) { SetLocationInfo(&start_location, &end_location); }
  virtual ~BroObj();

  /// Reports "<msg> (<t1>/<t2>)" as a fatal error: the process ends with status 1.
  void BadTag(const char* msg, const char* t1 = 0, const char* t2 = 0) const;

  virtual bool SetLocationInfo(const Location* start, const Location* end);

  int RefCnt() const { return ref_cnt; }

 protected:
  friend void Ref(BroObj* o);
  friend void Unref(BroObj* o);

 private:
  BroObj(const BroObj&);
  BroObj& operator=(const BroObj&);

  int ref_cnt;
};

/// Reports a broken reference count (0: too many, 1: too few) and aborts.
extern void bad_ref(int type);

/// `o` must not be null.
inline void Ref(BroObj* o) {
  if (++o->ref_cnt <= 1 || o->ref_cnt == INT_MAX)
    bad_ref(0);
}

/// Null is allowed. Deletes at 0.
inline void Unref(BroObj* o) {
  if (!o || --o->ref_cnt > 0)
    return;
  if (o->ref_cnt < 0)
    bad_ref(1);
  delete o;
}

/// Ends the process through BadTag if the tags differ. For use inside a BroObj.
#define CHECK_TAG(tag1, tag2, text, tag_to_text)          \
  do {                                                    \
    if ((tag1) != (tag2))                                 \
      BadTag(text, tag_to_text(tag1), tag_to_text(tag2)); \
  } while (0)
