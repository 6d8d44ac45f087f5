#include "JsonLog.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <sstream>

#include "RecordMapping.h"
#include "Text.h"

namespace zmqwriter {

namespace {

struct KnownLog {
  const char* path;
  const char* stock;  // columns that the host's own log has
  const char* more;   // columns that scripts may add
};

// What the payloads of src/ are made from.
constexpr KnownLog kKnownLogs[] = {
    {"conn",
     "id.orig_h:addr id.orig_p:port id.resp_h:addr id.resp_p:port proto:enum service:string "
     "duration:interval orig_bytes:count resp_bytes:count conn_state:string local_orig:bool "
     "local_resp:bool missed_bytes:count orig_pkts:count orig_ip_bytes:count resp_pkts:count "
     "resp_ip_bytes:count",
     "username:string process:string"},
    {"http",
     "method:string host:string uri:string request_body_len:count response_body_len:count "
     "status_code:count username:string",
     ""},
    {"ftp", "user:string command:string arg:string file_size:count reply_code:count", ""},
    {"smtp", "from:string to:set[string] subject:string", "reqSize:count"},
    {"ldap", "", "user:string message:string resultCode:count base:string"},
    {"smb", "", "user:string share:string filename:string action:string filesize:count"},
    {"tds", "", "user:string database:string app:string sql:string"},
    {"dce_rpc", "",
     "request_type:string interface_uuid:string interface_name:string opnum:count method:string "
     "arguments:string raw_args:string"},
    {"tn5250", "", "protocol:string details:string"},
    {"system_stats",
     "cpu_usage:double priority:int ph_mem_total:count ph_mem_used:count virt_mem_total:count "
     "virt_mem_used:count hdd_volume:double hdd_used:double hdd_avail:double",
     ""},
};

// A time in whole numbers beyond this, in the year 5138, is in milliseconds.
constexpr double kMostSeconds = 1e11;
// Each layout of each path has a writer, which is a thread.
constexpr std::size_t kMostPaths = 256;
constexpr std::size_t kMostOwnColumns = 64;
constexpr int kMostLevels = 8;
constexpr std::size_t kMostFields = 1000;

using Json = nlohmann::ordered_json;
using Column = LogReader::Column;

const KnownLog* find_known(const std::string& path) {
  for (const KnownLog& log : kKnownLogs) {
    if (path == log.path)
      return &log;
  }
  return nullptr;
}

std::vector<Column> columns_in(const std::string& list) {
  std::vector<Column> columns;
  std::istringstream words(list);
  for (std::string word; words >> word;) {
    const auto colon = word.find(':');
    Column column{word.substr(0, colon), TYPE_ERROR, TYPE_VOID};
    parse_type(word.substr(colon + 1), &column.type, &column.subtype);
    columns.push_back(column);
  }
  return columns;
}

/// The type that a value shows.
Column shown_type(const std::string& name, const Json& value) {
  switch (value.type()) {
    case Json::value_t::boolean:
      return {name, TYPE_BOOL, TYPE_VOID};
    case Json::value_t::number_unsigned:
      return {name, TYPE_COUNT, TYPE_VOID};
    case Json::value_t::number_integer:
      return {name, TYPE_INT, TYPE_VOID};
    case Json::value_t::number_float:
      return {name, TYPE_DOUBLE, TYPE_VOID};
    case Json::value_t::array:
      return {name, TYPE_VECTOR, TYPE_STRING};
    default:
      return {name, TYPE_STRING, TYPE_VOID};
  }
}

bool has_column(const std::vector<Column>& columns, const std::string& name) {
  return std::any_of(columns.begin(), columns.end(),
                     [&](const Column& column) { return column.name == name; });
}

/// The host writes each byte of a text that is not ASCII as \\u00hh. Puts the bytes in place of
/// that where they are a character of UTF-8.
std::string undo_byte_escapes(std::string_view line) {
  if (line.find("\\u00") == std::string_view::npos)
    return std::string(line);
  std::string result, bytes;
  const auto end_run = [&result, &bytes] {
    for (std::size_t i = 0, size; i < bytes.size(); i += size) {
      size = std::max<std::size_t>(
          utf8_length(reinterpret_cast<const unsigned char*>(&bytes[i]), bytes.size() - i), 1);
      result += size > 1 ? bytes.substr(i, size) : "\\u00" + hex_digits(&bytes[i], 1);
    }
    bytes.clear();
  };
  for (std::size_t i = 0; i < line.size();) {
    const std::string_view digits = line.substr(std::min(i + 4, line.size()), 2);
    unsigned byte = 0;
    if (line.substr(i, 4) == "\\u00" && digits.size() == 2 &&
        std::from_chars(digits.data(), digits.data() + 2, byte, 16).ptr == digits.data() + 2 &&
        byte >= 0x80) {
      bytes += static_cast<char>(byte);
      i += 6;
      continue;
    }
    end_run();
    const std::size_t size = line[i] == '\\' ? 2 : 1;
    result += line.substr(i, size);
    i += size;
  }
  end_run();
  return result;
}

/// As the host's ASCII logs have it.
std::string text_of(const Json& value) {
  if (value.is_string())
    return value.get_ref<const std::string&>();
  if (value.is_boolean())
    return value.get<bool>() ? "T" : "F";
  if (value.is_null())
    return "-";
  if (!value.is_array())
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
  std::string text;
  for (const Json& element : value)
    text += (&element == &value.front() ? "" : ",") + text_of(element);
  return text;
}

ValuePtr atomic_value(TypeTag type, const Json& value) {
  if (value.is_null())
    return unset_value(type);
  if (is_text(type))
    return text_value(type, text_of(value));
  if (value.is_structured())
    throw BadValue("a list or an object is not a single value");
  if (type == TYPE_TIME && value.is_string()) {
    const std::string text = text_of(value);
    const auto seconds = text.find(':') == std::string::npos ? std::nullopt : time_in(text, false);
    if (!seconds)
      throw BadValue(in_quotes(text) + " is not a time in the form of ISO 8601");
    auto time = std::make_unique<threading::Value>(TYPE_TIME, true);
    time->val.double_val = *seconds;
    return time;
  }
  ValuePtr number = plain_value(type, text_of(value));
  if (type == TYPE_TIME && value.is_number_integer() && number->val.double_val > kMostSeconds)
    number->val.double_val /= 1000;
  return number;
}

ValuePtr make_value(const Column& column, const Json* value) {
  if (!value)
    return unset_value(column.type);
  if (!is_container(column.type))
    return atomic_value(column.type, *value);
  std::vector<ValuePtr> elements;
  if (!value->is_array())
    elements.push_back(atomic_value(column.subtype, *value));
  else
    for (const Json& element : *value)
      elements.push_back(atomic_value(column.subtype, element));
  return container_value(column.type, std::move(elements));
}

}  // namespace

JsonLog::JsonLog(std::unique_ptr<LineReader> lines) : LogReader(std::move(lines)) {
  const std::string name = std::filesystem::path(lines_->name()).filename().string();
  if (lines_->name() != LineReader::kStandardInput)
    default_path_ = name.substr(0, name.find('.'));
  path_ = default_path_;
  columns_ = columns_in("ts:time uid:string");
}

LogReader::Step JsonLog::Next() {
  values_.clear();
  while (lines_->Next()) {
    if (!lines_->skipping())
      return ReadRecord();
  }
  return Step::kEnd;
}

LogReader::Step JsonLog::ReadRecord() {
  if (const std::string problem = LineProblem(); !problem.empty())
    return Broken(problem);
  try {
    Parse();
    if (ChooseLayout()) {
      lines_->PutBack();
      return Step::kHeader;
    }
    cells_.clear();
    for (const Column& column : columns_) {
      cells_.push_back(Find(column.name));
      try {
        values_.push_back(make_value(column, cells_.back()));
      } catch (const BadValue& error) {
        throw BadValue("column '" + column.name + "': " + error.what());
      }
    }
    for (const std::string& name : extra_names_)
      cells_.push_back(Find(name));
  } catch (const BadValue& error) {
    values_.clear();
    return Broken(error.what());
  }
  return Step::kRecord;
}

/// Reads the line into fields_.
void JsonLog::Parse() {
  std::size_t fields = 0;
  const auto check = [&fields](int depth, Json::parse_event_t event, Json&) {
    if (depth > kMostLevels)
      throw BadValue("nested in more than " + std::to_string(kMostLevels) + " levels");
    fields += event == Json::parse_event_t::key;
    if (fields > kMostFields)
      throw BadValue("more than " + std::to_string(kMostFields) + " fields");
    return true;
  };
  try {
    object_ = Json::parse(undo_byte_escapes(lines_->line()), check);
  } catch (const Json::parse_error& error) {
    throw BadValue("not a JSON object: wrong at byte " + std::to_string(error.byte));
  } catch (const Json::out_of_range&) {
    throw BadValue("a number is out of range for a double");
  }
  if (!object_.is_object())
    throw BadValue("not a JSON object");
  fields_.clear();
  Flatten(object_, "");
}

void JsonLog::Flatten(const Json& object, const std::string& prefix) {
  for (const auto& [name, value] : object.items()) {
    if (name.find('\0') != std::string::npos)
      throw BadValue("a field's name holds NUL");
    if (value.is_object())
      Flatten(value, prefix + name + ".");
    else if (!value.is_null())
      fields_.emplace_back(prefix + name, &value);
  }
}

const JsonLog::Json* JsonLog::Find(const std::string& name) const {
  const auto found = std::find_if(fields_.begin(), fields_.end(),
                                  [&](const auto& field) { return field.first == name; });
  return found == fields_.end() ? nullptr : found->second;
}

/// Sets path_ and columns_ for the record in fields_; returns whether its writer is another one.
bool JsonLog::ChooseLayout() {
  const Json* const path = Find("_path");
  const std::string name = path ? text_of(*path) : default_path_;
  if (name.empty() || name.find('\0') != std::string::npos)
    throw BadValue("no field _path tells which log it is of");
  const KnownLog* const known = find_known(name);
  const bool own = !known && std::any_of(fields_.begin(), fields_.end(), [](const auto& field) {
    return is_own_column(field.first);
  });
  const LayoutKey key(name, own);
  if (layouts_.size() == kMostPaths && layouts_.count(key) == 0)
    throw BadValue("of more than " + std::to_string(kMostPaths) + " paths in one file");

  const auto [entry, is_new] = layouts_.try_emplace(key);
  Layout& layout = entry->second;
  if (is_new) {
    layout.columns = columns_in(std::string("ts:time uid:string ") + (known ? known->stock : ""));
    layout.more = columns_in(known ? known->more : "");
  }
  const std::size_t columns_before = layout.columns.size();
  for (const auto& [field, value] : fields_) {
    if (has_column(layout.columns, field))
      continue;
    if (own && layout.columns.size() < kMostOwnColumns && field != "_path")
      layout.columns.push_back(shown_type(field, *value));
    for (const Column& column : layout.more)
      if (column.name == field)
        layout.columns.push_back(column);
  }
  const bool other = is_new || key != layout_key_ || layout.columns.size() != columns_before;
  path_ = name;
  layout_key_ = key;
  columns_ = layout.columns;
  extra_names_.clear();
  for (const auto& field : fields_)
    if (!known && !own && field.first != "_path" && !has_column(columns_, field.first))
      extra_names_.push_back(field.first);
  return other;
}

std::string JsonLog::Text(std::size_t column) const {
  return cells_.at(column) ? text_of(*cells_[column]) : "";
}

}  // namespace zmqwriter
