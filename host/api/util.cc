#include "util.h"

#include <errno.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>

#include "HostReporter.h"
#include "standin/MainThread.h"
#include "standin/PseudoTime.h"

namespace {

char to_lower_ascii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  const char lower = to_lower_ascii(c);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

uint64 random_start() {
  std::random_device device;
  const uint64 high = device();
  return (high << 32 | device()) ^ static_cast<uint64>(getpid());
}

std::atomic<double> pseudo_time{0};

}  // namespace

void standin::set_pseudo_time(double seconds) {
  pseudo_time = seconds;
}

void out_of_memory(const char* where) {
  fprintf(stderr, "out of memory in %s.\n", where);
  standin::host_reporter().FatalErrorWithCore("out of memory in %s.", where);
  abort();
}

double current_time(bool real) {
  const double pretended = pseudo_time.load();
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

int streq(const char* s1, const char* s2) {
  return strcmp(s1, s2) == 0;
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

const char* fmt(const char* format, ...) {
  standin::require_main_thread("fmt");
  static std::vector<char> buffer(128);
  while (true) {
    va_list al;
    va_start(al, format);
    const int needed = vsnprintf(buffer.data(), buffer.size(), format, al);
    va_end(al);
    if (needed < static_cast<int>(buffer.size()))
      return buffer.data();
    buffer.resize(static_cast<size_t>(needed) + 1);
  }
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

std::string strstrip(std::string s) {
  static const char blanks[] = " \t\n\v\f\r";
  s.erase(0, std::min(s.find_first_not_of(blanks), s.size()));
  s.erase(s.find_last_not_of(blanks) + 1);
  return s;
}

std::vector<std::string>* tokenize_string(std::string input, const std::string& delim,
                                          std::vector<std::string>* rval) {
  if (!rval)
    rval = new std::vector<std::string>();
  size_t begin = 0;
  if (!delim.empty()) {
    for (size_t end; (end = input.find(delim, begin)) != std::string::npos;
         begin = end + delim.size())
      rval->push_back(input.substr(begin, end - begin));
  }
  rval->push_back(input.substr(begin));
  return rval;
}

std::string get_escaped_string(const std::string& str, bool escape_all) {
  std::string result;
  for (const char c : str) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (escape_all || isspace(byte) || byte >= 0x80 || !isprint(byte)) {
      char hex[2];
      bytetohex(byte, hex);
      result.append("\\x").append(hex, 2);
    } else {
      result += c;
    }
  }
  return result;
}

std::string get_unescaped_string(const std::string& str) {
  std::string result;
  for (size_t i = 0; i < str.size(); ++i) {
    if (str[i] == '\\' && i + 3 < str.size() && str[i + 1] == 'x' && hex_digit(str[i + 2]) >= 0 &&
        hex_digit(str[i + 3]) >= 0) {
      result += static_cast<char>(hex_digit(str[i + 2]) * 16 + hex_digit(str[i + 3]));
      i += 3;
    } else {
      result += str[i];
    }
  }
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

uint64 calculate_unique_id(const size_t) {
  return calculate_unique_id();
}

bool safe_write(int fd, const char* data, int len) {
  while (len > 0) {
    const ssize_t n = write(fd, data, static_cast<size_t>(len));
    if (n < 0) {
      if (errno == EINTR)
        continue;
      fprintf(stderr, "safe_write error: %d\n", errno);
      abort();
    }
    data += n;
    len -= static_cast<int>(n);
  }
  return true;
}

void safe_close(int fd) {
  if (close(fd) < 0 && errno != EINTR) {
    fprintf(stderr, "safe_close error: %d\n", errno);
    abort();
  }
}

void terminate_processing() {
  raise(SIGTERM);
}
