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

// Reads one script.
class ScriptParser {
 public:
  ScriptParser(ScriptReader* reader, const std::string& text, const std::string& name)
      : reader_(reader), tokens_(text, name), name_(name), module_("GLOBAL") {}

  void Parse() {
    bool exporting = false;
    while (Next().kind != Token::kEnd) {
      if (Accept("export")) {
        Expect("{");
        exporting = true;
      } else if (exporting && Accept("}")) {
        exporting = false;
      } else {
        Item();
      }
    }
    if (exporting)
      tokens_.Fail(Next().line, "the script ends inside an export block");
  }

 private:
  void Item() {
    if (Next().kind == Token::kDirective)
      Directive(tokens_.Take());
    else if (Accept("module"))
      Module();
    else if (Accept("const"))
      Const();
    else if (Accept("type"))
      Type();
    else if (Accept("global"))
      Global();
    else if (Next().is("}"))
      tokens_.Fail(Next().line, "a } without its {");
    else
      SkipItem();
  }

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

  void Module() {
    module_ = Word("the name of a module");
    Expect(";");
  }

  // const NAME [: string] = "..." [&redef];
  void Const() {
    const std::string name = Qualified(Word("the name of a constant"));
    if (Accept(":") && !Accept("string"))
      return SkipItem();
    if (!Accept("=") || Next().kind != Token::kString)
      return SkipItem();
    const std::string text = tokens_.Take().text;
    const bool redefinable = Accept("&redef");
    if (!Accept(";"))
      return SkipItem();
    Val* value = new StringVal(static_cast<int>(text.size()), text.data());
    if (redefinable)
      define_option(name, value);
    else
      define_const(name, value);
  }

  // type NAME: record { NAME: TYPE [&attributes]; ... };
  void Type() {
    const std::string name = Qualified(Word("the name of a type"));
    Expect(":");
    if (!Accept("record"))
      return SkipItem();
    Expect("{");
    type_decl_list* fields = new type_decl_list;
    std::unique_ptr<RecordType, Unreffer> type(new RecordType(fields));
    bool plain = true;
    while (!Accept("}")) {
      const std::string field = Word("the name of a field");
      Expect(":");
      const auto tag = plain_types().find(Word("a type"));
      plain = plain && tag != plain_types().end();
      if (plain)
        fields->append(new TypeDecl(base_type(tag->second), copy_string(field.c_str())));
      SkipItem();
    }
    SkipItem();
    if (plain)
      define_type(name, type.release());
  }

  // Of globals only functions count: glue gives them their bodies.
  void Global() {
    const std::string name = Qualified(Word("the name of a global"));
    if (Accept(":") && Next().is("function"))
      declare_function(name);
    SkipItem();
  }

  // To the ';' that ends an item, or behind the block that ends it.
  void SkipItem() {
    static const std::set<std::string> with_block = {"{",    "function", "event", "hook", "if",
                                                     "else", "for",      "while", "when", "switch"};
    const bool ends_with_block = with_block.count(Next().text) > 0;
    const int line = Next().line;
    std::string open;  // brackets that wait for their other half
    while (Next().kind != Token::kEnd) {
      if (open.empty() && Next().is("}"))
        return;  // the enclosing block ends without a ';'
      const Token token = tokens_.Take();
      if (token.is("(") || token.is("[") || token.is("{")) {
        open += token.text;
      } else if (token.is(")") || token.is("]") || token.is("}")) {
        Close(&open, token);
        if (open.empty() && token.is("}") && ends_with_block)
          return;
      } else if (open.empty() && token.is(";")) {
        return;
      }
    }
    if (!open.empty())
      tokens_.Fail(line, "what begins here does not end: a '" + open.substr(open.size() - 1) +
                             "' is never closed");
  }

  void Close(std::string* open, const Token& token) {
    const char partner = token.is(")") ? '(' : token.is("]") ? '[' : '{';
    if (open->empty() || open->back() != partner)
      tokens_.Fail(token.line, "a '" + token.text + "' without its '" + partner + "'");
    open->pop_back();
  }

  const Token& Next() const { return tokens_.Peek(); }

  bool Accept(const char* symbol) {
    const bool there = Next().is(symbol);
    if (there)
      tokens_.Take();
    return there;
  }

  void Expect(const char* symbol) {
    if (!Accept(symbol))
      tokens_.Fail(Next().line,
                   std::string("expected '") + symbol + "' instead of '" + Next().text + "'");
  }

  std::string Word(const char* what) {
    if (Next().kind != Token::kWord)
      tokens_.Fail(Next().line,
                   std::string("expected ") + what + " instead of '" + Next().text + "'");
    return tokens_.Take().text;
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
