// Identifiers that are unique across hosts.
#pragma once

#include <string>

#include "util.h"

#define BRO_UID_LEN 2

namespace Bro {

class UID {
 public:
  UID() : initialized(false) {}

  /// At most 128 bits. Word i is v[i] if given, else drawn; bits of an incomplete last word are
  /// shifted out of the first word.
  void Set(bro_uint_t bits, const uint64* v = 0, size_t n = 0);

  /// `prefix` and both words in base 62, least significant digit first. Aborts when not set.
  std::string Base62(std::string prefix = "") const;

 private:
  uint64 uid[BRO_UID_LEN];
  bool initialized;
};

}  // namespace Bro
