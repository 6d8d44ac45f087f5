#include "Val.h"

#include "Conn.h"
#include "Func.h"
#include "HostReporter.h"

// Simple values; records, vectors, tables and lists are in ContainerVal.cc.

Val::Val(Func* f) : type(f->FType() ? f->FType()->Ref() : base_type(TYPE_FUNC)) {
  val.func_val = f;
}

Val::Val(BroFile* f) : type(base_type(TYPE_FILE)) {
  val.file_val = f;
}

Val::Val(BroType* t, bool type_type) : type(type_type ? new TypeType(t) : t->Ref()) {
  Init(bro_uint_t(0));
}

Val::Val() : type(base_type(TYPE_ERROR)) {
  Init(bro_uint_t(0));
}

Val::~Val() {
  if (type->Tag() == TYPE_FUNC)
    Unref(val.func_val);
  Unref(type);
}

bro_int_t Val::InternalInt() const {
  if (type->InternalType() == TYPE_INTERNAL_INT)
    return val.int_val;
  standin::host_reporter().InternalWarning("bad request for InternalInt");
  return 0;
}

bro_uint_t Val::InternalUnsigned() const {
  if (type->InternalType() == TYPE_INTERNAL_UNSIGNED)
    return val.uint_val;
  standin::host_reporter().InternalWarning("bad request for InternalUnsigned");
  return 0;
}

double Val::InternalDouble() const {
  if (type->InternalType() == TYPE_INTERNAL_DOUBLE)
    return val.double_val;
  standin::host_reporter().InternalWarning("bad request for InternalDouble");
  return 0;
}

bro_int_t Val::CoerceToInt() const {
  switch (type->InternalType()) {
    case TYPE_INTERNAL_INT:
      return val.int_val;
    case TYPE_INTERNAL_UNSIGNED:
      return static_cast<bro_int_t>(val.uint_val);
    case TYPE_INTERNAL_DOUBLE:
      return static_cast<bro_int_t>(val.double_val);
    default:
      return 0;
  }
}

bro_uint_t Val::CoerceToUnsigned() const {
  return type->InternalType() == TYPE_INTERNAL_DOUBLE ? static_cast<bro_uint_t>(val.double_val)
                                                      : static_cast<bro_uint_t>(CoerceToInt());
}

double Val::CoerceToDouble() const {
  switch (type->InternalType()) {
    case TYPE_INTERNAL_INT:
      return static_cast<double>(val.int_val);
    case TYPE_INTERNAL_UNSIGNED:
      return static_cast<double>(val.uint_val);
    case TYPE_INTERNAL_DOUBLE:
      return val.double_val;
    default:
      return 0;
  }
}

void Val::Describe(ODesc* d) const {
  ValDescribe(d);
}

void Val::ValDescribe(ODesc* d) const {
  switch (type->Tag()) {
    case TYPE_BOOL:
      d->Add(val.int_val ? "T" : "F");
      return;
    case TYPE_INT:
      d->Add(val.int_val);
      return;
    case TYPE_COUNT:
    case TYPE_COUNTER:
      d->Add(val.uint_val);
      return;
    case TYPE_DOUBLE:
    case TYPE_TIME:
      d->Add(val.double_val);
      return;
    case TYPE_INTERVAL:
      d->Add(val.double_val);
      d->Add(" sec");
      return;
    case TYPE_FUNC:
      val.func_val->Describe(d);
      return;
    default:
      type->Describe(d);
  }
}

StringVal::StringVal(BroString* s) : Val(TYPE_STRING) {
  val.string_val = s;
}

StringVal::StringVal(const char* s) : Val(TYPE_STRING) {
  val.string_val = new BroString(s);
}

// As in the host: only what stands before the first NUL byte.
StringVal::StringVal(const string& s) : Val(TYPE_STRING) {
  val.string_val = new BroString(s.c_str());
}

StringVal::StringVal(int length, const char* s) : Val(TYPE_STRING) {
  val.string_val = new BroString(reinterpret_cast<const u_char*>(s), length, 1);
}

StringVal::~StringVal() {
  delete val.string_val;
}

int StringVal::Len() {
  return val.string_val->Len();
}

const u_char* StringVal::Bytes() {
  return val.string_val->Bytes();
}

const char* StringVal::CheckString() {
  return val.string_val->CheckString();
}

void StringVal::ValDescribe(ODesc* d) const {
  if (d->WantQuotes())
    d->Add("\"");
  d->AddN(reinterpret_cast<const char*>(val.string_val->Bytes()), val.string_val->Len());
  if (d->WantQuotes())
    d->Add("\"");
}

