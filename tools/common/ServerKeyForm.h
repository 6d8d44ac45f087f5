// What is wrong with the text of a server key, before anybody uses it.
#pragma once

#include <string>

namespace zmqwriter {

/// Empty in all its parts when the text has the plug-in's form.
struct KeyProblem {
  std::string id;      ///< a fixed word for machines, e.g. "key-lower-case"
  std::string what;    ///< behind the setting's name: "has lower-case digits, which ..."
  std::string remedy;  ///< what to do about it

  explicit operator bool() const { return !id.empty(); }
};

/// The plug-in reads 64 upper-case hexadecimal digits.
KeyProblem key_problem(const std::string& key);

}  // namespace zmqwriter
