// Checks of option values; their messages say what is expected.
#pragma once

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include "EventJson.h"
#include "Text.h"

namespace zmqwriter {

/// `problem` is empty for a good value, else the message.
inline CLI::Validator option_check(std::function<std::string(const std::string&)> problem) {
  return CLI::Validator(std::move(problem), "");
}

/// An option whose value `take` reads, which throws std::invalid_argument for a bad one.
inline CLI::Option* add_parsed_option(CLI::App* command, const std::string& name,
                                      std::function<void(const std::string&)> take,
                                      const std::string& description) {
  return command->add_option_function<std::string>(
      name,
      [name, take = std::move(take)](const std::string& text) {
        try {
          take(text);
        } catch (const std::invalid_argument& problem) {
          throw CLI::ValidationError(name, problem.what());
        }
      },
      description);
}

inline CLI::Validator not_empty(const std::string& problem = "the name is empty") {
  return option_check([problem](const std::string& text) { return text.empty() ? problem : ""; });
}

/// A finite number above 0; with `zero_too` also 0.
inline CLI::Validator positive_number(bool zero_too = false) {
  return option_check([zero_too](const std::string& text) -> std::string {
    double number = -1;
    if (CLI::detail::lexical_cast(text, number) && std::isfinite(number) &&
        (number > 0 || (zero_too && number == 0)))
      return "";
    return "'" + text + "' must be a " +
           (zero_too ? "finite number that is not negative" : "finite positive number");
  });
}

/// A whole number above 0 in plain decimal digits, which fits into 64 bits. The option's own
/// conversion would take signs, other bases and numbers that are too large.
inline CLI::Validator positive_count() {
  return option_check([](const std::string& text) -> std::string {
    // A leading zero is octal to the conversion that follows.
    if (number_in<std::uint64_t>(text) && text[0] != '0')
      return "";
    return "'" + text + "' must be a positive number below 2^64, in plain decimal digits";
  });
}

/// A number of bytes above 0, with K, M, G or T behind it for powers of 1024; as plain digits.
inline CLI::Validator byte_size() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        const std::size_t unit = std::string("KMGT").find(text.empty() ? '-' : text.back());
        const int shift = unit == std::string::npos ? 0 : 10 * (static_cast<int>(unit) + 1);
        const auto size = number_in<std::uint64_t>(text.substr(0, text.size() - (shift > 0)));
        if (!size || *size == 0 || *size > UINT64_MAX >> shift)
          return "'" + text + "' must be a positive number of bytes, like 5000000 or 10M";
        text = std::to_string(*size << shift);
        return "";
      },
      "");
}

inline void add_json_bytes_option(CLI::App* command, JsonBytes* bytes) {
  command
      ->add_option_function<std::string>(
          "--json-bytes",
          [bytes](const std::string& name) {
            *bytes = name == "replace"  ? JsonBytes::kReplace
                     : name == "base64" ? JsonBytes::kBase64
                                        : JsonBytes::kSurrogate;
          },
          "How JSON gives bytes that are not UTF-8, and NUL. surrogate (the default): as "
          "\\udc80 to \\udcff and \\u0000, which some readers refuse. replace: as U+FFFD. "
          "base64: a text that has any as {\"base64\":\"...\"}")
      ->type_name("")
      ->check(CLI::IsMember({"surrogate", "replace", "base64"}));
}

}  // namespace zmqwriter
