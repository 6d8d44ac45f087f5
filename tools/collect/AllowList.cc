#include "AllowList.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace zmqwriter {

namespace {

constexpr std::size_t kHexDigits = 64;
// Some 16,000 keys with a comment each.
constexpr std::size_t kLongestFile = std::size_t{4} << 20;

std::string read_whole(const std::string& path) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored))
    throw std::runtime_error(path + ": this is a folder, not a file of keys");
  errno = 0;
  std::ifstream in(path, std::ios::binary);
  std::string text(kLongestFile + 1, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in.bad() || (!in && errno != 0))
    throw std::runtime_error(path + ": cannot read the allowed keys: " + std::strerror(errno));
  text.resize(static_cast<std::size_t>(in.gcount()));
  if (text.size() > kLongestFile)
    throw std::runtime_error(path + ": too long for a file of keys (more than 4 MiB)");
  return text;
}

std::string_view without_comment_and_blanks(std::string_view line) {
  line = line.substr(0, line.find('#'));
  const char* const blanks = " \t\r";
  line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
  return line.substr(0, line.find_last_not_of(blanks) + 1);
}

/// Empty if the text is a key, else what is wrong with it.
std::string parse_key(std::string_view text, CurveKey* key) {
  if (text.size() != kHexDigits)
    return "a key has 64 hexadecimal digits, this line holds " + std::to_string(text.size()) +
           " characters";
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (!std::isxdigit(static_cast<unsigned char>(text[i])))
      return "character " + std::to_string(i + 1) + " of the key is no hexadecimal digit";
  }
  for (std::size_t i = 0; i < key->size(); ++i)
    std::from_chars(text.data() + 2 * i, text.data() + 2 * i + 2, (*key)[i], 16);
  return "";
}

}  // namespace

AllowList read_allow_list(const std::string& path) {
  const std::string content = read_whole(path);
  AllowList keys;
  std::string_view rest = content;
  for (std::size_t number = 1; !rest.empty(); ++number) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    const std::string_view line = without_comment_and_blanks(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.empty())
      continue;
    CurveKey key;
    const std::string problem = parse_key(line, &key);
    if (!problem.empty())
      throw std::runtime_error(path + ":" + std::to_string(number) + ": " + problem);
    keys.insert(key);
  }
  if (keys.empty())
    throw std::runtime_error(path + ": holds no key, so nobody could connect");
  return keys;
}

}  // namespace zmqwriter
