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
  enum render_style {
    ESC_NONE = 0,
    ESC_HEX = 4,  // non-printables as \xHH
    ESC_ESC = 8,  // backslash as two
  };
  static const int EXPANDED_STRING = ESC_HEX;
  static const int BRO_STRING_LITERAL = ESC_ESC | ESC_HEX;

  /// Copies `arg_n` bytes; `add_NUL` adds a final NUL that Len does not count.
  BroString(const u_char* str, int arg_n, int add_NUL);
  explicit BroString(const char* str);
  explicit BroString(const string& str);
  BroString(const BroString& bs);
  /// Takes a new[] buffer of `arg_n` bytes (one more if `arg_final_NUL`).
  BroString(int arg_final_NUL, byte_vec str, int arg_n);
  BroString();
  ~BroString();

  const BroString& operator=(const BroString& bs);
  bool operator==(const BroString& bs) const;
  bool operator<(const BroString& bs) const;

  byte_vec Bytes() const { return b; }
  /// Without the final NUL.
  int Len() const { return n; }

  void Set(const u_char* str, int len, int add_NUL = 1);
  void Set(const char* str);
  void Set(const string& str);
  /// Takes a new[] buffer whose last byte is the final NUL.
  void Adopt(byte_vec bytes, int len);

  /// The C string; "" if empty. With an embedded NUL or without a final one: reports an error and
  /// returns "<string-with-NUL>".
  const char* CheckString() const;

  /// A new[] text with a final NUL; `len`, if given, becomes its length with that NUL.
  char* Render(int format = EXPANDED_STRING, int* len = 0) const;

 private:
  void Reset();

  byte_vec b;
  int n;
  bool final_NUL;
};
