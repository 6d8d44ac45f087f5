#include "ScriptReader.h"

#include <ctype.h>
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>

#include "PluginFolder.h"
#include "Val.h"
#include "standin/Host.h"
#include "standin/Scripts.h"
#include "util.h"

namespace standin {

namespace fs = std::filesystem;

namespace {

bool is_word_char(char c) {
  return isalnum(static_cast<unsigned char>(c)) || c == '_';
}

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f';
}

struct Token {
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
class Tokens {
 public:
  Tokens(const std::string& text, const std::string& name) : text_(text), name_(name) {
    next_ = Scan();
  }

  /// The token that is next, without taking it.
  const Token& Peek() const { return next_; }

  Token Take() {
    Token token = next_;
    next_ = Scan();
    return token;
  }

  [[noreturn]] void Fail(int line, const std::string& what) const {
    throw HostError(name_ + ":" + std::to_string(line) + ": " + what);
  }

 private:
  bool More() const { return at_ < text_.size(); }
  /// The character that is next; NUL at the end.
  char Here() const { return More() ? text_[at_] : '\0'; }

  /// Skips, and gives, everything before one of these characters.
  std::string Until(const char* characters) {
    const size_t begin = at_;
    at_ = std::min(text_.find_first_of(characters, begin), text_.size());
    return text_.substr(begin, at_ - begin);
  }

  void SkipBlanks() {
    while (Here() == '#' || is_blank(Here())) {
      if (Here() == '#')
        Until("\n");
      line_ += Here() == '\n';
      at_ += More();
    }
  }

  Token Scan() {
    SkipBlanks();
    const int line = line_;
    if (!More())
      return {Token::kEnd, "", line};
    if (is_word_char(Here()))
      return {Token::kWord, ScanWord(), line};
    if (Here() == '@') {
      const std::string directive = Until("#\n");
      return {Token::kDirective, directive.substr(0, directive.find_last_not_of(" \t\r\f") + 1),
              line};
    }
    const char c = text_[at_++];
    if (c == '"')
      return {Token::kString, ScanString(), line};
    if (c == '&' && isalpha(static_cast<unsigned char>(Here())))
      return {Token::kAttribute, "&" + ScanWord(), line};
    return {Token::kSymbol, std::string(1, c), line};
  }

  /// Behind the quotation mark that begins it.
  std::string ScanString() {
    std::string content;
    for (;;) {
      content += Until("\"\\\n");
      if (!More() || Here() == '\n')
        Fail(line_, "the string that begins here does not end on this line");
      if (text_[at_++] == '"')
        return content;
      content += ScanEscape();
    }
  }

  /// Behind the backslash of an escape.
  char ScanEscape() {
    const bool hex = Here() == 'x' && at_ + 1 < text_.size() &&
                     isxdigit(static_cast<unsigned char>(text_[at_ + 1]));
    if (hex || (Here() >= '0' && Here() <= '7')) {
      at_ += hex;
      size_t used = 0;
      const auto byte = std::stoul(text_.substr(at_, hex ? 2 : 3), &used, hex ? 16 : 8);
      at_ += used;
      return static_cast<char>(byte);
    }
    static const char names[] = "ntvbrfa";
    static const char bytes[] = "\n\t\v\b\r\f\a";
    const char c = Here();
    at_ += More();
    const char* found = c ? strchr(names, c) : nullptr;
    return found ? bytes[found - names] : c;
  }

  /// Words may hold "::" (module names) and "." (numbers, addresses).
  std::string ScanWord() {
    const size_t begin = at_;
    const bool number = isdigit(static_cast<unsigned char>(Here()));
    while (is_word_char(Here()) || (number && Here() == '.'))
      at_ += text_.compare(at_ + 1, 2, "::") == 0 && at_ + 3 < text_.size() &&
                     is_word_char(text_[at_ + 3])
                 ? 3
                 : 1;
    return text_.substr(begin, at_ - begin);
  }

  const std::string text_;
  const std::string name_;
  size_t at_ = 0;
  int line_ = 1;
  Token next_;
};

const std::map<std::string, TypeTag>& plain_types() {
  static const std::map<std::string, TypeTag> types = {
      {"bool", TYPE_BOOL},     {"int", TYPE_INT},   {"count", TYPE_COUNT},
      {"double", TYPE_DOUBLE}, {"time", TYPE_TIME}, {"interval", TYPE_INTERVAL},
      {"string", TYPE_STRING}, {"port", TYPE_PORT}, {"addr", TYPE_ADDR},
      {"subnet", TYPE_SUBNET}};
  return types;
}

struct Unreffer {
  void operator()(BroObj* o) const { Unref(o); }
};

}  // namespace

// Reads one script: what begins with one of a few words, wherever it stands.
class ScriptParser {
 public:
  ScriptParser(ScriptReader* reader, const std::string& text, const std::string& name)
      : reader_(reader), tokens_(text, name), name_(name), module_("GLOBAL") {}

