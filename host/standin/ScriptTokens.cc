#include "ScriptTokens.h"

#include <ctype.h>
#include <string.h>

#include <algorithm>

#include "standin/Host.h"

namespace standin {

namespace {

bool is_word_char(char c) {
  return isalnum(static_cast<unsigned char>(c)) || c == '_';
}

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f';
}

int hex_digit(char c) {
  const char* digits = "0123456789abcdef";
  const char* found = c ? strchr(digits, tolower(static_cast<unsigned char>(c))) : nullptr;
  return found ? static_cast<int>(found - digits) : -1;
}

}  // namespace

ScriptTokens::ScriptTokens(const std::string& text, const std::string& name)
    : text_(text), name_(name), at_(0), line_(1), next_{ScriptToken::kSymbol, ";", 1} {
  Advance();
}

ScriptToken ScriptTokens::Take() {
  ScriptToken token = next_;
  Advance();
  return token;
}

void ScriptTokens::Fail(int line, const std::string& what) const {
  throw HostError(name_ + ":" + std::to_string(line) + ": " + what);
}

void ScriptTokens::Advance() {
  next_ = Scan();
}

void ScriptTokens::SkipBlanks() {
  while (More()) {
    if (text_[at_] == '#')
      while (More() && text_[at_] != '\n')
        ++at_;
    if (!More() || !is_blank(text_[at_]))
      return;
    line_ += text_[at_] == '\n';
    ++at_;
  }
}

ScriptToken ScriptTokens::Scan() {
  SkipBlanks();
  const int line = line_;
  if (!More())
    return {ScriptToken::kEnd, "", line};
  const char c = text_[at_];
  if (c == '"')
    return {ScriptToken::kString, ScanString(), line};
  if (c == '@')
    return {ScriptToken::kDirective, RestOfLine(), line};
  if (is_word_char(c))
    return {ScriptToken::kWord, ScanWord(), line};
  ++at_;
  if (c == '&' && More() && isalpha(static_cast<unsigned char>(text_[at_])))
    return {ScriptToken::kAttribute, "&" + ScanWord(), line};
  return {ScriptToken::kSymbol, std::string(1, c), line};
}

std::string ScriptTokens::ScanString() {
  const int line = line_;
  std::string content;
  for (++at_; More() && text_[at_] != '"' && text_[at_] != '\n';)
    content += text_[at_] == '\\' && More(1) ? ScanEscape() : text_[at_++];
  if (!More() || text_[at_] != '"')
    Fail(line, "the string that begins here does not end on this line");
  ++at_;
  return content;
}

// At the backslash of an escape; moves behind it.
char ScriptTokens::ScanEscape() {
  const char c = text_[at_ + 1];
  at_ += 2;
  if (c == 'x' && More() && hex_digit(text_[at_]) >= 0) {
    int byte = hex_digit(text_[at_++]);
    if (More() && hex_digit(text_[at_]) >= 0)
      byte = byte * 16 + hex_digit(text_[at_++]);
    return static_cast<char>(byte);
  }
  if (c >= '0' && c <= '7') {
    int byte = c - '0';
    for (int i = 0; i < 2 && More() && text_[at_] >= '0' && text_[at_] <= '7'; ++i)
      byte = byte * 8 + (text_[at_++] - '0');
    return static_cast<char>(byte);
  }
  static const char names[] = "ntvbrfa";
  static const char bytes[] = "\n\t\v\b\r\f\a";
  const char* found = strchr(names, c);
  return found ? bytes[found - names] : c;
}

// Words may hold "::" (module names) and "." (numbers, addresses).
std::string ScriptTokens::ScanWord() {
  const size_t begin = at_;
  const bool number = isdigit(static_cast<unsigned char>(text_[at_]));
  while (More()) {
    if (is_word_char(text_[at_]) || (number && text_[at_] == '.'))
      ++at_;
    else if (text_[at_] == ':' && More(2) && text_[at_ + 1] == ':' && is_word_char(text_[at_ + 2]))
      at_ += 2;
    else
      break;
  }
  return text_.substr(begin, at_ - begin);
}

std::string ScriptTokens::RestOfLine() {
  const size_t begin = at_;
  while (More() && text_[at_] != '\n')
    ++at_;
  std::string line = text_.substr(begin, at_ - begin);
  line.erase(std::min(line.find('#'), line.size()));
  line.erase(line.find_last_not_of(" \t\r\f") + 1);
  return line;
}

}  // namespace standin
