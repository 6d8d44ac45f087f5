// bifcl: makes the C++ glue and the script stub of a dynamic plug-in out of a .bif file, as the
// host's own interface generator does, for a build without a host.
//
//     bifcl -p NS::NAME path/to/zmq.bif
//
// writes zmq.bif.{h,cc,init.cc,register.cc,bro} into the current folder. It knows what a log writer
// needs: module, C++ segments, const, type and function, comments. Everything else is refused with
// file, line and token, also the stand-alone words T and F in C++ text, on which the host's
// generator stumbles: what compiles here compiles there. Nothing is written when there is an error.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

class BifError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------------------------------------
// What a .bif file says

struct Argument {
  std::string name;
  std::string type;
  std::string attributes;  // as written, e.g. "&default=1"; goes into the stub only
};

enum class ItemKind { kConst, kType, kFunction };

struct Item {
  ItemKind kind = ItemKind::kConst;
  std::string module;  // empty: global scope
  std::string name;
  std::string type;  // const: script type; type: record, set, vector or table; function: result
  std::vector<Argument> arguments;
  bool varargs = false;
  std::string body;

  std::string full_name() const { return module.empty() ? name : module + "::" + name; }
};

/// A piece of the script stub, in source order: a kept comment, a module line or a function.
struct StubPiece {
  enum { kComment, kModule, kFunction } kind;
  std::string text;   // comment or module
  std::size_t index;  // of the function among the items
};

struct BifFile {
  std::vector<Item> items;
  std::vector<std::string> segments;  // C++ text between %%{ and %%}
  std::vector<StubPiece> stub;
};

// ---------------------------------------------------------------------------------------------
// Reading

bool is_word_start(char c) {
  return std::isalpha(static_cast<unsigned char>(c)) || c == '_';
}

