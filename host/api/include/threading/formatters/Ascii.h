// The text form of the host's ASCII logs. The stand-in keeps the separators and writes no such
// text: every other call ends the process.
#pragma once

#include "Reporter.h"
#include "threading/Formatter.h"

namespace threading {
namespace formatter {

class Ascii : public Formatter {
 public:
  struct SeparatorInfo {
    string separator;      ///< between columns
    string set_separator;  ///< between elements of sets and vectors
    string unset_field;    ///< an unset value
    string empty_field;    ///< an empty string, set or vector

    /// Note the order: unset before empty.
    SeparatorInfo(const string& separator, const string& set_separator, const string& unset_field,
                  const string& empty_field);
  };

  Ascii(threading::MsgThread* t, const SeparatorInfo& info);
  virtual ~Ascii();

  virtual bool Describe(ODesc* desc, int num_fields, const threading::Field* const* fields,
                        threading::Value** vals) const;
  virtual bool Describe(ODesc* desc, threading::Value* val, const string& name = "") const;
  virtual threading::Value* ParseValue(const string& s, const string& name, TypeTag type,
                                       TypeTag subtype = TYPE_ERROR) const;

 private:
  SeparatorInfo separators;
};

}  // namespace formatter
}  // namespace threading
