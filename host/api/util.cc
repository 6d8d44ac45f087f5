#include "util.h"

#include <ctype.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>

#include "Clock.h"
#include "HostReporter.h"
#include "Net.h"

namespace {

char to_lower_ascii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

uint64 random_start() {
  std::random_device device;
  const uint64 high = device();
  return (high << 32 | device()) ^ static_cast<uint64>(getpid());
}

}  // namespace

double network_time = 0;
bool terminating = false;

std::atomic<double> host::pseudo_time{0};

void out_of_memory(const char* where) {
  fprintf(stderr, "out of memory in %s.\n", where);
  host::any_reporter().FatalErrorWithCore("out of memory in %s.", where);
  abort();
}

double current_time(bool real) {
  const double pretended = host::pseudo_time.load();
  if (!real && pretended != 0)
    return pretended;
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1e6;
}

char* copy_string(const char* s) {
  if (!s)
    return nullptr;
  const size_t size = strlen(s) + 1;
  char* copy = new char[size];
  memcpy(copy, s, size);
  return copy;
}

int strcasecmp_n(int s_len, const char* s, const char* t) {
  if (!s)
    return -1;
  for (int i = 0; i < s_len; ++i) {
    const char a = to_lower_ascii(s[i]);
    const char b = to_lower_ascii(t[i]);
    if (a != b)
      return a < b ? -1 : 1;
    if (t[i] == '\0')
      return 1;  // both NUL: `t` ends although `s` goes on
  }
  return t[s_len < 0 ? 0 : s_len] == '\0' ? 0 : 1;
}

char* uitoa_n(uint64 value, char* str, int n, int base, const char* prefix) {
  static const char digits[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  int length = 0;
  if (n <= 0)
    return str;
  for (; prefix && prefix[length] && length < n - 1; ++length)
    str[length] = prefix[length];
  const uint64 divisor = static_cast<uint64>(base);
  do {
    if (length >= n - 1)
      break;
    str[length++] = digits[value % divisor];
    value /= divisor;
  } while (value);
  str[length] = '\0';
  return str;
}

std::string strtolower(const std::string& s) {
  std::string result = s;
  std::transform(s.begin(), s.end(), result.begin(), to_lower_ascii);
  return result;
}

std::string to_upper(const std::string& s) {
  std::string result = s;
  for (char& c : result)
    c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return result;
}

std::string canonify_name(const std::string& name) {
  std::string result;
  for (const char c : name)
    result += isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return to_upper(result);
}

uint64 calculate_unique_id() {
  // A counter with a random start, stirred by a bijection: no value comes twice.
  static std::atomic<uint64> next(random_start());
  uint64 x = next.fetch_add(0x9e3779b97f4a7c15ULL);
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}
