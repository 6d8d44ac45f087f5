#include "standin/ScriptReader.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>

#include "Attr.h"
#include "ScriptTokens.h"
#include "Val.h"
#include "standin/Host.h"
#include "standin/Scripts.h"
#include "util.h"

namespace standin {

namespace fs = std::filesystem;

namespace {

std::string qualified(const std::string& name, const std::string& module) {
  if (module == "GLOBAL" || name.find("::") != std::string::npos)
    return name.compare(0, 8, "GLOBAL::") == 0 ? name.substr(8) : name;
  return module + "::" + name;
}

const std::map<std::string, TypeTag>& plain_types() {
  static const std::map<std::string, TypeTag> types = {
      {"bool", TYPE_BOOL},         {"int", TYPE_INT},       {"count", TYPE_COUNT},
      {"counter", TYPE_COUNTER},   {"double", TYPE_DOUBLE}, {"time", TYPE_TIME},
      {"interval", TYPE_INTERVAL}, {"string", TYPE_STRING}, {"pattern", TYPE_PATTERN},
      {"timer", TYPE_TIMER},       {"port", TYPE_PORT},     {"addr", TYPE_ADDR},
      {"subnet", TYPE_SUBNET},     {"any", TYPE_ANY},       {"file", TYPE_FILE}};
  return types;
}

// Types and values of this reader hold one reference each.
struct Unreffer {
  void operator()(BroObj* o) const { Unref(o); }
};
typedef std::unique_ptr<BroType, Unreffer> TypeRef;
typedef std::unique_ptr<Val, Unreffer> ValRef;

}  // namespace

// Reads one script.
class ScriptParser {
 public:
  ScriptParser(ScriptReader* reader, const std::string& text, const std::string& name)
      : reader_(reader), tokens_(text, name), name_(name), module_("GLOBAL") {}

  void Parse() {
    bool exporting = false;
    while (tokens_.Peek().kind != ScriptToken::kEnd) {
      const ScriptToken& next = tokens_.Peek();
      if (next.is("export")) {
        tokens_.Take();
        Expect("{");
        exporting = true;
      } else if (exporting && next.is("}")) {
        tokens_.Take();
        exporting = false;
      } else {
        Item();
      }
    }
    if (exporting)
      tokens_.Fail(tokens_.Peek().line, "the script ends inside an export block");
  }

 private:
  void Item() {
    const ScriptToken next = tokens_.Peek();
    if (next.kind == ScriptToken::kDirective)
      Directive(tokens_.Take());
    else if (next.is("module"))
      Module();
    else if (next.is("const"))
      Const();
    else if (next.is("type"))
      Type();
    else if (next.is("global"))
      Global();
    else if (next.is("}"))
      tokens_.Fail(next.line, "a } without its {");
    else
      SkipItem();
  }

  void Directive(const ScriptToken& directive) {
    const size_t space = directive.text.find_first_of(" \t");
    const std::string word = directive.text.substr(0, space);
    if (word.compare(0, 3, "@if") == 0) {
      SkipConditional(directive.line);
    } else if (word == "@load" && space != std::string::npos) {
      const std::string target = strstrip(directive.text.substr(space));
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
      if (token.kind != ScriptToken::kDirective)
        continue;
      if (token.text.compare(0, 3, "@if") == 0)
        ++open;
      else if (token.text.compare(0, 6, "@endif") == 0)
        --open;
    }
  }

  void Module() {
    tokens_.Take();
    module_ = Word("the name of a module");
    Expect(";");
  }

  // const NAME [: TYPE] [= LITERAL] [&attributes];
  void Const() {
    const int line = tokens_.Take().line;
    const std::string name = qualified(Word("the name of a constant"), module_);
    TypeRef type;
    bool understood = true;
    if (Accept(":")) {
      type.reset(ReadType());
      understood = type != nullptr;
    }
    ValRef value;
    if (understood && Accept("=")) {
      value.reset(ReadLiteral(type.get(), line));
      understood = value != nullptr;
    }
    bool redefinable = false;
    while (understood && tokens_.Peek().kind == ScriptToken::kAttribute)
      redefinable |= tokens_.Take().text == "&redef";
    if (!understood || !tokens_.Peek().is(";")) {
      SkipItem();
      return;
    }
    Expect(";");
    Define(name, std::move(type), std::move(value), redefinable, line);
  }