bool is_word(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

class Parser {
 public:
  Parser(std::string file, std::string text) : file_(std::move(file)), text_(std::move(text)) {}

  BifFile parse() {
    while (next_item_token()) {
      if (take("%%{"))
        result_.segments.push_back(cpp_text("%%}"));
      else
        declaration();
    }
    return std::move(result_);
  }

 private:
  [[noreturn]] void fail(const std::string& message, int line = 0) const {
    throw BifError(file_ + ":" + std::to_string(line ? line : line_) + ": " + message);
  }

  [[noreturn]] void syntax_error(const std::string& expected) const {
    fail("syntax error, at or near \"" + upcoming_token() + "\": expected " + expected);
  }

  std::string upcoming_token() const {
    if (position_ >= text_.size())
      return "end of file";
    std::size_t end = position_;
    while (end < text_.size() && is_word(text_[end]))
      ++end;
    return text_.substr(position_, std::max<std::size_t>(end - position_, 1));
  }

  bool at(const std::string& token) const {
    return text_.compare(position_, token.size(), token) == 0;
  }

  void advance(std::size_t count) {
    line_ += static_cast<int>(
        std::count(text_.begin() + static_cast<std::ptrdiff_t>(position_),
                   text_.begin() + static_cast<std::ptrdiff_t>(position_ + count), '\n'));
    position_ += count;
  }

  std::string rest_of_line() const {
    return text_.substr(position_, text_.find('\n', position_) - position_);
  }

  /// Skips blanks and comments; comments with ## are kept for the stub.
  void skip_blanks() {
    while (position_ < text_.size()) {
      if (std::isspace(static_cast<unsigned char>(text_[position_]))) {
        advance(1);
      } else if (text_[position_] == '#') {
        const std::string comment = rest_of_line();
        if (at("##"))
          result_.stub.push_back({StubPiece::kComment, comment, 0});
        advance(comment.size());
      } else {
        return;
      }
    }
  }

  bool next_item_token() {
    skip_blanks();
    return position_ < text_.size();
  }

  bool take(const std::string& token) {
    skip_blanks();
    if (!at(token))
      return false;
    advance(token.size());
    return true;
  }

  void expect(const std::string& token) {
    if (!take(token))
      syntax_error("\"" + token + "\"");
  }

  std::string word(const std::string& what) {
    skip_blanks();
    std::size_t end = position_;
    while (end < text_.size() && is_word(text_[end]))
      ++end;
    if (end == position_ || !is_word_start(text_[position_]))
      syntax_error(what);
    const std::string result = text_.substr(position_, end - position_);
    advance(result.size());
    return result;
  }

  /// A name with at most one "::".
  std::string scoped_word(const std::string& what) {
    std::string result = word(what);
    if (at("::")) {
      advance(2);
      result += "::" + word(what);
    }
    if (at("::"))
      syntax_error("a name with at most one \"::\"");
    return result;
  }

  void declaration() {
    const int line = line_;
    const std::string keyword = word("module, const, type, function or %%{");
    if (keyword == "module")
      module();
    else if (keyword == "const")
      constant(line);
    else if (keyword == "type")
      type(line);
    else if (keyword == "function")
      function(line);
    else if (keyword == "event" || keyword == "enum")
      fail(
          "\"" + keyword + "\" is not supported: this compiler knows module, const, type, function",
          line);
    else
      fail("syntax error, at or near \"" + keyword +
               "\": expected module, const, type, function or %%{",
           line);
  }

  void module() {
    module_ = word("a module name");
    expect(";");
    if (module_ == "GLOBAL")
      module_.clear();
    result_.stub.push_back({StubPiece::kModule, module_.empty() ? "GLOBAL" : module_, 0});
  }

  Item named_item(ItemKind kind) {
    Item item;
    item.kind = kind;
    const std::string name = scoped_word("a name");
    const std::size_t colons = name.find("::");
    item.module = colons == std::string::npos ? module_ : name.substr(0, colons);
    item.name = colons == std::string::npos ? name : name.substr(colons + 2);
    if (item.module == "GLOBAL")
      item.module.clear();
    return item;
  }

  void add(Item item, int line) {
    for (const Item& other : result_.items)
      if (other.full_name() == item.full_name())
        fail("\"" + item.full_name() + "\" is declared twice", line);
    result_.items.push_back(std::move(item));
  }

  void constant(int line) {
    Item item = named_item(ItemKind::kConst);
    expect(":");
    item.type = scoped_word("the constant's type, one plain identifier");
    if (item.type == "set" || item.type == "vector" || item.type == "table")
      fail("a constant cannot have the type \"" + item.type + "\": use a named type", line);
    if (item.type == "connection")
      fail("a constant cannot be a connection", line);
    expect(";");
    add(std::move(item), line);
  }

  void type(int line) {
    Item item = named_item(ItemKind::kType);
    expect(":");
    item.type = word("record, set, vector or table");
    if (item.type != "record" && item.type != "set" && item.type != "vector" &&
        item.type != "table")
      fail("syntax error, at or near \"" + item.type + "\": expected record, set, vector or table",
           line);
    expect(";");
    add(std::move(item), line);
  }

  std::string argument_type() {
    std::string result = scoped_word("a type, one plain identifier");
    if (result == "opaque") {
      if (word("\"of\"") != "of")
        fail("syntax error: expected \"opaque of NAME\"");
      result += " of " + scoped_word("the name of the opaque type");
    }
    return result;
  }

  /// "&default=1 ..." up to the ',' or "%)" that ends the argument.
  std::string attributes() {
    std::string result;
    skip_blanks();
    while (position_ < text_.size() && !at(",") && !at("%)")) {
      if (text_[position_] == '\n')
        syntax_error("\",\" or \"%)\"");
      result += text_[position_];
      advance(1);
    }
    if (!result.empty() && result[0] != '&')
      fail("syntax error, at or near \"" + result + "\": expected an attribute, \",\" or \"%)\"");
    return result;
  }

  void arguments(Item& item) {
    expect("%(");
    if (take("%)"))
      return;
    do {
      if (take("...")) {
        item.varargs = true;
        break;
      }
      Argument argument;
      argument.name = word("the name of an argument");
      expect(":");
      argument.type = argument_type();
      argument.attributes = attributes();
      item.arguments.push_back(argument);
    } while (take(","));
    expect("%)");
  }

  void function(int line) {
    Item item = named_item(ItemKind::kFunction);
    arguments(item);
    expect(":");
    item.type = argument_type();
    expect("%{");
    item.body = substitute_macros(cpp_text("%}"));
    add(std::move(item), line);
    result_.stub.push_back({StubPiece::kFunction, "", result_.items.size() - 1});
  }

  /// C++ text up to `end`, which is consumed.
  std::string cpp_text(const std::string& end) {
    const int begin_line = line_;
    const std::size_t begin = position_;
    const std::size_t stop = text_.find(end, begin);
    if (stop == std::string::npos)
      fail("no \"" + end + "\" ends the C++ text that begins here", begin_line);
    const std::string result = text_.substr(begin, stop - begin);
    refuse_stand_alone_t_and_f(result, begin_line);
    advance(stop - begin + end.size());
    return result;
  }

  void refuse_stand_alone_t_and_f(const std::string& text, int line) const {
    char quote = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\n')
        ++line;
      if (quote) {
        if (text[i] == '\\')
          ++i;
        else if (text[i] == quote || text[i] == '\n')
          quote = 0;
      } else if (text[i] == '"' || text[i] == '\'') {
        quote = text[i];
      } else if (is_word(text[i])) {
        std::size_t end = i;
        while (end < text.size() && is_word(text[end]))
          ++end;
        const std::string found = text.substr(i, end - i);
        if (found == "T" || found == "F")
          fail("syntax error, at or near \"" + found +
                   "\": the host's generator takes this word for a truth value; put such code into "
                   "a "
                   ".cc file",
               line);
        i = end - 1;
      }
    }
  }

  static std::string substitute_macros(std::string body) {
    const std::pair<const char*, const char*> macros[] = {
        {"@ARGS@", "BiF_ARGS"}, {"@ARGC@", "BiF_ARGS->length()"}, {"@ARG@", "(*BiF_ARGS)"}};
    for (const auto& macro : macros) {
      const std::string name = macro.first;
      for (std::size_t at; (at = body.find(name)) != std::string::npos;)
        body.replace(at, name.size(), macro.second);
    }
    return body;
  }

  const std::string file_;
  const std::string text_;
  std::size_t position_ = 0;
  int line_ = 1;
  std::string module_;
  BifFile result_;
};

