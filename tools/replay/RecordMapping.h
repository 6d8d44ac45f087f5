// What a record of one of the host's logs looks like to the plug-in.
//
// The plug-in knows its protocols by the column `ptype` and its columns by prefixed names; the
// host's own logs have neither. The mapping is the one that the plug-in's scripts do inside the
// host:
//
//   log's path     ptype     columns
//   conn           general   as they are
//   http           http      http.*, with `username` as http.user
//   ftp            ftp       ftp.*
//   smtp           smtp      smtp.*
//   ldap           ldap      ldap.*
//   smb            smb       smb.*
//   tds            tds       tds.*
//   dce_rpc        dce-rpc   dce.*
//   tn5250         tn5250    tn5250.*
//   any other      none      ts, uid, and the rest as pairs in extra_fields and extra_vals
//
//   - `ts`, `uid` and `id.*` keep their names everywhere.
//   - A column uid without a value is left out of its record, whatever the path: the plug-in would
//     report it for every record. So there are records with and without that column.
//   - Beside the pairs, ts is of type time; a column ts of another type is a pair like others.
//   - The first pair is _path with the log's path. Values are the host's own text, escapes undone,
//     elements joined with a comma; unset columns, ts and uid are no pairs. Such a record has no
//     ptype: a name that the plug-in does not know would cost one warning for every record.
//   - A log that has the plug-in's own shape already, which shows in a column named ptype,
//     extra_fields or cpu_usage, is passed on as it is.
//
// A mapping does not change after construction.
#pragma once

#include <string>
#include <vector>

#include "AsciiLog.h"

namespace zmqwriter {

class RecordMapping {
 public:
  RecordMapping(const std::string& path, const std::vector<AsciiLog::Column>& columns);

  /// The columns of a mapped record.
  const std::vector<threading::Field>& fields() const { return fields_; }
  /// The columns of a mapped record that lacks a uid.
  const std::vector<threading::Field>& fields_without_uid() const { return fields_without_uid_; }

  /// Whether the record that `log` has just read has a column uid without a value.
  bool LacksUid(const AsciiLog& log) const;

  /// The record that `log` has just read, whose values are taken: a new[] array of new values, as
  /// WriterFrontend::Write takes them over, one for each of fields(), or of fields_without_uid() if
  /// the record lacks a uid.
  threading::Value** Map(AsciiLog* log) const;

 private:
  enum class Shape { kAsIs, kProtocol, kPairs };

  void AddField(const std::string& name, TypeTag type, TypeTag subtype);
  std::vector<ValuePtr> Pairs(AsciiLog* log) const;

  std::string path_;
  std::vector<AsciiLog::Column> columns_;
  Shape shape_;
  std::string ptype_;
  std::vector<threading::Field> fields_;
  std::vector<threading::Field> fields_without_uid_;
};

}  // namespace zmqwriter
