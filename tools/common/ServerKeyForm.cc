#include "ServerKeyForm.h"

namespace zmqwriter {

namespace {

constexpr std::size_t kDigits = 64;
constexpr std::size_t kZ85Digits = 40;
const char kUseTheFile[] = "write the content of the collector's server.public there";

}  // namespace

KeyProblem key_problem(const std::string& key) {
  const auto only = [&](const char* characters) {
    return key.find_first_not_of(characters) == std::string::npos;
  };
  if (key.empty())
    return {"key-empty", "is empty", kUseTheFile};
  if (key.size() == kDigits && only("0123456789ABCDEF"))
    return {};
  if (key.size() == kDigits && only("0123456789ABCDEFabcdef"))
    return {"key-lower-case", "has lower-case digits, which the plug-in does not read",
            "write it in upper case"};
  const std::string length = std::to_string(key.size()) + " characters";
  if (key.size() == kZ85Digits)
    return {"key-z85", "has " + length + ", which looks like Z85",
            "write the key's 32 bytes as 64 upper-case hexadecimal digits"};
  return {key.size() < kDigits   ? "key-too-short"
          : key.size() > kDigits ? "key-too-long"
                                 : "key-not-hexadecimal",
          "is not a key of 64 upper-case hexadecimal digits (it has " + length + ")", kUseTheFile};
}

}  // namespace zmqwriter
