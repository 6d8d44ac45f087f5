#include "AllowList.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "Files.h"

namespace zmqwriter {

namespace {

// Some 16,000 keys with a comment each.
constexpr std::size_t kLongestFile = std::size_t{4} << 20;

std::string_view without_comment_and_blanks(std::string_view line) {
  line = line.substr(0, line.find('#'));
  const char* const blanks = " \t\r";
  line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
  return line.substr(0, line.find_last_not_of(blanks) + 1);
}

}  // namespace

AllowList read_allow_list(const std::string& path) {
  const std::string content = read_small_file(path, kLongestFile);
  AllowList keys;
  std::string_view rest = content;
  for (std::size_t number = 1; !rest.empty(); ++number) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    const std::string_view line = without_comment_and_blanks(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.empty())
      continue;
    CurveKey key;
    const std::string problem = parse_key(line, "this line", &key);
    if (!problem.empty())
      throw std::runtime_error(path + ":" + std::to_string(number) + ": " + problem);
    keys.insert(key);
  }
  if (keys.empty())
    throw std::runtime_error(path + ": holds no key, so no client could connect");
  return keys;
}

}  // namespace zmqwriter