namespace {

// A port value is the number with the protocol above it.
const uint32 kTcp = 0x10000;
const uint32 kUdp = 0x20000;
const uint32 kIcmp = 0x30000;
const uint32 kProtocolBits = 0x30000;

uint32 protocol_bits(TransportProto proto) {
  switch (proto) {
    case TRANSPORT_TCP:
      return kTcp;
    case TRANSPORT_UDP:
      return kUdp;
    case TRANSPORT_ICMP:
      return kIcmp;
    default:
      return 0;
  }
}

}  // namespace

PortVal::PortVal(uint32 p, TransportProto port_type) : Val(TYPE_PORT) {
  val.uint_val = (p & 0xffff) | protocol_bits(port_type);
}

PortVal::PortVal(uint32 p) : Val(TYPE_PORT) {
  val.uint_val = p;
}

uint32 PortVal::Port() const {
  return static_cast<uint32>(val.uint_val & 0xffff);
}

TransportProto PortVal::PortType() const {
  switch (val.uint_val & kProtocolBits) {
    case kTcp:
      return TRANSPORT_TCP;
    case kUdp:
      return TRANSPORT_UDP;
    case kIcmp:
      return TRANSPORT_ICMP;
    default:
      return TRANSPORT_UNKNOWN;
  }
}

void PortVal::ValDescribe(ODesc* d) const {
  static const char* const names[] = {"/unknown", "/tcp", "/udp", "/icmp"};
  d->Add(Port());
  d->Add(names[PortType()]);
}

AddrVal::AddrVal(const char* text) : AddrVal(IPAddr(text)) {}

AddrVal::AddrVal(uint32 addr) : AddrVal(IPAddr(IPv4, &addr, IPAddr::Network)) {}

AddrVal::AddrVal(const uint32 addr[4]) : AddrVal(IPAddr(IPv6, addr, IPAddr::Network)) {}

AddrVal::AddrVal(const IPAddr& addr) : Val(TYPE_ADDR) {
  val.addr_val = new IPAddr(addr);
}

AddrVal::~AddrVal() {
  delete val.addr_val;
}

void AddrVal::ValDescribe(ODesc* d) const {
  d->Add(*val.addr_val);
}

namespace {

IPPrefix parse_prefix(const char* text) {
  const std::string s = text;
  const size_t slash = s.find('/');
  const IPAddr addr(s.substr(0, slash));
  if (slash == std::string::npos) {
    standin::host_reporter().Error("Bad string in SubNetVal ctor: %s", text);
    return IPPrefix();
  }
  return IPPrefix(addr, static_cast<uint8_t>(atoi(s.c_str() + slash + 1)));
}

}  // namespace

SubNetVal::SubNetVal(const char* text) : SubNetVal(parse_prefix(text)) {}

SubNetVal::SubNetVal(const char* text, int width) : SubNetVal(IPAddr(text), width) {}

SubNetVal::SubNetVal(uint32 addr, int width)
    : SubNetVal(IPAddr(IPv4, &addr, IPAddr::Network), width) {}

SubNetVal::SubNetVal(const uint32 addr[4], int width)
    : SubNetVal(IPAddr(IPv6, addr, IPAddr::Network), width) {}

SubNetVal::SubNetVal(const IPAddr& addr, int width)
    : SubNetVal(IPPrefix(addr, static_cast<uint8_t>(width))) {}

SubNetVal::SubNetVal(const IPPrefix& prefix) : Val(TYPE_SUBNET) {
  val.subnet_val = new IPPrefix(prefix);
}

SubNetVal::~SubNetVal() {
  delete val.subnet_val;
}

const IPAddr& SubNetVal::Prefix() const {
  return val.subnet_val->Prefix();
}

int SubNetVal::Width() const {
  return val.subnet_val->Length();
}

IPAddr SubNetVal::Mask() const {
  in6_addr ones;
  memset(&ones, 0xff, sizeof(ones));
  IPAddr mask(ones);
  mask.Mask(val.subnet_val->LengthIPv6());
  return mask;
}

void SubNetVal::ValDescribe(ODesc* d) const {
  d->Add(*val.subnet_val);
}

EnumVal::EnumVal(int i, EnumType* t) : Val(t) {
  val.int_val = i;
}

void EnumVal::ValDescribe(ODesc* d) const {
  const char* name = type->AsEnumType()->Lookup(val.int_val);
  d->Add(name ? name : "<undefined>");
}
