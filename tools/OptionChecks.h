// Checks of option values whose messages say what is expected.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

/// A number above 0, or with `zero_too` not below it.
inline CLI::Validator positive_number(bool zero_too = false) {
  return CLI::Validator(
      [zero_too](const std::string& text) -> std::string {
        double number = -1;
        if (CLI::detail::lexical_cast(text, number) && (number > 0 || (zero_too && number == 0)))
          return "";
        return "'" + text + "' must be a " +
               (zero_too ? "number that is not negative" : "positive number");
      },
      "");
}