// ---------------------------------------------------------------------------------------------
// Writing

struct TypeMapping {
  const char* bif;
  const char* cpp;
  const char* accessor;  // behind a Val*
};

const TypeMapping kTypes[] = {
    {"addr", "AddrVal*", "->AsAddrVal()"},       {"bool", "int", "->AsBool()"},
    {"count", "bro_uint_t", "->AsCount()"},      {"double", "double", "->AsDouble()"},
    {"file", "BroFile*", "->AsFile()"},          {"int", "bro_int_t", "->AsInt()"},
    {"interval", "double", "->AsInterval()"},    {"pattern", "RE_Matcher*", "->AsPattern()"},
    {"port", "PortVal*", "->AsPortVal()"},       {"string", "StringVal*", "->AsStringVal()"},
    {"subnet", "SubNetVal*", "->AsSubNetVal()"}, {"time", "double", "->AsTime()"},
};

const TypeMapping kOtherType = {"", "Val*", ""};

const TypeMapping& mapping_of(const std::string& bif_type) {
  for (const TypeMapping& mapping : kTypes)
    if (bif_type == mapping.bif)
      return mapping;
  return kOtherType;
}

/// record -> Record, RecordType*, AsRecordType
struct TypeCategory {
  explicit TypeCategory(const std::string& script_word) : name(script_word) {
    name[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[0])));
  }
  std::string cpp() const { return name + "Type*"; }
  std::string accessor() const { return "->As" + name + "Type()"; }
  std::string name;
};

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

std::string without_trailing_blanks(const std::string& text) {
  return text.substr(0, text.find_last_not_of(" \t\n") + 1);
}

std::string identifier_of(const std::string& text) {
  std::string result = text;
  for (char& c : result)
    if (!is_word(c))
      c = '_';
  return result;
}

class Generator {
 public:
  Generator(BifFile bif, std::string plugin, std::string file)
      : bif_(std::move(bif)), plugin_(std::move(plugin)), file_(std::move(file)) {
    stem_ = identifier_of(file_.substr(0, file_.find('.')));
    namespace_ = identifier_of(replace_all(plugin_, "::", "_"));
  }

  std::string header() const {
    const std::string guard = "BIF_" + namespace_ + "_" + identifier_of(file_) + "_H";
    std::ostringstream out;
    out << banner("//") << "\n#ifndef " << guard << "\n#define " << guard
        << "\n\n#include \"bro-bif.h\"\n\n";
    for (const Item& item : bif_.items)
      out << in_namespaces(item, item.kind == ItemKind::kFunction
                                     ? declaration(item) + ";"
                                     : "extern " + variable(item) + ";");
    out << "\n#endif\n";
    return out.str();
  }

