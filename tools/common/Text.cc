#include "Text.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace zmqwriter {

std::string hex_digits(const void* bytes, std::size_t size, const char* digits) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    const unsigned char byte = static_cast<const unsigned char*>(bytes)[i];
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

std::string base64(const void* bytes, std::size_t size) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto* const from = static_cast<const unsigned char*>(bytes);
  std::string text;
  for (std::size_t i = 0; i < size; i += 3) {
    unsigned group = 0;
    for (std::size_t j = i; j < i + 3; ++j)
      group = group << 8 | (j < size ? from[j] : 0u);
    for (std::size_t j = 0; j < 4; ++j)
      text += i + j > size ? '=' : kDigits[group >> (18 - 6 * j) & 0x3f];
  }
  return text;
}

std::string counted(std::uint64_t number, const std::string& noun) {
  return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

std::string formatted(const char* format, double number) {
  char text[64];
  std::snprintf(text, sizeof text, format, number);
  return text;
}

std::string wrapped(const std::string& text, std::size_t indent, std::size_t columns) {
  std::string result;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::size_t column = columns;  // the first word begins a line
    for (std::string word; std::getline(words, word, ' ');) {
      if (column + 1 + word.size() <= columns) {
        result += ' ';
        ++column;
      } else {
        result += result.empty() ? "" : "\n" + std::string(indent, ' ');
        column = indent;
      }
      result += word;
      column += word.size();
    }
  }
  return result;
}

std::optional<double> time_in(const std::string& text, bool local) {
  struct tm parts = {};
  const char* rest = strptime(text.c_str(), "%Y-%m-%d", &parts);
  if (rest && (*rest == 'T' || *rest == ' '))
    rest = strptime(rest + 1, "%H:%M", &parts);
  double seconds = 0;
  int hours = 0, minutes = 0, size = 0;
  if (rest && *rest == ':' && std::sscanf(rest, ":%lf%n", &seconds, &size) == 1)
    rest += size;
  if (!rest || !(seconds >= 0 && seconds < 61))
    return std::nullopt;
  char sign[2] = "+";
  const bool zone = *rest != '\0';
  if (*rest == 'Z')
    ++rest;
  else if (std::sscanf(rest, "%1[+-]%2d:%2d%n", sign, &hours, &minutes, &size) == 3 ||
           std::sscanf(rest, "%1[+-]%2d%2d%n", sign, &hours, &minutes, &size) == 3)
    rest += size;
  const int day = parts.tm_mday;
  parts.tm_isdst = -1;
  const time_t whole = zone || !local ? timegm(&parts) : mktime(&parts);
  if (rest != text.c_str() + text.size() || parts.tm_mday != day)
    return std::nullopt;
  return static_cast<double>(whole) + seconds -
         (sign[0] == '-' ? -60 : 60) * (60 * hours + minutes);
}

std::size_t utf8_length(const unsigned char* text, std::size_t size) {
  const unsigned char lead = text[0];
  if (lead < 0x80)
    return 1;
  if (lead < 0xc2 || lead > 0xf4)
    return 0;
  const std::size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  if (size < length)
    return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xc0) != 0x80)
      return 0;
  }
  // Overlong forms, surrogates, and what is above U+10FFFF show in the second byte.
  if ((lead == 0xe0 && text[1] < 0xa0) || (lead == 0xed && text[1] > 0x9f) ||
      (lead == 0xf0 && text[1] < 0x90) || (lead == 0xf4 && text[1] > 0x8f))
    return 0;
  return length;
}

bool is_printable(const unsigned char* sequence, std::size_t length) {
  const unsigned char* const s = sequence;
  if (length == 1)
    return s[0] >= 0x20 && s[0] != 0x7f;
  if (length == 2)
    return s[0] != 0xc2 || s[1] >= 0xa0;
  return !(length == 3 && s[0] == 0xe2 && s[1] == 0x80 && (s[2] == 0xa8 || s[2] == 0xa9));
}

std::string printable(std::string_view text, const std::function<std::string(char)>& escape) {
  const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
  std::string result;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = utf8_length(bytes + i, text.size() - i);
    const std::size_t end = i + std::max<std::size_t>(length, 1);
    if (length > 0 && is_printable(bytes + i, length))
      result.append(text, i, length);
    else
      for (std::size_t k = i; k < end; ++k)
        result += escape(text[k]);
    i = end;
  }
  return result;
}

}  // namespace zmqwriter
