// Checks of option values whose messages say what is expected.
#pragma once

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>

namespace zmqwriter {

/// A finite number above 0, or with `zero_too` not below it.
inline CLI::Validator positive_number(bool zero_too = false) {
  return CLI::Validator(
      [zero_too](const std::string& text) -> std::string {
        double number = -1;
        if (CLI::detail::lexical_cast(text, number) && std::isfinite(number) &&
            (number > 0 || (zero_too && number == 0)))
          return "";
        return "'" + text + "' must be a " +
               (zero_too ? "finite number that is not negative" : "finite positive number");
      },
      "");
}

/// A whole number above 0 in plain decimal digits, which fits into 64 bits. The option's own
/// conversion would take signs, other bases and numbers that are too large.
inline CLI::Validator positive_count() {
  return CLI::Validator(
      [](const std::string& text) -> std::string {
        std::uint64_t number = 0;
        const char* const end = text.data() + text.size();
        const auto parsed = std::from_chars(text.data(), end, number);
        // A leading zero is octal to the conversion that follows.
        if (parsed.ec == std::errc() && parsed.ptr == end && text[0] != '0')
          return "";
        return "'" + text + "' must be a positive number below 2^64, in plain decimal digits";
      },
      "");
}

}  // namespace zmqwriter
