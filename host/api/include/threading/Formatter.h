// Values as text and back. Uses only the description and its thread's messages, so it may be used
// on the child.
#pragma once

#include <string>

#include "Desc.h"
#include "Type.h"
#include "threading/MsgThread.h"
#include "threading/SerialTypes.h"

namespace threading {
namespace formatter {

class Formatter {
 public:
  /// `t`: the thread that uses it; its messages carry complaints. May be null here: then there
  /// are none.
  explicit Formatter(threading::MsgThread* t);
  virtual ~Formatter();

  /// One record. False on error.
  virtual bool Describe(ODesc* desc, int num_fields, const threading::Field* const* fields,
                        threading::Value** vals) const = 0;
  /// One value. False on error.
  virtual bool Describe(ODesc* desc, threading::Value* val, const string& name = "") const = 0;
  /// A new value, or 0 after a complaint.
  virtual threading::Value* ParseValue(const string& s, const string& name, TypeTag type,
                                       TypeTag subtype = TYPE_ERROR) const = 0;

  string Render(const threading::Value::addr_t& addr) const;
  /// IPv4 lengths are given of 32 bits.
  string Render(const threading::Value::subnet_t& subnet) const;
  /// Six decimals; %e above 2^31-1.
  string Render(double d) const;

  /// "tcp", "udp", "icmp", any case; all else is unknown.
  TransportProto ParseProto(const string& proto) const;
  /// What is no address is complained about and becomes all zero (IPv6).
  threading::Value::addr_t ParseAddr(const string& addr) const;

 protected:
  threading::MsgThread* GetThread() const { return thread; }

 private:
  threading::MsgThread* thread;
};

}  // namespace formatter
}  // namespace threading
