// Values as text and back.
#pragma once

#include <string>

#include "Type.h"
#include "threading/MsgThread.h"
#include "threading/SerialTypes.h"

class ODesc;

namespace threading {
namespace formatter {

class Formatter {
 public:
  /// The thread that uses it, which is not looked at.
  explicit Formatter(threading::MsgThread*) {}
  virtual ~Formatter() {}

  /// One record. False on error.
  virtual bool Describe(ODesc* desc, int num_fields, const threading::Field* const* fields,
                        threading::Value** vals) const = 0;
  /// One value. False on error.
  virtual bool Describe(ODesc* desc, threading::Value* val, const string& name = "") const = 0;
  /// A new value, or 0 after a complaint.
  virtual threading::Value* ParseValue(const string& s, const string& name, TypeTag type,
                                       TypeTag subtype = TYPE_ERROR) const = 0;
};

}  // namespace formatter
}  // namespace threading