  void Parse() {
    for (;;) {
      const Token token = tokens_.Take();
      if (token.kind == Token::kEnd)
        return;
      if (token.kind == Token::kDirective)
        Directive(token);
      else if (token.is("module"))
        module_ = tokens_.Take().text;
      else if (token.is("const"))
        Const();
      else if (token.is("type"))
        Type();
      else if (token.is("global"))
        Global();
    }
  }

 private:
  void Directive(const Token& directive) {
    const size_t space = directive.text.find_first_of(" \t");
    const std::string word = directive.text.substr(0, space);
    if (word.compare(0, 3, "@if") == 0) {
      SkipConditional(directive.line);
    } else if (word == "@load" && space != std::string::npos) {
      const std::string target = stripped(directive.text.substr(space));
      const std::string path = reader_->Resolve(target, name_);
      if (!path.empty())
        reader_->Load(path);
      else if (target[0] == '.')
        tokens_.Fail(directive.line, "can't find " + target);
    }
  }

  // Conditions are not evaluated: neither branch counts.
  void SkipConditional(int line) {
    for (int open = 1; open > 0;) {
      const Token token = tokens_.Take();
      if (token.kind == Token::kEnd)
        tokens_.Fail(line, "this @if has no @endif");
      if (token.kind == Token::kDirective)
        open += (token.text.compare(0, 3, "@if") == 0) - (token.text.compare(0, 6, "@endif") == 0);
    }
  }

  // const NAME [: string] = "..." [&redef];
  void Const() {
    const std::string name = Qualified(tokens_.Take().text);
    if (Accept(":") && !Accept("string"))
      return;
    if (!Accept("=") || tokens_.Peek().kind != Token::kString)
      return;
    const std::string text = tokens_.Take().text;
    const bool redefinable = Accept("&redef");
    if (!Accept(";"))
      return;
    Val* value = new StringVal(static_cast<int>(text.size()), text.data());
    if (redefinable)
      define_option(name, value);
    else
      define_const(name, value);
  }

  // type NAME: record { NAME: TYPE [&attributes]; ... };
  void Type() {
    const std::string name = Qualified(tokens_.Take().text);
    if (!Accept(":") || !Accept("record") || !Accept("{"))
      return;
    type_decl_list* fields = new type_decl_list;
    std::unique_ptr<RecordType, Unreffer> type(new RecordType(fields));
    bool plain = true;
    while (tokens_.Peek().kind == Token::kWord) {
      const std::string field = tokens_.Take().text;
      const bool typed = Accept(":");
      const auto tag = plain_types().find(tokens_.Take().text);
      plain = plain && typed && tag != plain_types().end();
      if (plain)
        fields->append(new TypeDecl(base_type(tag->second), copy_string(field.c_str())));
      while (!Accept(";") && tokens_.Peek().kind != Token::kEnd)
        tokens_.Take();
    }
    if (plain && Accept("}"))
      define_type(name, type.release());
  }

  // Of globals only functions count: glue gives them their bodies.
  void Global() {
    const std::string name = Qualified(tokens_.Take().text);
    if (Accept(":") && tokens_.Peek().is("function"))
      declare_function(name);
  }

  bool Accept(const char* symbol) {
    const bool there = tokens_.Peek().is(symbol);
    if (there)
      tokens_.Take();
    return there;
  }

  std::string Qualified(const std::string& name) const {
    const bool global = module_ == "GLOBAL" || name.find("::") != std::string::npos;
    return global ? name : module_ + "::" + name;
  }

  ScriptReader* reader_;
  Tokens tokens_;
  std::string name_;
  std::string module_;
};

void ScriptReader::Load(const std::string& path) {
  if (!seen_.insert(fs::weakly_canonical(path).string()).second)
    return;
  std::ifstream in(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (!in)
    throw HostError("cannot read the script " + path + ": " + strerror(errno));
  ScriptParser(this, text, path).Parse();
}

std::string ScriptReader::Resolve(const std::string& target, const std::string& from) const {
  std::vector<fs::path> folders = {""};  // for an absolute path
  if (target[0] == '.')
    folders = {fs::path(from).parent_path()};
  else if (target[0] != '/')
    folders.assign(search_path_.begin(), search_path_.end());
  for (const fs::path& folder : folders) {
    const std::string candidate = (folder / target).string();
    for (const std::string& file : {candidate + ".bro", candidate, candidate + "/__load__.bro"}) {
      if (fs::is_regular_file(file))
        return file;
    }
  }
  return "";
}

std::string unescaped(const std::string& text, const std::string& name) {
  Tokens tokens("\"" + text + "\";", name + "=" + text);
  const Token content = tokens.Take();
  if (!tokens.Peek().is(";"))
    throw HostError(name + ": a quotation mark in the value has to be written as \\\"");
  return content.text;
}

}  // namespace standin
