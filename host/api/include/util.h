// The host's general helpers, under the host's names. Any thread.
#pragma once

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

#define FMT_ATTR __attribute__((format(printf, 2, 3)))

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

/// Compares the `s_len` bytes of `s` with the NUL-terminated `t`, ASCII case folded. -1 if `s` is
/// null; -1 or 1 at the first difference; 0 if `t` ends after `s_len` bytes, else 1.
int strcasecmp_n(int s_len, const char* s, const char* t);

/// Digits 0-9a-zA-Z of `value`, least significant digit first, after `prefix`: at most n-1
/// characters and a NUL. Returns `str`.
char* uitoa_n(uint64 value, char* str, int n, int base, const char* prefix = 0);

std::string strtolower(const std::string& s);
std::string to_upper(const std::string& s);

/// Every character that is neither letter nor digit becomes '_'; then upper case.
std::string canonify_name(const std::string& name);

/// Identifiers that do not repeat in this process.
uint64 calculate_unique_id();

/// Orders C strings by content.
struct CompareString {
  bool operator()(const char* a, const char* b) const { return strcmp(a, b) < 0; }
};
