#include "AsciiLog.h"

#include <charconv>
#include <filesystem>

namespace zmqwriter {

namespace {

/// Whether there is \xHH at `i`; sets `byte`.
bool hex_escape_at(std::string_view text, std::size_t i, char* byte) {
  if (i + 3 >= text.size() || text[i] != '\\' || text[i + 1] != 'x')
    return false;
  unsigned char value = 0;
  const char* const digits = text.data() + i + 2;
  const bool both = std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2;
  *byte = static_cast<char>(value);
  return both;
}

/// Undoes the escapes. Header lines, unlike records, do not escape backslashes.
std::string unescape(std::string_view text, bool in_header) {
  std::string plain;
  plain.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char byte;
    if (hex_escape_at(text, i, &byte)) {
      plain += byte;
      i += 3;
    } else {
      plain += text[i];
      if (!in_header && text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '\\')
        ++i;
    }
  }
  return plain;
}

std::string default_path(const std::string& file) {
  return std::filesystem::path(file).stem().string();
}

}  // namespace

AsciiLog::AsciiLog(const std::string& file) : AsciiLog(std::make_unique<LineReader>(file)) {
  ReadHeader();
}

void AsciiLog::Refuse(const std::string& reason) const {
  throw LogError(AtLine(reason));
}

/// Reads the next line into line_; false at the end of the file.
bool AsciiLog::ReadLine() {
  if (!lines_->Next())
    return false;
  line_ = lines_->line();
  // Inside a record a carriage return is always escaped, so this one belongs to the line end.
  if (lines_->complete() && !line_.empty() && line_.back() == '\r')
    line_.remove_suffix(1);
  return true;
}

bool AsciiLog::IsMeta() const {
  return line_.compare(0, header_.prefix.size(), header_.prefix) == 0;
}

bool AsciiLog::ReadHeader() {
  if (!begun_ && !ReadFirstLine())
    return false;
  ReadMetaLines();
  if (RestMayFollow())
    return false;
  const std::string problem = UseHeader();
  if (!problem.empty())
    Refuse("file without a usable header: " + problem);
  return true;
}

bool AsciiLog::ReadFirstLine() {
  constexpr std::string_view kFirst = "separator ";
  if (!ReadLine()) {
    if (lines_->growing())
      return false;
    throw LogError(lines_->name() + ": file without header: it is empty");
  }
  if (lines_->too_long())
    Refuse("file without header: " + LineProblem());
  // Some editors begin a UTF-8 file with a byte order mark.
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  if (line_.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0)
    line_.remove_prefix(kByteOrderMark.size());
  // The meta prefix is the part of the first line before its first word.
  const auto word = line_.find(kFirst);
  if (word != std::string_view::npos && word > 0 && word <= 16)
    StartHeader(line_.substr(0, word), line_.substr(word + kFirst.size()));
  else if (IsMeta())
    TakeMetaLine();
  else
    Refuse(
        "file without header: a log begins with '#separator', '#fields' and '#types' lines, or "
        "with a JSON object");
  begun_ = true;
  return true;
}

/// Takes the meta lines up to the next record, which then is put back, or up to the end.
void AsciiLog::ReadMetaLines() {
  while (!lines_->pending() && ReadLine()) {
    if (IsMeta())
      TakeMetaLine();
    else if (!lines_->skipping())
      lines_->PutBack();
  }
}

/// A `separator` line begins a new header, from the defaults.
void AsciiLog::StartHeader(std::string_view prefix, std::string_view separator) {
  Header fresh;
  fresh.prefix = prefix;
  fresh.separator = unescape(separator, true);
  header_ = fresh;
  header_changed_ = true;
}

void AsciiLog::TakeMetaLine() {
  const std::string_view text = line_.substr(header_.prefix.size());
  constexpr std::string_view kSeparator = "separator ";
  if (text.compare(0, kSeparator.size(), kSeparator) == 0) {
    StartHeader(header_.prefix, text.substr(kSeparator.size()));
    return;
  }
  const auto words = Split(text, header_.separator);
  const std::string_view name = words.front();
  const std::string_view value =
      words.size() > 1 ? text.substr(name.size() + header_.separator.size()) : std::string_view();
  if (name == "set_separator") {
    header_.set_separator = unescape(value, true);
  } else if (name == "empty_field") {
    header_.empty_text = value;
    header_.empty_field = unescape(value, true);
  } else if (name == "unset_field") {
    header_.unset_text = value;
    header_.unset_field = unescape(value, true);
  } else if (name == "path") {
    header_.path = unescape(value, true);
  } else if (name == "fields") {
    header_.names.clear();
    for (std::size_t i = 1; i < words.size(); ++i)
      header_.names.push_back(unescape(words[i], true));
  } else if (name == "types") {
    header_.types.assign(words.begin() + 1, words.end());
  } else {
    return;
  }
  header_changed_ = true;
}