  std::string source() const {
    std::ostringstream out;
    out << banner("//") << "\n#include \"" << file_ << ".h\"\n";
    for (const std::string& segment : bif_.segments)
      out << segment << "\n";
    for (const Item& item : bif_.items) {
      if (item.kind == ItemKind::kFunction)
        out << "\n" << definition(item);
      else
        out << in_namespaces(item, variable(item) + " = 0;");
    }
    return out.str();
  }

  std::string init_source() const {
    std::ostringstream out;
    out << banner("//") << "\n#include <list>\n#include <string>\n#include \"plugin/Plugin.h\"\n"
        << "#include \"" << file_ << ".h\"\n\nnamespace plugin { namespace " << namespace_
        << " {\n\nvoid __bif_" << stem_ << "_init(plugin::Plugin* plugin)\n\t{\n";
    for (const Item& item : bif_.items)
      out << "\t" << binding(item) << "\n\tplugin->AddBifItem(\"" << item.full_name()
          << "\", plugin::BifItem::" << item_kind(item) << ");\n";
    out << "\t}\n\n} }\n";
    return out.str();
  }

  std::string register_source() const {
    const std::string init = "__bif_" + stem_ + "_init";
    std::ostringstream out;
    out << banner("//") << "\n#include \"plugin/Manager.h\"\n\nnamespace plugin { namespace "
        << namespace_ << " {\n\nvoid " << init << "(plugin::Plugin* plugin);\n"
        << "::plugin::__RegisterBif __register_bifs_" << namespace_ << "_" << stem_ << "(\""
        << plugin_ << "\", " << init << ");\n\n} }\n";
    return out.str();
  }

  std::string stub() const {
    std::ostringstream out;
    out << banner("#") << "\nexport {\n";
    for (const StubPiece& piece : bif_.stub) {
      if (piece.kind == StubPiece::kComment)
        out << piece.text << "\n";
      else if (piece.kind == StubPiece::kModule)
        out << "module " << piece.text << ";\n";
      else
        out << stub_function(bif_.items[piece.index]);
    }
    out << "} # end of export section\nmodule GLOBAL;\n";
    return out.str();
  }

 private:
  std::string banner(const std::string& comment) const {
    return comment + " Generated by bifcl from " + file_ + ": changes here are lost.\n";
  }

  /// Outermost first, e.g. BifType, Record, LogZMQ.
  static std::vector<std::string> namespaces(const Item& item) {
    std::vector<std::string> result;
    if (item.kind == ItemKind::kConst)
      result = {"BifConst"};
    else if (item.kind == ItemKind::kType)
      result = {"BifType", TypeCategory(item.type).name};
    else
      result = {"BifFunc"};
    if (!item.module.empty())
      result.push_back(item.module);
    return result;
  }

  static std::string in_namespaces(const Item& item, const std::string& text) {
    std::string open;
    std::string close;
    for (const std::string& name : namespaces(item)) {
      open += "namespace " + name + " { ";
      close += " }";
    }
    return open + text + close + "\n";
  }

  static std::string cpp_name(const Item& item) {
    std::string result;
    for (const std::string& name : namespaces(item))
      result += name + "::";
    return result + (item.kind == ItemKind::kFunction ? "bro_" : "") + item.name;
  }

  static std::string variable(const Item& item) {
    const std::string type =
        item.kind == ItemKind::kConst ? mapping_of(item.type).cpp : TypeCategory(item.type).cpp();
    return type + " " + item.name;
  }

  static std::string declaration(const Item& item) {
    return "extern Val* bro_" + item.name + "(Frame* frame, val_list* BiF_ARGS)";
  }

  static std::string definition(const Item& item) {
    std::ostringstream out;
    out << "Val* " << cpp_name(item) << "(Frame* frame, val_list* BiF_ARGS)\n\t{\n\t(void) frame;\n"
        << count_check(item);
    for (std::size_t i = 0; i < item.arguments.size(); ++i)
      out << argument(item.arguments[i], i);
    out << without_trailing_blanks(item.body) << "\n\t}\n";
    return out.str();
  }

