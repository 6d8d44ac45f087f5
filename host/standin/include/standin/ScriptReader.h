// Reads what the stand-in needs of Bro scripts: constants, types and function declarations.
//
//     module LogZMQ;
//     export {
//         const zmq_primary_server = "127.0.0.1:5555" &redef;      # becomes a constant
//         const retries: count = 3 &redef;
//     }
//     type system_stats: record { ts: time &log; load: double &log &optional; };
//     global LogZMQ::__detect_user: function(c: connection): string_vec;
//
// Everything else (functions, events, hooks, redefs, statements, and whatever stands between @if
// and its @endif) is skipped over, as are constants whose value is not a literal. A file that
// cannot be read to its end is refused with its name and line. Main thread.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace standin {

class ScriptReader {
 public:
  /// `search_path`: folders for @load lines that name neither an absolute file nor one relative to
  /// the script ("./x").
  explicit ScriptReader(const std::vector<std::string>& search_path);

  /// Reads a script, or the `__load__.bro` of a folder, and everything that it loads, into the
  /// global scope. Each file is read once. Throws HostError.
  void Load(const std::string& path);

  /// The same for a script that is no file; `name` is for error texts.
  void LoadText(const std::string& text, const std::string& name);

  /// The files read so far, in that order.
  const std::vector<std::string>& Files() const { return files_; }

 private:
  friend class ScriptParser;

  /// Where an @load leads to; empty for a script that is not the plug-in's.
  std::string Resolve(const std::string& target, const std::string& from) const;

  std::vector<std::string> search_path_;
  std::vector<std::string> files_;
  std::set<std::string> seen_;
};

}  // namespace standin
