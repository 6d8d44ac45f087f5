#include "BroString.h"

#include <algorithm>

#include "HostReporter.h"

BroString::BroString(const u_char* str, int arg_n, int add_NUL) : BroString() {
  Set(str, arg_n, add_NUL);
}

BroString::BroString(const char* str) : BroString() {
  Set(str);
}

BroString::BroString(const string& str) : BroString() {
  Set(str);
}

BroString::BroString(const BroString& bs) : BroString() {
  *this = bs;
}

BroString::BroString(int arg_final_NUL, byte_vec str, int arg_n)
    : b(str), n(arg_n), final_NUL(arg_final_NUL != 0) {}

BroString::BroString() : b(nullptr), n(0), final_NUL(false) {}

BroString::~BroString() {
  Reset();
}

const BroString& BroString::operator=(const BroString& bs) {
  if (this != &bs)
    Set(bs.b, bs.n, bs.final_NUL);
  return *this;
}

bool BroString::operator==(const BroString& bs) const {
  return n == bs.n && std::equal(b, b + n, bs.b);
}

bool BroString::operator<(const BroString& bs) const {
  return std::lexicographical_compare(b, b + n, bs.b, bs.b + bs.n);
}

void BroString::Set(const u_char* str, int len, int add_NUL) {
  Reset();
  b = new u_char[static_cast<size_t>(len) + (add_NUL ? 1 : 0)];
  std::copy(str, str + len, b);
  n = len;
  final_NUL = add_NUL != 0;
  if (final_NUL)
    b[n] = '\0';
}

void BroString::Set(const char* str) {
  if (str)
    Set(reinterpret_cast<const u_char*>(str), static_cast<int>(strlen(str)));
  else
    Reset();
}

void BroString::Set(const string& str) {
  Set(reinterpret_cast<const u_char*>(str.data()), static_cast<int>(str.size()));
}

void BroString::Adopt(byte_vec bytes, int len) {
  Reset();
  b = bytes;
  n = len > 0 ? len - 1 : 0;
  final_NUL = len > 0;
}

const char* BroString::CheckString() const {
  if (n == 0)
    return "";
  if (final_NUL && std::find(b, b + n, '\0') == b + n)
    return reinterpret_cast<const char*>(b);
  char* rendered = Render();
  if (final_NUL)
    standin::host_reporter().Error("string with embedded NUL: \"%s\"", rendered);
  else
    standin::host_reporter().Error("string without NUL terminator: \"%s\"", rendered);
  delete[] rendered;
  return "<string-with-NUL>";
}

char* BroString::Render(int format, int* len) const {
  string text;
  for (int i = 0; i < n; ++i) {
    if (b[i] == '\\' && (format & ESC_ESC)) {
      text += "\\\\";
    } else if ((b[i] >= 0x7f || b[i] < 0x20) && (format & ESC_HEX)) {
      char hex[2];
      bytetohex(b[i], hex);
      text.append("\\x").append(hex, 2);
    } else {
      text += static_cast<char>(b[i]);
    }
  }
  char* result = new char[text.size() + 1];
  memcpy(result, text.c_str(), text.size() + 1);
  if (len)
    *len = static_cast<int>(text.size()) + 1;
  return result;
}

void BroString::Reset() {
  delete[] b;
  b = nullptr;
  n = 0;
  final_NUL = false;
}
