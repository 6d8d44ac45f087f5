#include "SettingsFile.h"

#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <stdexcept>

SettingsFile* settings = nullptr;

namespace {

std::string trimmed(const std::string& text) {
  const char* const blanks = " \t\r\n\v\f";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string::npos)
    return "";
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool is_folder(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// A decimal number of 32 bits and nothing else; strtol also takes blanks and a plus sign.
bool parse_int(const std::string& text, int* value) {
  if (text.empty() || !(isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-'))
    return false;
  char* end = nullptr;
  errno = 0;
  const long number = strtol(text.c_str(), &end, 10);
  if (errno || end != text.c_str() + text.size() || number < INT_MIN || number > INT_MAX)
    return false;
  *value = static_cast<int>(number);
  return true;
}

}  // namespace

SettingsFile::SettingsFile() {}

SettingsFile::SettingsFile(const std::string& path) : path_(path) {
  errno = 0;
  std::ifstream in(path, std::ios::binary);
  // A folder opens like a file on some systems; only reading from it fails, and says nothing.
  if (in && is_folder(path))
    throw std::runtime_error(path + ": this is a folder, not a settings file");
  if (!in)
    throw std::runtime_error(path + ": cannot read the settings: " + strerror(errno));

  std::string line;
  for (int number = 1; std::getline(in, line); ++number)
    TakeLine(line, number);
  if (in.bad())
    throw std::runtime_error(path + ": cannot read the settings: " + strerror(errno));
}

void SettingsFile::TakeLine(const std::string& line, int number) {
  const auto fail = [&](const std::string& what) {
    throw std::runtime_error(path_ + ":" + std::to_string(number) + ": " + what);
  };
  if (line.compare(0, 1, "#") == 0 || trimmed(line).empty())
    return;
  const auto equals = line.find('=');
  if (equals == std::string::npos)
    fail("expected 'key = value', found '" + trimmed(line) + "'");
  const std::string key = trimmed(line.substr(0, equals));
  if (key.empty())
    fail("there is no key before the '='");
  const Setting setting = {trimmed(line.substr(equals + 1)), number};
  const auto added = values_.insert({key, setting});
  if (!added.second)
    fail("'" + key + "' is set twice, first in line " + std::to_string(added.first->second.line));
}

std::string SettingsFile::getStringVal(const char* key, const char* default_value) const {
  const auto found = values_.find(key);
  return found == values_.end() ? default_value : found->second.text;
}

int SettingsFile::getIntVal(const char* key, int default_value) const {
  const auto found = values_.find(key);
  if (found == values_.end())
    return default_value;
  int value = 0;
  if (parse_int(found->second.text, &value))
    return value;
  fprintf(stderr, "%s:%d: %s = '%s' is no whole 32-bit number, using %d instead\n", path_.c_str(),
          found->second.line, key, found->second.text.c_str(), default_value);
  return default_value;
}

bool SettingsFile::has(const char* key) const {
  return values_.count(key) != 0;
}