/// Makes the header lines read so far the header in use; returns what is wrong with them, or "".
std::string AsciiLog::UseHeader() {
  header_changed_ = false;
  header_usable_ = false;
  if (header_.separator.empty() || header_.separator.find('\n') != std::string::npos)
    return "the separator is empty or holds a line end";
  if (header_.names.empty() || header_.types.empty())
    return "there must be a '" + header_.prefix + "fields' and a '" + header_.prefix +
           "types' line with at least one column";
  if (header_.names.size() != header_.types.size())
    return std::to_string(header_.names.size()) + " fields but " +
           std::to_string(header_.types.size()) + " types";

  std::vector<Column> columns;
  for (std::size_t i = 0; i < header_.names.size(); ++i) {
    Column column{header_.names[i], TYPE_ERROR, TYPE_VOID};
    if (column.name.empty() || column.name.find('\0') != std::string::npos)
      return "column " + std::to_string(i + 1) + " has no usable name";
    if (!parse_type(header_.types[i], &column.type, &column.subtype))
      return "column '" + column.name + "' has the unknown type " + in_quotes(header_.types[i]);
    if (is_container(column.type) && header_.set_separator.empty())
      return "column '" + column.name + "' is a " + header_.types[i] +
             ", but the set separator is empty";
    columns.push_back(column);
  }
  path_ = header_.path.empty() ? default_path(lines_->name()) : header_.path;
  columns_ = columns;
  header_usable_ = true;
  return "";
}

AsciiLog::Step AsciiLog::Next() {
  values_.clear();
  tokens_.clear();
  ReadMetaLines();
  if (header_changed_ && !RestMayFollow()) {
    // The header is complete: a record follows, which waits, or the end of the file.
    const std::string problem = UseHeader();
    return problem.empty() ? Step::kHeader : Broken("unusable header: " + problem);
  }
  if (!lines_->pending())
    return Step::kEnd;
  ReadLine();
  return ParseRecord();
}

AsciiLog::Step AsciiLog::ParseRecord() {
  if (!header_usable_)
    return Broken("no record can be read after an unusable header");
  if (const std::string problem = LineProblem(); !problem.empty())
    return Broken(problem);
  tokens_ = Split(line_, header_.separator);
  if (tokens_.size() != columns_.size())
    return Broken(std::to_string(tokens_.size()) + " columns instead of " +
                  std::to_string(columns_.size()));
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    try {
      values_.push_back(ParseValue(tokens_[i], columns_[i]));
    } catch (const BadValue& error) {
      values_.clear();
      return Broken("column '" + columns_[i].name + "': " + error.what());
    }
  }
  return Step::kRecord;
}

std::vector<std::string_view> AsciiLog::Split(std::string_view text,
                                              std::string_view separator) const {
  std::vector<std::string_view> pieces;
  for (;;) {
    // An empty separator, which only a broken header gives, splits nothing.
    const auto end = separator.empty() ? std::string_view::npos : text.find(separator);
    pieces.push_back(text.substr(0, end));
    if (end == std::string_view::npos)
      return pieces;
    text.remove_prefix(end + separator.size());
  }
}

bool AsciiLog::IsUnsetMarker(std::string_view token) const {
  return token == header_.unset_field || token == header_.unset_text;
}

bool AsciiLog::IsEmptyMarker(std::string_view token) const {
  return token == header_.empty_field || token == header_.empty_text;
}

std::string AsciiLog::Text(std::size_t column) const {
  const std::string_view token = tokens_.at(column);
  const Column& type = columns_.at(column);
  if (IsUnsetMarker(token))
    return "";
  if (!is_container(type.type))
    return is_text(type.type) && IsEmptyMarker(token) ? "" : unescape(token, false);
  if (IsEmptyMarker(token))
    return "";

  std::string text;
  bool first = true;
  for (const std::string_view element : Split(token, header_.set_separator)) {
    if (!first)
      text += ',';
    first = false;
    if (IsUnsetMarker(element))
      text += '-';
    else if (!is_text(type.subtype) || !IsEmptyMarker(element))
      text += unescape(element, false);
  }
  return text;
}

ValuePtr AsciiLog::ParseValue(std::string_view token, const Column& column) const {
  if (IsUnsetMarker(token))
    return unset_value(column.type);
  if (!is_container(column.type))
    return ParseAtomic(token, column.type);
  std::vector<ValuePtr> elements;
  if (!IsEmptyMarker(token)) {
    for (const std::string_view element : Split(token, header_.set_separator)) {
      elements.push_back(IsUnsetMarker(element) ? unset_value(column.subtype)
                                                : ParseAtomic(element, column.subtype));
    }
  }
  return container_value(column.type, std::move(elements));
}

ValuePtr AsciiLog::ParseAtomic(std::string_view token, TypeTag type) const {
  if (is_text(type))
    return text_value(type, IsEmptyMarker(token) ? "" : unescape(token, false));
  return plain_value(type, token);
}

}  // namespace zmqwriter
