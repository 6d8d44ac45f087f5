#include "RecordMapping.h"

#include <algorithm>
#include <cstring>

using threading::Value;

namespace zmqwriter {

namespace {

struct Protocol {
  const char* path;
  const char* ptype;
  const char* prefix;
};

constexpr Protocol kProtocols[] = {
    {"conn", "general", ""},   {"http", "http", "http."},      {"ftp", "ftp", "ftp."},
    {"smtp", "smtp", "smtp."}, {"ldap", "ldap", "ldap."},      {"smb", "smb", "smb."},
    {"tds", "tds", "tds."},    {"dce_rpc", "dce-rpc", "dce."}, {"tn5250", "tn5250", "tn5250."},
};

const Protocol* find_protocol(const std::string& path) {
  for (const Protocol& protocol : kProtocols) {
    if (path == protocol.path)
      return &protocol;
  }
  return nullptr;
}

bool keeps_name(const std::string& name) {
  return name == "ts" || name == "uid" || name.compare(0, 3, "id.") == 0;
}

/// Whether a column is kept as a column, and is not among the pairs.
bool is_envelope(const LogReader::Column& column) {
  return column.name == "uid" || (column.name == "ts" && column.type == TYPE_TIME);
}

std::string mapped_name(const Protocol& protocol, const std::string& name) {
  if (keeps_name(name))
    return name;
  const bool http_user = std::strcmp(protocol.ptype, "http") == 0 && name == "username";
  return protocol.prefix + (http_user ? "user" : name);
}

bool has_own_shape(const std::vector<LogReader::Column>& columns) {
  return std::any_of(columns.begin(), columns.end(),
                     [](const LogReader::Column& column) { return is_own_column(column.name); });
}

ValuePtr new_string(const std::string& text) {
  return text_value(TYPE_STRING, text);
}

}  // namespace

bool is_own_column(const std::string& name) {
  return name == "ptype" || name == "extra_fields" || name == "cpu_usage";
}

RecordMapping::RecordMapping(const std::string& path, const std::vector<LogReader::Column>& columns)
    : path_(path), columns_(columns), shape_(Shape::kPairs) {
  const Protocol* const protocol = find_protocol(path);
  if (has_own_shape(columns)) {
    shape_ = Shape::kAsIs;
    for (const LogReader::Column& column : columns)
      AddField(column.name, column.type, column.subtype);
  } else if (protocol) {
    shape_ = Shape::kProtocol;
    ptype_ = protocol->ptype;
    AddField("ptype", TYPE_STRING, TYPE_VOID);
    for (const LogReader::Column& column : columns)
      AddField(mapped_name(*protocol, column.name), column.type, column.subtype);
  } else {
    for (const LogReader::Column& column : columns) {
      if (is_envelope(column))
        AddField(column.name, column.type, column.subtype);
    }
    AddField("extra_fields", TYPE_VECTOR, TYPE_STRING);
    AddField("extra_vals", TYPE_VECTOR, TYPE_STRING);
  }
}

void RecordMapping::AddField(const std::string& name, TypeTag type, TypeTag subtype) {
  fields_.emplace_back(name.c_str(), nullptr, type, subtype, true);
  if (name != "uid")
    fields_without_uid_.push_back(fields_.back());
}

bool RecordMapping::LacksUid(const LogReader& log) const {
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    if (columns_[i].name == "uid" && log.IsUnset(i))
      return true;
  }
  return false;
}

Value** RecordMapping::Map(LogReader* log) const {
  const bool lacks_uid = LacksUid(*log);
  std::vector<ValuePtr> values;
  switch (shape_) {
    case Shape::kAsIs:
      values = log->TakeValues();
      break;
    case Shape::kProtocol:
      values = log->TakeValues();
      values.insert(values.begin(), new_string(ptype_));
      break;
    case Shape::kPairs:
      values = Pairs(log);
      break;
  }
  auto* const record = new Value*[values.size()];
  std::size_t size = 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (!lacks_uid || std::strcmp(fields_[i].name, "uid") != 0)
      record[size++] = values[i].release();
  }
  return record;
}

std::vector<ValuePtr> RecordMapping::Pairs(LogReader* log) const {
  std::vector<ValuePtr> keys;
  std::vector<ValuePtr> texts;
  keys.push_back(new_string("_path"));
  texts.push_back(new_string(path_));
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    if (is_envelope(columns_[i]) || log->IsUnset(i))
      continue;
    keys.push_back(new_string(columns_[i].name));
    texts.push_back(new_string(log->Text(i)));
  }
  for (std::size_t i = 0; i < log->extra_names().size(); ++i) {
    keys.push_back(new_string(log->extra_names()[i]));
    texts.push_back(new_string(log->Text(columns_.size() + i)));
  }

  std::vector<ValuePtr> values = log->TakeValues();
  std::vector<ValuePtr> record;
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    if (is_envelope(columns_[i]))
      record.push_back(std::move(values[i]));
  }
  record.push_back(container_value(TYPE_VECTOR, std::move(keys)));
  record.push_back(container_value(TYPE_VECTOR, std::move(texts)));
  return record;
}

}  // namespace zmqwriter
