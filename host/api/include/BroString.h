// The host's counted strings: any byte may occur in them.
#pragma once

#include <sys/types.h>

#include <string>

#include "util.h"

using namespace std;

typedef unsigned char u_char;
typedef u_char* byte_vec;

class BroString {
 public:
  /// Copies `arg_n` bytes; `add_NUL` adds a final NUL that Len does not count.
  BroString(const u_char* str, int arg_n, int add_NUL);
  ~BroString() { delete[] b; }

  byte_vec Bytes() const { return b; }
  /// Without the final NUL.
  int Len() const { return n; }

  /// The C string; "" if empty. With an embedded NUL or without a final one: reports an error and
  /// returns "<string-with-NUL>".
  const char* CheckString() const;

 private:
  BroString(const BroString&);
  BroString& operator=(const BroString&);

  byte_vec b;
  int n;
  bool final_NUL;
};
