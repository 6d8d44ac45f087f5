// Maps the records of the host's logs to the columns that the plug-in reads.
//
// The plug-in tells protocols apart by the column `ptype`, and reads columns with prefixed names.
// The host's own logs have neither. The mapping is the same as that of the plug-in's scripts in the
// host:
//
//   - Of a protocol's log, its path gives the ptype and the prefix of its columns (kProtocols).
//   - `ts`, `uid` and `id.*` keep their names everywhere.
//   - Of any other log, the columns but ts and uid become pairs in extra_fields and extra_vals.
//   - A column uid without a value is left out of its record, whatever the path: the plug-in would
//     report it for every record. So there are records with and without that column.
//   - The first pair is _path with the log's path. Values are the host's own text with escapes
//     undone and elements joined with a comma. Unset columns, uid and a ts of type time are not
//     among the pairs. Such a record has no ptype: an unknown one would cost a warning for each
//     record.
//   - A log that has the plug-in's own columns already, which one named ptype, extra_fields or
//     cpu_usage shows, is passed on unchanged.
//
// A mapping does not change after construction.
#pragma once

#include <string>
#include <vector>

#include "LogReader.h"

namespace zmqwriter {

/// Whether a column of that name shows that a log has the plug-in's own columns.
bool is_own_column(const std::string& name);

class RecordMapping {
 public:
  RecordMapping(const std::string& path, const std::vector<LogReader::Column>& columns);

  /// The columns of a mapped record.
  const std::vector<threading::Field>& fields() const { return fields_; }
  /// The columns of a mapped record that lacks a uid.
  const std::vector<threading::Field>& fields_without_uid() const { return fields_without_uid_; }

  /// Whether the record that `log` has just read has a column uid without a value.
  bool LacksUid(const LogReader& log) const;

  /// The record that `log` has just read, whose values are taken: a new[] array of new values, as
  /// WriterFrontend::Write takes them over, one for each of fields(), or of fields_without_uid() if
  /// the record lacks a uid.
  threading::Value** Map(LogReader* log) const;

 private:
  enum class Shape { kAsIs, kProtocol, kPairs };

  void AddField(const std::string& name, TypeTag type, TypeTag subtype);
  std::vector<ValuePtr> Pairs(LogReader* log) const;

  std::string path_;
  std::vector<LogReader::Column> columns_;
  Shape shape_;
  std::string ptype_;
  std::vector<threading::Field> fields_;
  std::vector<threading::Field> fields_without_uid_;
};

}  // namespace zmqwriter
