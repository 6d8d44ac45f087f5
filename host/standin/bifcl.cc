// bifcl: makes the C++ glue and the script stub of a dynamic plug-in out of a .bif file, as the
// host's own interface generator does, for a build without a host.
//
//     bifcl -p NS::NAME path/to/zmq.bif
//
// writes zmq.bif.{h,cc,init.cc,register.cc,bro} into the current folder. It knows what src/zmq.bif
// holds: module, C++ segments, string constants, record types, functions of a connection or of
// nothing, and comments. Everything else is refused with file and line, also the stand-alone words
// T and F in C++ text, on which the host's generator stumbles. Nothing is written when there is an
// error.

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

/// What the five files hold, besides what stands around it.
struct Glue {
  std::string declarations;  // in namespaces
  std::string segments;      // C++ text between %%{ and %%}
  std::string globals;
  std::string functions;
  std::string bindings;  // statements of the initialiser
  std::string stub;
};

class Compiler {
 public:
  Compiler(const std::string& file, const std::string& text) : file_(file), text_(text) {}

  /// Throws std::runtime_error ("FILE:LINE: ...") for what it does not know.
  Glue Compile() {
    // A comment with ## is kept for the stub, one with # is dropped.
    static const std::regex blank(R"(\s+|#(?!#).*)"), comment(R"(##.*)");
    static const std::regex module(R"(module\s+(\w+)\s*;)");
    static const std::regex segment(R"(%%\{([\s\S]*?)%%\})");
    static const std::regex constant(R"(const\s+(\w+)\s*:\s*string\s*;)");
    static const std::regex type(R"(type\s+(\w+)\s*:\s*record\s*;)");
    static const std::regex function(
        R"(function\s+(\w+)\s*%\(\s*(?:(\w+)\s*:\s*connection\s*)?%\)\s*:\s*(\w+)\s*%\{([\s\S]*?)%\})");
    while (at_ < text_.size()) {
      if (Take(blank))
        continue;
      if (Take(comment))
        glue_.stub += match_.str() + "\n";
      else if (Take(module))
        Module(match_[1]);
      else if (Take(segment))
        glue_.segments += CppText(1) + "\n";
      else if (Take(constant))
        Constant(match_[1]);
      else if (Take(type))
        Type(match_[1]);
      else if (Take(function))
        Function(match_[1], match_[2], match_[3], CppText(4));
      else
        Refuse(at_);
    }
    return glue_;
  }

 private:
  [[noreturn]] void Fail(std::size_t at, const std::string& what) const {
    const auto line = std::count(text_.begin(), text_.begin() + static_cast<long>(at), '\n') + 1;
    throw std::runtime_error(file_ + ":" + std::to_string(line) + ": " + what);
  }

  [[noreturn]] void Refuse(std::size_t at) const {
    Fail(at, "syntax error, at or near \"" + text_.substr(at, text_.find('\n', at) - at) +
                 "\": this compiler knows module NAME; %%{ ... %%}, const NAME: string; type NAME: "
                 "record; and function NAME%(ARGUMENT: connection%): TYPE %{ ... %}, the argument "
                 "being optional");
  }

  bool Take(const std::regex& what) {
    const auto begin = text_.cbegin() + static_cast<long>(at_);
    if (!std::regex_search(begin, text_.cend(), match_, what,
                           std::regex_constants::match_continuous))
      return false;
    taken_at_ = at_;
    at_ += static_cast<std::size_t>(match_.length());
    return true;
  }

  /// A group of the match that is C++ text.
  std::string CppText(std::size_t group) const {
    static const std::regex words(R"("(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])*'|\b[TF]\b|@)");
    const std::string text = match_[group];
    for (std::sregex_iterator word(text.begin(), text.end(), words), end; word != end; ++word) {
      const std::size_t at = taken_at_ + static_cast<std::size_t>(match_.position(group)) +
                             static_cast<std::size_t>(word->position());
      if (word->str() == "@")
        Fail(at, "macros of the host's generator are not known here");
      if (word->length() == 1)
        Fail(at, "syntax error, at or near \"" + word->str() +
                     "\": the host's generator takes this word for a truth value; put such code "
                     "into a .cc file");
    }
    return text;
  }

  void Module(const std::string& name) {
    module_ = name;
    glue_.stub += "module " + name + ";\n";
  }

  std::string FullName(const std::string& name) const {
    return module_.empty() ? name : module_ + "::" + name;
  }

  /// `text` in the namespace `outer` and that of the module.
  std::string InNamespaces(const std::string& outer, const std::string& text) const {
    const std::string inner = module_.empty() ? text : "namespace " + module_ + " { " + text + " }";
    return "namespace " + outer + " { " + inner + " }";
  }

  void Variable(const std::string& outer, const std::string& variable) {
    const std::string end = outer == "BifConst" ? "" : " }";
    glue_.declarations += InNamespaces(outer, "extern " + variable + ";") + end + "\n";
    glue_.globals += InNamespaces(outer, variable + " = 0;") + end + "\n";
  }

