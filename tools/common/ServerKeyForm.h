// The form of a server key in the settings.
#pragma once

#include <string>

namespace zmqwriter {

/// All parts are empty when the text has the form that the plug-in reads.
struct KeyProblem {
  std::string id;    ///< a fixed word for programs, e.g. "key-lower-case"
  std::string what;  ///< follows the setting's name: "has lower-case digits, which ..."
  std::string remedy;

  explicit operator bool() const { return !id.empty(); }
};

/// The plug-in reads 64 upper-case hexadecimal digits.
KeyProblem key_problem(const std::string& key);

}  // namespace zmqwriter
