// Identifiers that are unique across hosts.
#pragma once

#include <string>

#include "util.h"

#define BRO_UID_LEN 2

namespace Bro {

class UID {
 public:
  UID() : initialized(false) {
    for (int i = 0; i < BRO_UID_LEN; ++i)
      uid[i] = 0;
  }
  UID(bro_uint_t bits, const uint64* v = 0, size_t n = 0) { Set(bits, v, n); }
  UID(const UID& other) { *this = other; }

  /// At most 128 bits. Word i is v[i] if given, else drawn; bits of an incomplete last word are
  /// shifted out of the first word.
  void Set(bro_uint_t bits, const uint64* v = 0, size_t n = 0);

  /// `prefix` and both words in base 62, least significant digit first. Aborts when not set.
  std::string Base62(std::string prefix = "") const;

  operator bool() const { return initialized; }
  UID& operator=(const UID& other);

  friend bool operator==(const UID& u1, const UID& u2) {
    return u1.uid[0] == u2.uid[0] && u1.uid[1] == u2.uid[1];
  }
  friend bool operator!=(const UID& u1, const UID& u2) { return !(u1 == u2); }

 private:
  uint64 uid[BRO_UID_LEN];
  bool initialized;
};

}  // namespace Bro
