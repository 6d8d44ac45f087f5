// Reads the host's ASCII logs: lines of columns after a header. LogReader.h tells how it is used.
//
// Header
//   The header lines `separator`, `set_separator`, `empty_field`, `unset_field`, `path`, `fields`
//   and `types`, with the meta prefix of the first line (usually "#"); other meta lines (`open`,
//   `close`, ...) are skipped. `fields` and `types` are required. The defaults of the others are a
//   tab, ",", "(empty)", "-" and, for the path, the file's name without folder and extension.
//   Separators may have several characters. A further header in the same file, as in concatenated
//   logs, replaces the one before. Lines end with LF or CRLF. NUL bytes
//   are ordinary bytes.
//
// In text, \xHH (two hexadecimal digits) stands for one byte and \\ for a backslash; any other
// backslash stands for itself, because older hosts did not escape it.
//
// After a broken header in the middle of a file every record is broken until the next good header.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "LogReader.h"

namespace zmqwriter {

class AsciiLog : public LogReader {
 public:
  explicit AsciiLog(std::unique_ptr<LineReader> lines) : LogReader(std::move(lines)) {}
  /// Opens `file` and reads its header.
  explicit AsciiLog(const std::string& file);

  bool ReadHeader() override;
  Step Next() override;
  std::string Text(std::size_t column) const override;

 private:
  struct Header {
    std::string prefix = "#";
    std::string separator = "\t";
    std::string set_separator = ",";
    // A log may hold the markers as the header gives them (escaped), or as plain bytes.
    std::string empty_text = "(empty)", empty_field = "(empty)";
    std::string unset_text = "-", unset_field = "-";
    std::string path;
    std::vector<std::string> names;
    std::vector<std::string> types;
  };

  bool ReadFirstLine();
  void ReadMetaLines();
  bool ReadLine();
  bool IsMeta() const;
  void TakeMetaLine();
  void StartHeader(std::string_view prefix, std::string_view separator);
  std::string UseHeader();
  Step ParseRecord();
  [[noreturn]] void Refuse(const std::string& reason) const;
  std::vector<std::string_view> Split(std::string_view text, std::string_view separator) const;
  bool IsUnsetMarker(std::string_view token) const;
  bool IsEmptyMarker(std::string_view token) const;
  ValuePtr ParseValue(std::string_view token, const Column& column) const;
  ValuePtr ParseAtomic(std::string_view token, TypeTag type) const;

  /// Whether header lines are the last that a growing file has.
  bool RestMayFollow() const { return lines_->growing() && !lines_->pending(); }

  std::string_view line_;  // the current line
  bool begun_ = false;     // the first line was read

  Header header_;
  bool header_changed_ = false;  // header lines were read since the last record
  bool header_usable_ = false;

  std::vector<std::string_view> tokens_;  // of the current record
};

}  // namespace zmqwriter
