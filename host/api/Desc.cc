#include "Desc.h"

#include "IPAddr.h"
#include "NumberText.h"

ODesc::ODesc(desc_type t, BroFile*)
    : type(t), is_short(0), want_quotes(0), escape(false), escape_sequences(), buffer() {}

ODesc::~ODesc() {}

void ODesc::EnableEscaping() {
  escape = true;
}

void ODesc::Add(const char* s, int) {
  AddBytes(s, strlen(s));
}

void ODesc::Add(int i) {
  Add(static_cast<int64>(i));
}

void ODesc::Add(uint32 u) {
  Add(static_cast<uint64>(u));
}

void ODesc::Add(int64 i) {
  Add(std::to_string(i));
}

void ODesc::Add(uint64 u) {
  Add(std::to_string(u));
}

void ODesc::Add(double d) {
  Add(standin::short_number(d));
}

void ODesc::Add(const IPAddr& addr) {
  Add(addr.AsString());
}

void ODesc::Add(const IPPrefix& prefix) {
  Add(prefix.AsString());
}

// How many bytes at `bytes` belong together and have to be written as \xhh each; 0 for none.
size_t ODesc::EscapedLength(const char* bytes, size_t n) const {
  for (const string& sequence : escape_sequences) {
    if (!sequence.empty() && sequence.size() <= n &&
        memcmp(bytes, sequence.data(), sequence.size()) == 0)
      return sequence.size();
  }
  const u_char byte = static_cast<u_char>(*bytes);
  return byte < 0x20 || byte >= 0x7f ? 1 : 0;
}

void ODesc::AddBytes(const char* bytes, size_t n) {
  if (!escape) {
    buffer.append(bytes, n);
    return;
  }
  while (n > 0) {
    size_t length = EscapedLength(bytes, n);
    for (size_t i = 0; i < length; ++i) {
      char hex[2];
      bytetohex(static_cast<u_char>(bytes[i]), hex);
      buffer.append("\\x").append(hex, 2);
    }
    if (length == 0) {
      buffer.append(*bytes == '\\' ? 2 : 1, *bytes);
      length = 1;
    }
    bytes += length;
    n -= length;
  }
}
