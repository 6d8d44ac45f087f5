// The words of a Bro script.
#pragma once

#include <string>

namespace standin {

struct ScriptToken {
  enum Kind {
    kEnd,
    kWord,       // identifiers with their ::, keywords, numbers and what sticks to them
    kString,     // text: the content with its escapes undone
    kDirective,  // @load ...: text is the whole line
    kAttribute,  // &redef: text with the &
    kSymbol      // one character; ":" "=" "{" ...
  };

  Kind kind;
  std::string text;
  int line;

  bool is(const char* symbol_or_word) const {
    return (kind == kSymbol || kind == kWord || kind == kAttribute) && text == symbol_or_word;
  }
};

/// Splits a script into tokens. Comments and blanks vanish. Throws HostError ("NAME:LINE: ...")
/// for a string that does not end.
class ScriptTokens {
 public:
  ScriptTokens(const std::string& text, const std::string& name);

  /// The token that is next, without taking it.
  const ScriptToken& Peek() const { return next_; }
  ScriptToken Take();

  [[noreturn]] void Fail(int line, const std::string& what) const;

 private:
  void Advance();
  void SkipBlanks();
  ScriptToken Scan();
  std::string ScanString();
  char ScanEscape();
  std::string ScanWord();
  std::string RestOfLine();
  bool More(size_t ahead = 0) const { return at_ + ahead < text_.size(); }

  std::string text_;
  std::string name_;
  size_t at_;
  int line_;
  ScriptToken next_;
};

}  // namespace standin