  static std::string count_check(const Item& item) {
    const std::string count = std::to_string(item.arguments.size());
    if (item.varargs && item.arguments.empty())
      return "\t(void) BiF_ARGS;\n";
    return "\tif ( BiF_ARGS->length() " + std::string(item.varargs ? "<" : "!=") + " " + count +
           " )\n\t\t{\n\t\treporter->Error(\"" + item.full_name() + "() takes " +
           (item.varargs ? "at least " : "exactly ") + count +
           " argument(s)\");\n\t\treturn 0;\n\t\t}\n";
  }

  static std::string argument(const Argument& argument, std::size_t index) {
    const std::string value = "(*BiF_ARGS)[" + std::to_string(index) + "]";
    const TypeMapping& mapping = mapping_of(argument.type);
    const bool is_connection = argument.type == "connection";
    const std::string type = is_connection ? "Connection*" : mapping.cpp;
    const std::string from = is_connection
                                 ? "(Connection*) (" + value + "->AsRecordVal()->GetOrigin())"
                                 : value + mapping.accessor;
    return "\t" + type + " " + argument.name + " = " + from + ";\n\t(void) " + argument.name +
           ";\n";
  }

  static std::string binding(const Item& item) {
    const std::string name = "\"" + item.full_name() + "\"";
    if (item.kind == ItemKind::kConst)
      return cpp_name(item) + " = internal_const_val(" + name + ")" +
             mapping_of(item.type).accessor + ";";
    if (item.kind == ItemKind::kType)
      return cpp_name(item) + " = internal_type(" + name + ")" +
             TypeCategory(item.type).accessor() + ";";
    return "(void) new BuiltinFunc(" + cpp_name(item) + ", " + name + ", 0);";
  }

  static const char* item_kind(const Item& item) {
    switch (item.kind) {
      case ItemKind::kConst:
        return "CONSTANT";
      case ItemKind::kType:
        return "TYPE";
      case ItemKind::kFunction:
        break;
    }
    return "FUNCTION";
  }

  static std::string stub_function(const Item& item) {
    std::string arguments;
    for (const Argument& argument : item.arguments)
      arguments += (arguments.empty() ? "" : ", ") + argument.name + ": " + argument.type + " " +
                   argument.attributes;
    if (item.varargs)
      arguments += arguments.empty() ? "va_args: any" : ", va_args: any";
    return "global " + item.name + ": function(" + arguments + "): " + item.type + " ;\n";
  }

  BifFile bif_;
  std::string plugin_;
  std::string file_;       // without folders: zmq.bif
  std::string stem_;       // zmq
  std::string namespace_;  // NS_NAME
};

// ---------------------------------------------------------------------------------------------
// The program

std::string read_whole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw BifError(path + ": cannot be read");
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_whole(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out)
    throw BifError(path + ": cannot be written");
  out << content;
  if (!out.flush()) {
    out.close();
    std::remove(path.c_str());
    throw BifError(path + ": cannot be written");
  }
}

void compile(const std::string& plugin, const std::string& path) {
  const std::string file = path.substr(path.find_last_of('/') + 1);
  const Generator generator(Parser(path, read_whole(path)).parse(), plugin, file);
  write_whole(file + ".h", generator.header());
  write_whole(file + ".cc", generator.source());
  write_whole(file + ".init.cc", generator.init_source());
  write_whole(file + ".register.cc", generator.register_source());
  write_whole(file + ".bro", generator.stub());
}

bool is_plugin_name(const std::string& name) {
  const std::size_t colons = name.find("::");
  if (colons == std::string::npos || colons == 0 || colons + 2 == name.size())
    return false;
  const std::string plain = name.substr(0, colons) + name.substr(colons + 2);
  return std::all_of(plain.begin(), plain.end(), is_word);
}

const char kUsage[] =
    "usage: bifcl -p NS::NAME FILE.bif\n"
    "Writes FILE.bif.{h,cc,init.cc,register.cc,bro} into the current folder.\n";

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 1 && (words[0] == "-h" || words[0] == "--help")) {
    std::cout << kUsage;
    return 0;
  }
  if (words.size() != 3 || words[0] != "-p") {
    std::cerr << kUsage;
    return 2;
  }
  if (!is_plugin_name(words[1])) {
    std::cerr << "bifcl: \"" << words[1] << "\" is no plug-in name; the form is NS::NAME\n";
    return 2;
  }
  try {
    compile(words[1], words[2]);
  } catch (const BifError& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
  return 0;
}
