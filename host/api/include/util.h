// The host's general helpers, under the host's names.
//
// `fmt` keeps one static buffer and belongs to the main thread; everything else here may be used
// on any thread.
#pragma once

#include <ctype.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "bro-config.h"

typedef int8_t int8;
typedef int16_t int16;
typedef int32_t int32;
typedef int64_t int64;
typedef uint8_t uint8;
typedef uint16_t uint16;
typedef uint32_t uint32;
typedef uint64_t uint64;

typedef int64 bro_int_t;
typedef uint64 bro_uint_t;

typedef uintptr_t SourceID;
#define SOURCE_LOCAL 0

#define myattribute __attribute__
#define FMT_ATTR __attribute__((format(printf, 2, 3)))
#define padded_sizeof(x) ((sizeof(x) + sizeof(void*) - 1) / sizeof(void*) * sizeof(void*))

#ifndef ASSERT
#ifdef NDEBUG
#define ASSERT(x) ((void)0)
#else
#include <assert.h>
#define ASSERT(x) assert(x)
#endif
#endif
#define DEBUG_MSG(...) ((void)0)
#define DBG_LOG(...) ((void)0)

extern "C" {
/// Prints "out of memory in <where>.", reports a fatal error and aborts; never returns.
void out_of_memory(const char* where);
}

/// Network time: 0 before the first packet, here the wall clock. Written on the main thread only.
extern double network_time;

/// Wall clock in seconds since 1970-01-01 UTC.
double current_time(bool real = false);

/// A new[] copy; 0 for 0.
char* copy_string(const char* s);

/// Non-zero if equal.
int streq(const char* s1, const char* s2);

/// Compares the `s_len` bytes of `s` with the NUL-terminated `t`, ASCII case folded. -1 if `s` is
/// null; -1 or 1 at the first difference; 0 if `t` ends after `s_len` bytes, else 1.
int strcasecmp_n(int s_len, const char* s, const char* t);

/// Digits 0-9a-zA-Z of `value`, least significant digit first, after `prefix`: at most n-1
/// characters and a NUL. Returns `str`.
char* uitoa_n(uint64 value, char* str, int n, int base, const char* prefix = 0);

/// printf into one static buffer. Main thread only.
const char* fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string strtolower(const std::string& s);
std::string to_upper(const std::string& s);
std::string strstrip(std::string s);

/// Splits `input` at every `delim`; into `rval` if given, else into a new vector.
std::vector<std::string>* tokenize_string(std::string input, const std::string& delim,
                                          std::vector<std::string>* rval = 0);

/// White space and non-printable bytes (or all bytes) become \xhh.
std::string get_escaped_string(const std::string& str, bool escape_all);
/// \xHH becomes the byte; everything else stays.
std::string get_unescaped_string(const std::string& str);

/// Every character that is neither letter nor digit becomes '_'; then upper case.
std::string canonify_name(const std::string& name);

/// Two lower-case digits, no NUL.
inline void bytetohex(unsigned char byte, char* hex_out) {
  static const char digits[] = "0123456789abcdef";
  hex_out[0] = digits[byte >> 4];
  hex_out[1] = digits[byte & 0x0f];
}

/// Identifiers that do not repeat in this process.
uint64 calculate_unique_id();
uint64 calculate_unique_id(const size_t pool);

/// Writes everything; aborts the process on an error.
bool safe_write(int fd, const char* data, int len);
/// Closes; aborts the process on a hard error.
void safe_close(int fd);

inline void* safe_malloc(size_t size) {
  void* ptr = malloc(size);
  if (!ptr)
    out_of_memory("malloc");
  return ptr;
}

inline void* safe_realloc(void* ptr, size_t size) {
  ptr = realloc(ptr, size);
  if (size && !ptr)
    out_of_memory("realloc");
  return ptr;
}

inline char* safe_strncpy(char* dst, const char* src, size_t n) {
  if (n) {
    strncpy(dst, src, n - 1);
    dst[n - 1] = '\0';
  }
  return dst;
}

inline int safe_vsnprintf(char* str, size_t size, const char* format, va_list al)
    __attribute__((format(printf, 3, 0)));
inline int safe_vsnprintf(char* str, size_t size, const char* format, va_list al) {
  int result = vsnprintf(str, size, format, al);
  if (size)
    str[size - 1] = '\0';
  return result;
}

inline int safe_snprintf(char* str, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
inline int safe_snprintf(char* str, size_t size, const char* format, ...) {
  va_list al;
  va_start(al, format);
  int result = safe_vsnprintf(str, size, format, al);
  va_end(al);
  return result;
}

/// Orders C strings by content.
struct CompareString {
  bool operator()(const char* a, const char* b) const { return strcmp(a, b) < 0; }
};

/// As if the process had received SIGTERM.
void terminate_processing();
