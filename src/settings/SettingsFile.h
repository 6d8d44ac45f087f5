// The settings file: `key = value` lines.
//
//     # a comment; blank lines are allowed
//     zmq.server        = collector.example.net:5555
//     zmq.public_key    = 64 upper-case hexadecimal digits
//     disk.usage.absolute = 500
//
// A key is everything before the first '=', a value everything behind it, both without the white
// space around them; a value may be empty. '#' starts a comment only at the start of a line. A
// key that occurs twice, a line without '=' and an empty key are errors that name file and line.
//
// A SettingsFile does not change after it was loaded, so any thread may look things up.
#pragma once

#include <map>
#include <string>

class SettingsFile {
 public:
  /// No settings: every lookup gives its default.
  SettingsFile();
  /// Reads `path`; throws std::runtime_error "FILE:LINE: what is wrong" or "FILE: why not read".
  explicit SettingsFile(const std::string& path);

  /// The text configured for `key`, else `default_value`.
  std::string getStringVal(const char* key, const char* default_value) const;

  /// The whole decimal number configured for `key`, else `default_value`. A value that is no
  /// whole 32-bit number reads as the default too, and a line on stderr names file, line, key,
  /// the text that stands there and the default that is used instead.
  int getIntVal(const char* key, int default_value) const;

  /// Whether `key` is configured.
  bool has(const char* key) const;

 private:
  struct Setting {
    std::string text;
    int line;
  };

  void TakeLine(const std::string& line, int number);

  std::string path_;
  std::map<std::string, Setting> values_;
};

/// The settings of this process; null until the host has loaded them.
extern SettingsFile* settings;
