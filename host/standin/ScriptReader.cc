#include "ScriptReader.h"

#include <errno.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>

#include "PluginFolder.h"
#include "ScriptTokens.h"
#include "Val.h"
#include "standin/Host.h"
#include "standin/Scripts.h"
#include "util.h"

namespace standin {

namespace fs = std::filesystem;

namespace {

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
    while (Next().kind != ScriptToken::kEnd) {
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
    if (Next().kind == ScriptToken::kDirective)
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

  void Directive(const ScriptToken& directive) {
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
      const ScriptToken token = tokens_.Take();
      if (token.kind == ScriptToken::kEnd)
        tokens_.Fail(line, "this @if has no @endif");
      if (token.kind == ScriptToken::kDirective)
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
    if (!Accept("=") || Next().kind != ScriptToken::kString)
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
    while (Next().kind != ScriptToken::kEnd) {
      if (open.empty() && Next().is("}"))
        return;  // the enclosing block ends without a ';'
      const ScriptToken token = tokens_.Take();
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

  void Close(std::string* open, const ScriptToken& token) {
    const char partner = token.is(")") ? '(' : token.is("]") ? '[' : '{';
    if (open->empty() || open->back() != partner)
      tokens_.Fail(token.line, "a '" + token.text + "' without its '" + partner + "'");
    open->pop_back();
  }

  const ScriptToken& Next() const { return tokens_.Peek(); }

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
    if (Next().kind != ScriptToken::kWord)
      tokens_.Fail(Next().line,
                   std::string("expected ") + what + " instead of '" + Next().text + "'");
    return tokens_.Take().text;
  }

  std::string Qualified(const std::string& name) const {
    const bool global = module_ == "GLOBAL" || name.find("::") != std::string::npos;
    return global ? name : module_ + "::" + name;
  }

  ScriptReader* reader_;
  ScriptTokens tokens_;
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

}  // namespace standin