  void Define(const std::string& name, TypeRef type, ValRef value, bool redefinable, int line) {
    if (!type && !value)
      tokens_.Fail(line, name + " has neither a type nor a value");
    if (!value) {
      declare_option(name, type.release());
    } else if (redefinable) {
      define_option(name, value.release());
    } else {
      define_const(name, value.release());
    }
  }

  // type NAME: TYPE [&attributes];
  void Type() {
    tokens_.Take();
    const std::string name = qualified(Word("the name of a type"), module_);
    Expect(":");
    type_name_ = name;
    TypeRef type(ReadType());
    while (tokens_.Peek().kind == ScriptToken::kAttribute)
      tokens_.Take();
    if (!type || !tokens_.Peek().is(";")) {
      SkipItem();
      return;
    }
    Expect(";");
    type->SetName(name);
    define_type(name, type.release());
  }

  // Of globals only functions, events and hooks count: glue gives them their bodies.
  void Global() {
    tokens_.Take();
    const std::string name = qualified(Word("the name of a global"), module_);
    if (Accept(":")) {
      const ScriptToken& kind = tokens_.Peek();
      if (kind.is("function") || kind.is("event") || kind.is("hook"))
        declare_function(name);
    }
    SkipItem();
  }

  // To the ';' that ends an item, or behind the block that ends it.
  void SkipItem() {
    static const char* const with_block[] = {"function", "event", "hook", "if",    "else",
                                             "for",      "while", "when", "switch"};
    bool ends_with_block = tokens_.Peek().is("{");
    for (const char* word : with_block)
      ends_with_block |= tokens_.Peek().is(word);
    const int line = tokens_.Peek().line;
    std::string open;  // brackets that wait for their other half
    while (true) {
      const ScriptToken token = tokens_.Peek();
      if (token.kind == ScriptToken::kEnd) {
        if (!open.empty())
          tokens_.Fail(line, "what begins here does not end: a '" + open.substr(open.size() - 1) +
                                 "' is never closed");
        return;
      }
      if (open.empty() && token.is("}"))
        return;  // the enclosing block ends without a ';'
      tokens_.Take();
      if (token.kind != ScriptToken::kSymbol)
        continue;
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
  }

  void Close(std::string* open, const ScriptToken& token) {
    const std::string partner = token.is(")") ? "(" : token.is("]") ? "[" : "{";
    if (open->empty() || open->substr(open->size() - 1) != partner)
      tokens_.Fail(token.line, "a '" + token.text + "' without its '" + partner + "'");
    open->pop_back();
  }

  // A new reference; null for what is not understood.
  BroType* ReadType() {
    const ScriptToken token = tokens_.Take();
    if (token.kind != ScriptToken::kWord)
      tokens_.Fail(token.line, "expected a type instead of '" + token.text + "'");
    if (token.text == "record")
      return ReadRecord();
    if (token.text == "enum")
      return ReadEnum();
    if (token.text == "set")
      return ReadTable(false);
    if (token.text == "table")
      return ReadTable(true);
    if (token.text == "vector")
      return ReadVector();
    auto plain = plain_types().find(token.text);
    if (plain != plain_types().end())
      return base_type(plain->second);
    return NamedType(token.text);
  }

  BroType* NamedType(const std::string& name) {
    for (const std::string& full : {qualified(name, module_), name}) {
      ID* id = global_scope()->Lookup(full);
      if (id && id->AsType())
        return id->AsType()->Ref();
    }
    return nullptr;
  }

  BroType* ReadVector() {
    if (!Accept("of"))
      return nullptr;
    BroType* element = ReadType();
    return element ? new VectorType(element) : nullptr;
  }

  BroType* ReadTable(bool has_yield) {
    if (!Accept("["))
      return nullptr;
    TypeRef indices(new TypeList);
    do {
      BroType* index = ReadType();
      if (!index)
        return nullptr;
      indices->AsTypeList()->Append(index);
    } while (Accept(","));
    if (!Accept("]"))
      return nullptr;
    BroType* yield = nullptr;
    if (has_yield) {
      if (!Accept("of") || !(yield = ReadType()))
        return nullptr;
    }
    TypeList* list = indices.release()->AsTypeList();
    if (has_yield)
      return new TableType(list, yield);
    return new SetType(list, nullptr);
  }

  BroType* ReadEnum() {
    const std::string name = type_name_;
    std::unique_ptr<EnumType, Unreffer> type(new EnumType(name));
    if (!Accept("{"))
      return nullptr;
    for (bro_int_t number = 0; !tokens_.Peek().is("}"); ++number) {
      const std::string enumerator = Word("an enumerator");
      if (Accept("="))
        number = strtoll(Word("a number").c_str(), nullptr, 0);
      while (tokens_.Peek().kind == ScriptToken::kAttribute)
        SkipAttribute();
      type->AddName(module_, enumerator.c_str(), number, true, false);
      if (!Accept(","))
        break;
    }
    Expect("}");
    return type.release();
  }

  // Behind "record". Null if a field's type is not understood.
  BroType* ReadRecord() {
    Expect("{");
    std::vector<RecordField> read;
    bool understood = true;
    while (!tokens_.Peek().is("}")) {
      RecordField field = ReadField();
      understood = understood && field.type;
      read.push_back(std::move(field));
    }
    Expect("}");
    bool log_all = false;
    while (tokens_.Peek().kind == ScriptToken::kAttribute && !in_record_)
      log_all |= SkipAttribute() == "&log";
    return understood ? MakeRecord(&read, log_all) : nullptr;
  }

  struct RecordField {
    std::string name;
    TypeRef type;
    ValRef default_value;
    bool optional = false;
    bool log = false;
  };

  // NAME: TYPE [&optional] [&log] [&default=...];
  RecordField ReadField() {
    RecordField field;
    field.name = Word("the name of a field");
    Expect(":");
    const bool outer = in_record_;
    in_record_ = true;
    field.type.reset(ReadType());
    in_record_ = outer;
    if (!field.type)
      SkipFieldType();
    while (tokens_.Peek().kind == ScriptToken::kAttribute)
      FieldAttribute(&field);
    Expect(";");
    return field;
  }

  // What follows the first word of a type that is not understood.
  void SkipFieldType() {
    int depth = 0;
    while (tokens_.Peek().kind != ScriptToken::kEnd) {
      const ScriptToken& next = tokens_.Peek();
      if (depth == 0 && (next.is(";") || next.is("}") || next.kind == ScriptToken::kAttribute))
        return;
      depth += next.is("(") || next.is("[") || next.is("{");
      depth -= next.is(")") || next.is("]") || next.is("}");
      tokens_.Take();
    }
  }

  void FieldAttribute(RecordField* field) {
    const ScriptToken attribute = tokens_.Peek();
    if (attribute.is("&default")) {
      tokens_.Take();
      if (Accept("="))
        field->default_value.reset(ReadLiteral(field->type.get(), attribute.line));
      if (!field->default_value) {
        SkipExpression();
        field->optional = true;  // the value cannot be had without running the script
      }
      return;
    }
    const std::string name = SkipAttribute();
    field->optional |= name == "&optional";
    field->log |= name == "&log";
  }

  // An attribute and its "=..." if there is one; returns its name.
  std::string SkipAttribute() {
    const std::string name = tokens_.Take().text;
    if (Accept("="))
      SkipExpression();
    return name;
  }

  void SkipExpression() {
    int depth = 0;
    while (tokens_.Peek().kind != ScriptToken::kEnd) {
      const ScriptToken& next = tokens_.Peek();
      if (depth == 0 &&
          (next.is(";") || next.is(",") || next.is("}") || next.kind == ScriptToken::kAttribute))
        return;
      depth += next.is("(") || next.is("[") || next.is("{");
      depth -= next.is(")") || next.is("]") || next.is("}");
      tokens_.Take();
    }
  }

  static BroType* MakeRecord(std::vector<RecordField>* fields, bool log_all) {
    type_decl_list* decls = new type_decl_list;
    for (RecordField& field : *fields)
      decls->append(make_field(field.name, field.type.release(), field.optional,
                               field.log || log_all, field.default_value.release()));
    return new RecordType(decls);
  }

  // A new reference; null for anything but a literal. `type` may be null: then the literal decides.
  Val* ReadLiteral(const BroType* type, int line) {
    const ScriptToken token = tokens_.Peek();
    std::string text;
    if (token.kind == ScriptToken::kString) {
      text = ReadStrings();
      if (!at_end_of_value())
        return nullptr;
      if (type && type->Tag() != TYPE_STRING)
        tokens_.Fail(line, std::string("a string where the type is ") + ::type_name(type->Tag()));
      return new StringVal(static_cast<int>(text.size()), text.data());
    }
    while (!at_end_of_value()) {
      const ScriptToken part = tokens_.Peek();
      const bool literal = part.kind == ScriptToken::kWord || part.is("-") || part.is("+") ||
                           part.is("/") || part.is(":");
      if (!literal)
        return nullptr;
      if (!text.empty() && part.kind == ScriptToken::kWord && isalpha(text.back() & 0x7f))
        text += ' ';
      text += tokens_.Take().text;
    }
    std::string error;
    Val* value = parse_literal(text, type, &error);
    if (!value && type && !error.empty())
      tokens_.Fail(line, error);
    return value;
  }

  bool at_end_of_value() const {
    const ScriptToken& next = tokens_.Peek();
    return next.is(";") || next.kind == ScriptToken::kAttribute || next.kind == ScriptToken::kEnd;
  }

  // "a" + "b" is one string.
  std::string ReadStrings() {
    std::string text = tokens_.Take().text;
    while (tokens_.Peek().is("+")) {
      tokens_.Take();
      if (tokens_.Peek().kind != ScriptToken::kString)
        break;
      text += tokens_.Take().text;
    }
    return text;
  }

  bool Accept(const char* symbol) {
    if (!tokens_.Peek().is(symbol))
      return false;
    tokens_.Take();
    return true;
  }

  void Expect(const char* symbol) {
    const ScriptToken token = tokens_.Take();
    if (!token.is(symbol))
      tokens_.Fail(token.line, std::string("expected '") + symbol + "' instead of " +
                                   (token.kind == ScriptToken::kEnd ? "the end of the script"
                                                                    : "'" + token.text + "'"));
  }

  std::string Word(const char* what) {
    const ScriptToken token = tokens_.Take();
    if (token.kind != ScriptToken::kWord)
      tokens_.Fail(token.line,
                   std::string("expected ") + what + " instead of '" + token.text + "'");
    return token.text;
  }

  ScriptReader* reader_;
  ScriptTokens tokens_;
  std::string name_;
  std::string module_;
  std::string type_name_;   // of the type that is being read
  bool in_record_ = false;  // attributes belong to a field, not to the record
};

ScriptReader::ScriptReader(const std::vector<std::string>& search_path)
    : search_path_(search_path) {}

void ScriptReader::Load(const std::string& path) {
  const std::string file = fs::is_directory(path) ? path + "/__load__.bro" : path;
  std::error_code ignored;
  const fs::path canonical = fs::weakly_canonical(file, ignored);
  if (!seen_.insert(canonical.string()).second)
    return;
  std::ifstream in(file, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (!in)
    throw HostError("cannot read the script " + file + ": " + strerror(errno));
  files_.push_back(file);
  LoadText(text, file);
}

void ScriptReader::LoadText(const std::string& text, const std::string& name) {
  ScriptParser(this, text, name).Parse();
}

std::string ScriptReader::Resolve(const std::string& target, const std::string& from) const {
  std::vector<fs::path> candidates;
  if (target[0] == '/')
    candidates.push_back(target);
  else if (target[0] == '.')
    candidates.push_back(fs::path(from).parent_path() / target);
  else
    for (const std::string& folder : search_path_)
      candidates.push_back(fs::path(folder) / target);
  for (const fs::path& candidate : candidates) {
    const std::string with_suffix = candidate.string() + ".bro";
    if (fs::is_regular_file(with_suffix))
      return with_suffix;
    if (fs::is_regular_file(candidate) || fs::is_regular_file(candidate / "__load__.bro"))
      return candidate.string();
  }
  return "";
}

}  // namespace standin
