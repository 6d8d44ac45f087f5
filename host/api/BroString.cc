#include "BroString.h"

#include <algorithm>

#include "HostReporter.h"

BroString::BroString(const u_char* str, int arg_n, int add_NUL)
    : b(new u_char[static_cast<size_t>(arg_n) + (add_NUL ? 1 : 0)]), n(arg_n), final_NUL(add_NUL) {
  std::copy(str, str + n, b);
  if (final_NUL)
    b[n] = '\0';
}

const char* BroString::CheckString() const {
  if (n == 0)
    return "";
  if (final_NUL && std::find(b, b + n, '\0') == b + n)
    return reinterpret_cast<const char*>(b);
  host::any_reporter().Error(final_NUL ? "string with embedded NUL"
                                       : "string without NUL terminator");
  return "<string-with-NUL>";
}
