#include "UID.h"

#include <algorithm>

#include "HostReporter.h"

namespace Bro {

void UID::Set(bro_uint_t bits, const uint64* v, size_t n) {
  bits = std::min<bro_uint_t>(bits, BRO_UID_LEN * 64);
  const size_t words = static_cast<size_t>((bits + 63) / 64);
  for (size_t i = 0; i < BRO_UID_LEN; ++i) {
    if (i >= words)
      uid[i] = 0;
    else
      uid[i] = v && i < n ? v[i] : calculate_unique_id();
  }
  // The surplus bits of an incomplete word are taken from the first one, not from the last.
  if (bits % 64)
    uid[0] >>= 64 - bits % 64;
  initialized = true;
}

std::string UID::Base62(std::string prefix) const {
  if (!initialized)
    host::any_reporter().InternalError("use of uninitialized UID");
  for (const uint64 word : uid) {
    char digits[65];
    prefix += uitoa_n(word, digits, sizeof(digits), 62);
  }
  return prefix;
}

}  // namespace Bro
