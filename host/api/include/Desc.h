// The text buffer into which the host's objects describe themselves. Not thread-safe; one object
// may be used on any one thread.
#pragma once

#include <list>
#include <string>

#include "BroString.h"

class BroFile;
class IPAddr;
class IPPrefix;

typedef enum { DESC_READABLE, DESC_PORTABLE, DESC_BINARY } desc_type;
typedef enum { STANDARD_STYLE, RAW_STYLE } desc_style;

class ODesc {
 public:
  /// `f` is not used here: everything goes to the buffer.
  explicit ODesc(desc_type t = DESC_READABLE, BroFile* f = 0);
  ~ODesc();

  int IsReadable() const { return type == DESC_READABLE; }
  int IsBinary() const { return type == DESC_BINARY; }

  int IsShort() const { return is_short; }
  void SetShort() { is_short = 1; }
  void SetShort(int s) { is_short = s; }
  int WantQuotes() const { return want_quotes; }
  void SetQuotes(int q) { want_quotes = q; }

  /// From now on Add and AddN escape: non-printable bytes as \xhh, the backslash as two, and every
  /// byte of an escape sequence as \xhh.
  void EnableEscaping();
  void AddEscapeSequence(const char* s) { escape_sequences.push_back(s); }
  void AddEscapeSequence(const char* s, size_t n) { escape_sequences.push_back(string(s, n)); }
  void AddEscapeSequence(const string& s) { escape_sequences.push_back(s); }
  void RemoveEscapeSequence(const char* s) { RemoveEscapeSequence(string(s)); }
  void RemoveEscapeSequence(const char* s, size_t n) { RemoveEscapeSequence(string(s, n)); }
  void RemoveEscapeSequence(const string& s) { escape_sequences.remove(s); }

  void Add(const char* s, int do_indent = 1);
  void Add(const string& s) { AddBytes(s.data(), s.size()); }
  void Add(int i);
  void Add(uint32 u);
  void Add(int64 i);
  void Add(uint64 u);
  /// Six decimals without trailing zeros; ".0" when the value is a whole int; %e above 2^31-1.
  void Add(double d);
  void Add(const IPAddr& addr);
  void Add(const IPPrefix& prefix);
  void AddN(const char* s, int len) { AddBytes(s, static_cast<size_t>(len)); }
  /// Without escaping.
  void AddRaw(const char* s, int len) { buffer.append(s, static_cast<size_t>(len)); }
  void AddRaw(const string& s) { buffer.append(s); }

  void SP() { Add(" "); }
  void NL() { Add("\n"); }

  const char* Description() const { return buffer.c_str(); }
  const u_char* Bytes() const { return reinterpret_cast<const u_char*>(buffer.data()); }
  int Len() const { return static_cast<int>(buffer.size()); }
  void Clear() { buffer.clear(); }

 private:
  ODesc(const ODesc&);
  ODesc& operator=(const ODesc&);

  void AddBytes(const char* bytes, size_t n);
  size_t EscapedLength(const char* bytes, size_t n) const;

  desc_type type;
  int is_short;
  int want_quotes;
  bool escape;
  list<string> escape_sequences;
  string buffer;
};
