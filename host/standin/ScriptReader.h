// Reads what the stand-in needs of the plug-in's Bro scripts: string constants, record types of
// plain fields and function declarations.
//
//     module LogZMQ;
//     export {
//         const zmq_primary_server = "127.0.0.1:5555" &redef;      # becomes a constant
//     }
//     type system_stats: record { ts: time &log; load: double &log; };
//     global LogZMQ::__detect_user: function(c: connection): string_vec;
//
// Everything else (functions, events, redefs, statements, other constants and types, and whatever
// stands between @if and its @endif) is skipped over, right or wrong. Main thread.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace standin {

class ScriptReader {
 public:
  /// `search_path`: folders for @load lines that name neither an absolute file nor one relative to
  /// the script ("./x").
  explicit ScriptReader(const std::vector<std::string>& search_path) : search_path_(search_path) {}

  /// Reads a script and everything that it loads into the global scope. Each file is read once.
  /// Throws HostError, with name and line, for a file that cannot be read or found, and for a
  /// string or an @if without an end.
  void Load(const std::string& path);

 private:
  friend class ScriptParser;

  /// Where an @load leads to; empty for a script that is not the plug-in's.
  std::string Resolve(const std::string& target, const std::string& from) const;

  std::vector<std::string> search_path_;
  std::set<std::string> seen_;
};

/// `text` as if it stood between quotation marks in a script: escapes count. Throws HostError,
/// which begins with `name`, where that is not possible.
std::string unescaped(const std::string& text, const std::string& name);

}  // namespace standin
