// Text as people read it, and what is valid UTF-8 in bytes that came from the network.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace zmqwriter {

constexpr char kUpperHex[] = "0123456789ABCDEF";
constexpr char kLowerHex[] = "0123456789abcdef";

/// Two digits for each byte.
std::string hex_digits(const void* bytes, std::size_t size, const char* digits = kUpperHex);

/// With padding, in one line.
std::string base64(const void* bytes, std::size_t size);

/// "1 record", "2 records".
std::string counted(std::uint64_t number, const std::string& noun);

/// `format` is one of printf for one number.
std::string formatted(const char* format, double number);

/// The words of `text` in lines of at most `columns` columns. Line ends of the text stay. All lines
/// but the first begin with `indent` blanks; the first is taken to stand in that column already.
std::string wrapped(const std::string& text, std::size_t indent, std::size_t columns);

/// A decimal number that is all of `text` and fits its type; no sign but '-', no blanks.
template <typename Number>
std::optional<Number> number_in(std::string_view text) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end)
    return std::nullopt;
  return number;
}

/// Seconds since 1970 of a time like "2026-11-22T07:35:58.5+02:00" (ISO 8601), with a blank for the
/// T, Z for UTC, or a zone without colon. The seconds may be left out, or the whole time of day.
/// Without a zone it is of UTC, or of this machine's with `local`. Nothing for any other text.
std::optional<double> time_in(const std::string& text, bool local);

/// Length of the valid UTF-8 sequence at the start of `text`, 0 if there is none. Overlong forms,
/// surrogates, and what lies above U+10FFFF are not valid. `size` is at least 1.
std::size_t utf8_length(const unsigned char* text, std::size_t size);

/// Whether a valid sequence may be printed on a terminal as it is: no control character (those of
/// ASCII, DEL, U+0080 to U+009F), no separator of lines or paragraphs (U+2028, U+2029).
bool is_printable(const unsigned char* sequence, std::size_t length);

/// `text` with each byte that is not part of a printable sequence replaced by `escape` of it.
std::string printable(std::string_view text, const std::function<std::string(char)>& escape);

}  // namespace zmqwriter
