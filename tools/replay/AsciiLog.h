// Reads the host's ASCII logs, record by record, as the values that the host passes to a writer.
//
//     AsciiLog log("conn.log");            // throws AsciiLogError without a usable header
//     for (;;) {
//       switch (log.Next()) {
//         case AsciiLog::Step::kRecord: use(log.columns(), log.TakeValues()); break;
//         case AsciiLog::Step::kHeader: the columns or the path have changed; break;
//         case AsciiLog::Step::kBroken: report(log.problem()); break;
//         case AsciiLog::Step::kEnd: return;
//       }
//     }
//
// Header
//   The header lines `separator`, `set_separator`, `empty_field`, `unset_field`, `path`, `fields`
//   and `types`, with the meta prefix of the first line (usually "#"); other meta lines (`open`,
//   `close`, ...) are skipped. `fields` and `types` are required. The defaults of the others are a
//   tab, ",", "(empty)", "-" and, for the path, the file's name without folder and extension.
//   Separators may have several characters. A further header in the same file, as in concatenated
//   logs, replaces the one before. Lines end with LF or CRLF and have any length. NUL bytes are
//   ordinary bytes.
//
// Values are those of a log writer: ports in host byte order without protocol, subnet lengths
//   relative to 128 bits with the host bits zero, IPv4 for addresses mapped into IPv6, strings
//   without terminator, enum, file and func texts with one that their length does not count, and
//   `present == false` over a zeroed union for unset values. In text, \xHH (two hexadecimal
//   digits) stands for one byte and \\ for a backslash; any other backslash stands for itself,
//   because older hosts did not escape it.
//
// Errors
//   A file that cannot be read or has no usable header at its start: AsciiLogError, from the
//   constructor (from Next for a read error later on). A broken line: Step::kBroken with
//   "FILE:LINE: reason"; reading continues after it. A last line without line end is broken,
//   because its last value may be cut. After a broken header in the middle of a file every record
//   is broken until the next good header.
//
// One thread at a time. Memory holds the current line only.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "threading/SerialTypes.h"

namespace zmqwriter {

class AsciiLogError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Deletes a value as the host does, with its strings and elements.
using ValuePtr = std::unique_ptr<threading::Value>;

class AsciiLog {
 public:
  struct Column {
    std::string name;
    TypeTag type;
    TypeTag subtype;  ///< element type of sets and vectors, else TYPE_VOID

    bool operator==(const Column& other) const {
      return name == other.name && type == other.type && subtype == other.subtype;
    }
  };

  enum class Step {
    kRecord,  ///< a record was read: TakeValues, Text
    kHeader,  ///< another header was read: path() and columns() are new
    kBroken,  ///< a line was skipped: problem()
    kEnd,     ///< the end of the file
  };

  /// Opens `file` and reads its header.
  explicit AsciiLog(const std::string& file);
  /// Reads from `stream`, and closes it; `name` is used in messages.
  AsciiLog(std::FILE* stream, const std::string& name);

  const std::string& file() const { return file_; }
  /// The log's path, e.g. "conn".
  const std::string& path() const { return path_; }
  const std::vector<Column>& columns() const { return columns_; }

  Step Next();

  /// The values of the record just read, one per column, for the caller. To be called once a
  /// record.
  std::vector<ValuePtr> TakeValues();

  /// Whether a column of the record just read is unset. Valid until the next call of Next.
  bool IsUnset(std::size_t column) const;

  /// A column of the record just read as the host wrote it, with the escapes undone and the
  /// elements of sets and vectors joined with a comma; empty strings, sets and vectors are "".
  /// An unset column is ""; an unset element is "-". Valid until the next call of Next.
  std::string Text(std::size_t column) const;

  /// "FILE:LINE: reason" after Step::kBroken.
  const std::string& problem() const { return problem_; }

  /// Bytes read so far, for the progress.
  std::uint64_t bytes_read() const { return bytes_read_; }

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

  void ReadFirstHeader();
  void ReadMetaLines();
  bool ReadLine();
  bool IsMeta() const;
  void TakeMetaLine();
  void StartHeader(std::string_view prefix, std::string_view separator);
  std::string UseHeader();
  Step ParseRecord();
  Step Broken(const std::string& reason);
  [[noreturn]] void Refuse(const std::string& reason) const;
  std::vector<std::string_view> Split(std::string_view text, std::string_view separator) const;
  bool IsUnsetMarker(std::string_view token) const;
  bool IsEmptyMarker(std::string_view token) const;
  ValuePtr ParseValue(std::string_view token, const Column& column) const;
  ValuePtr ParseContainer(std::string_view token, const Column& column) const;
  ValuePtr ParseAtomic(std::string_view token, TypeTag type) const;

  std::string file_;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream_;
  std::unique_ptr<char, void (*)(void*)> buffer_{nullptr, std::free};  // of getline
  std::size_t buffer_size_ = 0;
  std::string_view line_;  // the current line without its end, inside buffer_
  bool line_complete_ = false;
  bool line_pending_ = false;  // the line was read but not parsed yet
  std::uint64_t line_number_ = 0;
  std::uint64_t bytes_read_ = 0;

  Header header_;
  bool header_changed_ = false;  // header lines were read since the last record
  bool header_usable_ = false;
  std::string path_;
  std::vector<Column> columns_;

  std::vector<std::string_view> tokens_;  // of the current record
  std::vector<ValuePtr> values_;
  std::string problem_;
};

}  // namespace zmqwriter
