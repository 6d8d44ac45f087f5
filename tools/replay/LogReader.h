// Reads the host's logs, record by record, as the values that the host passes to a writer.
//
//     const auto log = open_log("conn.log");   // throws LogError without a usable header
//     for (;;) {
//       switch (log->Next()) {
//         case LogReader::Step::kRecord: use(log->columns(), log->TakeValues()); break;
//         case LogReader::Step::kHeader: the columns or the path have changed; break;
//         case LogReader::Step::kBroken: report(log->problem()); break;
//         case LogReader::Step::kEnd: return;
//       }
//     }
//
// Values are those of a log writer: ports in host byte order without protocol, subnet lengths
//   relative to 128 bits with the host bits zero, IPv4 for addresses mapped into IPv6, strings
//   without terminator, enum, file and func texts with one that their length does not count, and
//   `present == false` over a zeroed union for unset values.
//
// Errors
//   A file that cannot be read or has no usable header at its start: LogError, from ReadHeader and,
//   for a read error later on, from Next. A broken line: Step::kBroken with "FILE:LINE: reason";
//   reading continues after it. A last line without line end is broken, because its last value may
//   be cut.
//
// One thread at a time. Memory holds the current line only.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "LineReader.h"
#include "LogValues.h"

namespace zmqwriter {

class LogReader {
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
    kEnd,     ///< the end of the file; not final while the file grows
  };

  explicit LogReader(std::unique_ptr<LineReader> lines) : lines_(std::move(lines)) {}
  virtual ~LogReader() = default;
  LogReader(const LogReader&) = delete;
  LogReader& operator=(const LogReader&) = delete;

  /// Reads what is before the first record; to be called before Next. False while a growing file
  /// does not hold all of it.
  virtual bool ReadHeader() = 0;
  virtual Step Next() = 0;

  /// The log's path, e.g. "conn".
  const std::string& path() const { return path_; }
  const std::vector<Column>& columns() const { return columns_; }
  /// Names of the strings that only the record just read has. Their numbers follow those of the
  /// columns; they have no values.
  const std::vector<std::string>& extra_names() const { return extra_names_; }

  /// The values of the record just read for the caller. To be called once a record.
  std::vector<ValuePtr> TakeValues() { return std::move(values_); }

  /// Whether a column of the record just read is unset. Valid until TakeValues.
  bool IsUnset(std::size_t column) const { return !values_.at(column)->present; }

  /// A column of the record just read as the host writes it, with the escapes undone and the
  /// elements of sets and vectors joined with a comma; empty strings, sets and vectors are "".
  /// An unset column is ""; an unset element is "-". Valid until the next call of Next.
  virtual std::string Text(std::size_t column) const = 0;

  /// "FILE:LINE: reason" after Step::kBroken.
  const std::string& problem() const { return problem_; }
  LineReader& lines() const { return *lines_; }

 protected:
  /// "FILE:LINE: reason".
  std::string AtLine(const std::string& reason) const;
  Step Broken(const std::string& reason);
  /// Why the current line cannot hold a record, whatever the form of the log; or "".
  std::string LineProblem() const;

  const std::unique_ptr<LineReader> lines_;
  std::string path_;
  std::vector<Column> columns_;
  std::vector<std::string> extra_names_;
  std::vector<ValuePtr> values_;

 private:
  std::string problem_;
};

/// The reader for the form that the log's first line shows: JSON, or else ASCII. It takes the
/// lines. Null, without taking them, while a growing file has no line.
std::unique_ptr<LogReader> make_reader(std::unique_ptr<LineReader>* lines);

/// Opens a log and reads its header. "-" is standard input.
std::unique_ptr<LogReader> open_log(const std::string& file);

}  // namespace zmqwriter
