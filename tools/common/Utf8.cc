#include "Utf8.h"

namespace zmqwriter {

std::size_t utf8_length(const unsigned char* text, std::size_t size) {
  const unsigned char lead = text[0];
  if (lead < 0x80)
    return 1;
  if (lead < 0xc2 || lead > 0xf4)
    return 0;
  const std::size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  if (size < length)
    return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xc0) != 0x80)
      return 0;
  }
  // Overlong forms, surrogates, and what is above U+10FFFF show in the second byte.
  if ((lead == 0xe0 && text[1] < 0xa0) || (lead == 0xed && text[1] > 0x9f) ||
      (lead == 0xf0 && text[1] < 0x90) || (lead == 0xf4 && text[1] > 0x8f))
    return 0;
  return length;
}

bool is_printable(const unsigned char* sequence, std::size_t length) {
  const unsigned char* const s = sequence;
  if (length == 1)
    return s[0] >= 0x20 && s[0] != 0x7f;
  if (length == 2)
    return s[0] != 0xc2 || s[1] >= 0xa0;
  return !(length == 3 && s[0] == 0xe2 && s[1] == 0x80 && (s[2] == 0xa8 || s[2] == 0xa9));
}

}  // namespace zmqwriter