  void Bind(const std::string& name, const std::string& statement, const std::string& kind) {
    glue_.bindings += "\t" + statement + "\n\tplugin->AddBifItem(\"" + FullName(name) +
                      "\", plugin::BifItem::" + kind + ");\n";
  }

  void Constant(const std::string& name) {
    const std::string full = FullName(name);
    Variable("BifConst", "StringVal* " + name);
    Bind(name, "BifConst::" + full + " = internal_const_val(\"" + full + "\")->AsStringVal();",
         "CONSTANT");
  }

  void Type(const std::string& name) {
    const std::string full = FullName(name);
    Variable("BifType { namespace Record", "RecordType* " + name);
    Bind(name, "BifType::Record::" + full + " = internal_type(\"" + full + "\")->AsRecordType();",
         "TYPE");
  }

  void Function(const std::string& name, const std::string& argument, const std::string& result,
                const std::string& body) {
    const std::string count = argument.empty() ? "0" : "1";
    const std::string parameters = "(Frame* frame, val_list* BiF_ARGS)";
    const std::string cpp_name =
        "BifFunc::" + (module_.empty() ? "" : module_ + "::") + "bro_" + name;
    glue_.declarations +=
        InNamespaces("BifFunc", "extern Val* bro_" + name + parameters + ";") + "\n";
    glue_.functions += "\nVal* " + cpp_name + parameters +
                       "\n\t{\n\t(void) frame;\n\tif ( BiF_ARGS->length() != " + count +
                       " )\n\t\t{\n\t\treporter->Error(\"" + FullName(name) + "() takes exactly " +
                       count + " argument(s)\");\n\t\treturn 0;\n\t\t}\n";
    if (!argument.empty())
      glue_.functions += "\tConnection* " + argument +
                         " = (Connection*) ((*BiF_ARGS)[0]->AsRecordVal()->GetOrigin());\n"
                         "\t(void) " +
                         argument + ";\n";
    glue_.functions += body.substr(0, body.find_last_not_of(" \t\n") + 1) + "\n\t}\n";
    Bind(name, "(void) new BuiltinFunc(" + cpp_name + ", \"" + FullName(name) + "\", 0);",
         "FUNCTION");
    glue_.stub += "global " + name + ": function(" +
                  (argument.empty() ? "" : argument + ": connection ") + "): " + result + " ;\n";
  }

  const std::string file_;
  const std::string text_;
  std::size_t at_ = 0;
  std::size_t taken_at_ = 0;  // where the match begins
  std::smatch match_;
  std::string module_;  // empty: the global scope
  Glue glue_;
};

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!(out << content).flush())
    throw std::runtime_error(path + ": cannot be written");
}

void compile(const std::string& plugin, const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (!in)
    throw std::runtime_error(path + ": cannot be read");
  const Glue glue = Compiler(path, text).Compile();

  const std::string file = path.substr(path.find_last_of('/') + 1);
  const std::string stem = file.substr(0, file.find('.'));
  const std::string space = std::regex_replace(plugin, std::regex("::"), "_");
  const std::string guard = "BIF_" + space + "_" + stem + "_bif_H";
  const std::string open = "namespace plugin { namespace " + space + " {\n\n";
  const std::string init = "__bif_" + stem + "_init";
  const std::string made = " Generated by bifcl from " + file + ": changes here are lost.\n";
  write_file(file + ".h", "//" + made + "\n#ifndef " + guard + "\n#define " + guard +
                              "\n\n#include \"bro-bif.h\"\n\n" + glue.declarations + "\n#endif\n");
  write_file(file + ".cc", "//" + made + "\n#include \"" + file + ".h\"\n" + glue.segments +
                               glue.globals + glue.functions);
  write_file(file + ".init.cc",
             "//" + made + "\n#include <list>\n#include <string>\n#include \"plugin/Plugin.h\"\n" +
                 "#include \"" + file + ".h\"\n\n" + open + "void " + init +
                 "(plugin::Plugin* plugin)\n\t{\n" + glue.bindings + "\t}\n\n} }\n");
  write_file(file + ".register.cc",
             "//" + made + "\n#include \"plugin/Manager.h\"\n\n" + open + "void " + init +
                 "(plugin::Plugin* plugin);\n::plugin::__RegisterBif __register_bifs_" + space +
                 "_" + stem + "(\"" + plugin + "\", " + init + ");\n\n} }\n");
  write_file(file + ".bro", "#" + made + "\nexport {\n" + glue.stub +
                                "} # end of export section\nmodule GLOBAL;\n");
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() != 3 || words[0] != "-p" ||
      !std::regex_match(words[1], std::regex(R"(\w+::\w+)"))) {
    std::cerr << "usage: bifcl -p NS::NAME FILE.bif\n"
                 "Writes FILE.bif.{h,cc,init.cc,register.cc,bro} into the current folder.\n";
    return 2;
  }
  try {
    compile(words[1], words[2]);
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
  return 0;
}
