// Reads the host's logs in JSON: an object a line, and no header. LogReader.h tells how it is used.
//
// Path
//   The field `_path`, else the file's name up to its first dot.
//
// Columns
//   `ts` is a time, as seconds, milliseconds or in the form of ISO 8601, and `uid` a string. For
//   the paths whose records become events of their own kind the columns that these have are known,
//   with their types; a column that a stock log has is unset where the object leaves it out, and
//   what an event does not hold is not a column. For other paths every record has its own further
//   columns, of type string. If a record has the plug-in's own columns, their types are those of
//   their first values. Fields of an object within the object are named as in `id.orig_h`.
//
// A line that is no object, is nested more deeply than a log is, or has a value that does not fit
// its column, is broken.
#pragma once

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "LogReader.h"

namespace zmqwriter {

class JsonLog : public LogReader {
 public:
  explicit JsonLog(std::unique_ptr<LineReader> lines);

  bool ReadHeader() override { return true; }
  Step Next() override;
  std::string Text(std::size_t column) const override;

 private:
  using Json = nlohmann::ordered_json;
  struct Layout {
    std::vector<Column> columns;
    std::vector<Column> more;  // these come to the columns when a record has them
  };
  /// A path, and whether its records have the plug-in's own columns.
  using LayoutKey = std::pair<std::string, bool>;

  Step ReadRecord();
  void Parse();
  void Flatten(const Json& object, const std::string& prefix);
  bool ChooseLayout();
  const Json* Find(const std::string& name) const;

  std::string default_path_;
  std::map<LayoutKey, Layout> layouts_;  // so far
  LayoutKey layout_key_;

  Json object_;
  std::vector<std::pair<std::string, const Json*>> fields_;  // of the object, flat
  // One for each column and extra name; null: unset.
  std::vector<const Json*> cells_;
};

}  // namespace zmqwriter
