#include "Commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Output.h"

namespace zmqwriter {

namespace {

// ---- the commands, as the parser knows them ----

enum class Values { kNone, kAny, kFiles, kFolders, kWords };

/// An option, or an operand (then without names).
struct Argument {
  std::vector<std::string> names;  // with their dashes
  std::string label;               // what stands for the value in --help
  std::string description;
  Values values = Values::kNone;
  std::vector<std::string> words;  // for kWords
  bool repeats = false;
};

struct Command {
  std::string path;  // the words behind the program's name, e.g. "spool list"; empty for itself
  std::vector<const CLI::App*> subcommands;
  std::vector<Argument> options;
  std::vector<Argument> operands;
};

/// The set of values in a type's name such as "TEXT:{json,text}"; empty when there is none. That is
/// where CLI11 keeps it.
std::vector<std::string> words_of(const std::string& type_name) {
  const std::size_t open = type_name.find('{');
  const std::size_t close = type_name.find('}', open == std::string::npos ? 0 : open);
  if (open == std::string::npos || close == std::string::npos)
    return {};
  return CLI::detail::split(type_name.substr(open + 1, close - open - 1), ',');
}

/// What the names of types and operands in --help say.
Values values_of(const std::string& label) {
  for (const std::string& part : CLI::detail::split(label, ':')) {
    if (part == "FILE" || part == "LOG")
      return Values::kFiles;
    if (part == "DIR" || part == "FOLDER")
      return Values::kFolders;
  }
  return Values::kAny;
}

Argument argument_of(const CLI::Option& option) {
  Argument argument;
  for (const std::string& name : option.get_snames())
    argument.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames())
    argument.names.push_back("--" + name);
  argument.description = option.get_description();
  argument.repeats = option.get_expected_max() > 1;
  if (option.get_items_expected_max() == 0)  // a flag
    return argument;
  argument.words = words_of(option.get_type_name());
  argument.label = argument.words.empty() ? option.get_type_name() : "VALUE";
  if (option.get_positional())
    argument.label = option.get_name(true);
  argument.values = argument.words.empty() ? values_of(argument.label) : Values::kWords;
  return argument;
}

void walk(const CLI::App& app, const std::string& path, std::vector<Command>* commands) {
  Command command;
  command.path = path;
  command.subcommands = app.get_subcommands([](const CLI::App*) { return true; });
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_group().empty())  // not in --help either
      continue;
    const Argument argument = argument_of(*option);
    (argument.names.empty() ? command.operands : command.options).push_back(argument);
  }
  commands->push_back(command);
  for (const CLI::App* subcommand : command.subcommands)
    walk(*subcommand, (path.empty() ? "" : path + " ") + subcommand->get_name(), commands);
}

// ---- text ----

std::string joined(const std::vector<std::string>& words) {
  return CLI::detail::join(words, " ");
}

std::vector<std::string> names_of(const std::vector<const CLI::App*>& commands) {
  std::vector<std::string> names;
  for (const CLI::App* command : commands)
    names.push_back(command->get_name());
  return names;
}

/// `text` with a backslash before each of `special`.
std::string escaped(const std::string& text, const std::string& special) {
  std::string result;
  for (const char c : text) {
    if (special.find(c) != std::string::npos)
      result += '\\';
    result += c;
  }
  return result;
}

/// In single quotes for bash and zsh.
std::string quoted(const std::string& text) {
  return "'" + CLI::detail::find_and_replace(text, "'", "'\\''") + "'";
}

std::string quoted_for_fish(const std::string& text) {
  return "'" + escaped(text, "\\'") + "'";
}

// ---- bash ----

/// The word that __zmqwriter_values answers with.
std::string bash_values(const Argument& argument) {
  switch (argument.values) {
    case Values::kNone:
      return "";
    case Values::kAny:
      return "<any>";
    case Values::kFiles:
      return "<file>";
    case Values::kFolders:
      return "<folder>";
    case Values::kWords:
      return joined(argument.words);
  }
  return "";
}

void bash_case(std::ostream& out, const std::string& key, const std::string& answer) {
  if (!answer.empty())
    out << "        " << quoted(key) << ") echo " << quoted(answer) << " ;;\n";
}

void bash_tables(std::ostream& out, const std::vector<Command>& commands) {
  out << "__zmqwriter_subcommands() {  # of the command $1\n    case $1 in\n";
  for (const Command& command : commands)
    bash_case(out, command.path, joined(names_of(command.subcommands)));
  out << "    esac\n}\n\n__zmqwriter_options() {  # of the command $1\n    case $1 in\n";
  for (const Command& command : commands) {
    std::vector<std::string> names;
    for (const Argument& option : command.options)
      names.insert(names.end(), option.names.begin(), option.names.end());
    bash_case(out, command.path, joined(names));
  }
  out << "    esac\n}\n\n"
         "# What the command $1 takes behind the option $2, or as its $2nd operand ('*': any\n"
         "# further one): words, or the kind of them. Nothing for an option without a value.\n"
         "__zmqwriter_values() {\n    case \"$1|$2\" in\n";
  for (const Command& command : commands) {
    for (const Argument& option : command.options)
      for (const std::string& name : option.names)
        bash_case(out, command.path + "|" + name, bash_values(option));
    for (std::size_t i = 0; i < command.operands.size(); ++i) {
      const Argument& operand = command.operands[i];
      bash_case(out, command.path + "|" + (operand.repeats ? "*" : std::to_string(i + 1)),
                bash_values(operand));
    }
  }
  out << "    esac\n}\n";
}

// Keeps to what bash 3.2 has, the one of macOS.
const char kBashBody[] = R"(
_zmqwriter() {
    local current=${COMP_WORDS[COMP_CWORD]} prefix='' values='' line
    local command='' option='' operands=0 word next i
    COMPREPLY=()

    # What stands before the cursor: the command, its operands, an option that wants its value.
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == [:=]* ]]; then
            # Readline splits words at ':' and '='. The latter behind an option leads to its value;
            # otherwise what follows belongs to the word before.
            [[ -n $option && $word == '=' ]] || ((i++))
        elif [[ -n $option ]]; then
            option=''
        elif [[ $word == -* ]]; then
            [[ $word == *=* || -z $(__zmqwriter_values "$command" "$word") ]] || option=$word
        else
            next=$(__zmqwriter_subcommands "$command")
            if [[ " $next " == *" $word "* ]]; then
                command=${command:+$command }$word
            else
                ((operands++))
            fi
        fi
    done

    if [[ -n $option ]]; then
        [[ $current == '=' ]] && current=''
        values=$(__zmqwriter_values "$command" "$option")
    elif [[ $current == --*=* ]]; then
        prefix=${current%%=*}=
        values=$(__zmqwriter_values "$command" "${prefix%=}")
        current=${current#*=}
    elif [[ $current == -* ]]; then
        values=$(__zmqwriter_options "$command")
    else
        values=$(__zmqwriter_subcommands "$command")
        [[ -n $values ]] || values=$(__zmqwriter_values "$command" $((operands + 1)))
        [[ -n $values ]] || values=$(__zmqwriter_values "$command" '*')
        [[ -n $values ]] || values=$(__zmqwriter_options "$command")
    fi

    case $values in
        '' | '<any>') return ;;
        '<file>' | '<folder>') compopt -o filenames 2>/dev/null ;;
    esac
    while IFS= read -r line; do
        COMPREPLY+=("$prefix$line")
    done < <(
        case $values in
            '<file>') compgen -f -- "$current" ;;
            '<folder>') compgen -d -- "$current" ;;
            *) compgen -W "$values" -- "$current" ;;
        esac
    )
}

complete -F _zmqwriter zmqwriter
)";

std::string bash_script(const std::vector<Command>& commands) {
  std::ostringstream out;
  out << "# bash completion of zmqwriter, as 'zmqwriter completion bash' prints it\n\n";
  bash_tables(out, commands);
  out << kBashBody;
  return out.str();
}

// ---- zsh ----

std::string zsh_function(const std::string& path) {
  std::string name = path.empty() ? "_zmqwriter" : "_zmqwriter_" + path;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

std::string zsh_values(const Argument& argument) {
  const std::string label = ":" + escaped(argument.label, ":\\") + ":";
  switch (argument.values) {
    case Values::kNone:
      return "";
    case Values::kAny:
      return label + " ";
    case Values::kFiles:
      return label + "_files";
    case Values::kFolders:
      return label + "_files -/";
    case Values::kWords:
      return label + "(" + joined(argument.words) + ")";
  }
  return "";
}

void zsh_option(std::ostream& out, const Argument& option) {
  for (const std::string& name : option.names) {
    // The value is the next word, or follows at once: behind '=' when the name is a long one.
    const char* const joint = option.values == Values::kNone  ? ""
                              : name.compare(0, 2, "--") == 0 ? "="
                                                              : "+";
    const std::string before = option.repeats ? "*" : "(" + joined(option.names) + ")";
    out << " \\\n        "
        << quoted(before + name + joint + "[" + escaped(option.description, "[]\\:") + "]" +
                  zsh_values(option));
  }
}

void zsh_command(std::ostream& out, const Command& command) {
  out << "\n" << zsh_function(command.path) << "() {\n";
  if (!command.subcommands.empty())
    out << "    local curcontext=$curcontext state state_descr line\n"
           "    typeset -A opt_args\n";
  out << "    _arguments" << (command.subcommands.empty() ? "" : " -C");
  for (const Argument& option : command.options)
    zsh_option(out, option);
  for (const Argument& operand : command.operands)
    out << " \\\n        " << quoted((operand.repeats ? "*" : "") + zsh_values(operand));
  if (command.subcommands.empty()) {
    out << "\n}\n";
    return;
  }
  out << " \\\n        '1:subcommand:->subcommand' '*::argument:->argument'\n"
         "    case $state in\n"
         "        subcommand)\n"
         "            local -a subcommands=(\n";
  for (const CLI::App* subcommand : command.subcommands)
    out << "                "
        << quoted(escaped(subcommand->get_name(), ":\\") + ":" + subcommand->get_description())
        << "\n";
  out << "            )\n"
         "            _describe subcommand subcommands ;;\n"
         "        argument)\n"
         "            case $line[1] in\n";
  const std::string path = command.path.empty() ? "" : command.path + " ";
  for (const CLI::App* subcommand : command.subcommands)
    out << "                " << subcommand->get_name() << ") "
        << zsh_function(path + subcommand->get_name()) << " ;;\n";
  out << "            esac ;;\n"
         "    esac\n"
         "}\n";
}

std::string zsh_script(const std::vector<Command>& commands) {
  std::ostringstream out;
  out << "#compdef zmqwriter\n# zsh completion of zmqwriter, as 'zmqwriter completion zsh' prints "
         "it\n";
  for (const Command& command : commands)
    zsh_command(out, command);
  // As a file in $fpath it is the function's body; sourced, it only makes it known.
  out << "\nif [[ $funcstack[1] == _zmqwriter ]]; then\n"
         "    _zmqwriter \"$@\"\n"
         "else\n"
         "    compdef _zmqwriter zmqwriter\n"
         "fi\n";
  return out.str();
}

// ---- fish ----

std::string fish_values(const Argument& argument) {
  switch (argument.values) {
    case Values::kNone:
      return "";
    case Values::kAny:
      return " -x";
    case Values::kFiles:
      return " -r -F";
    case Values::kFolders:
      return " -x -a '(__fish_complete_directories)'";
    case Values::kWords:
      return " -x -a " + quoted_for_fish(joined(argument.words));
  }
  return "";
}

void fish_head(std::ostream& out, const std::vector<Command>& commands) {
  out << "# fish completion of zmqwriter, as 'zmqwriter completion fish' prints it\n\n"
         "set -g __zmqwriter_commands";
  for (const Command& command : commands)
    if (!command.path.empty())
      out << ' ' << quoted_for_fish(command.path);
  out << "\nset -g __zmqwriter_options_with_value";
  for (const Command& command : commands)
    for (const Argument& option : command.options)
      for (const std::string& name : option.names)
        if (option.values != Values::kNone)
          out << " \\\n    " << quoted_for_fish(command.path + "|" + name);
}

const char kFishBody[] = R"(

# Whether the command before the cursor is $argv[1], e.g. 'spool list'.
function __zmqwriter_at
    set -l command ''
    set -l value_next no
    for word in (commandline -opc)[2..-1]
        if test $value_next = yes
            set value_next no
        else if contains -- "$command|$word" $__zmqwriter_options_with_value
            set value_next yes
        else
            set -l longer (string trim -- "$command $word")
            contains -- $longer $__zmqwriter_commands; and set command $longer
        end
    end
    test "$command" = "$argv[1]"
end

complete -c zmqwriter -f
)";

void fish_command(std::ostream& out, const Command& command) {
  const std::string at = "complete -c zmqwriter -n " +
                         quoted_for_fish("__zmqwriter_at " + quoted_for_fish(command.path));
  out << "\n";
  for (const CLI::App* subcommand : command.subcommands)
    out << at << " -a " << subcommand->get_name() << " -d "
        << quoted_for_fish(subcommand->get_description()) << "\n";
  for (const Argument& option : command.options) {
    out << at;
    for (const std::string& name : option.names)
      out << (name.compare(0, 2, "--") == 0 ? " -l " + name.substr(2) : " -s " + name.substr(1));
    out << fish_values(option) << " -d " << quoted_for_fish(option.description) << "\n";
  }
  for (const Argument& operand : command.operands)
    if (operand.values == Values::kFiles)
      out << at << " -F\n";
    else
      out << at << fish_values(operand) << "\n";
}

std::string fish_script(const std::vector<Command>& commands) {
  std::ostringstream out;
  fish_head(out, commands);
  out << kFishBody;
  for (const Command& command : commands)
    fish_command(out, command);
  return out.str();
}

int print_script(const CLI::App& app, const std::string& shell) {
  std::vector<Command> commands;
  walk(app, "", &commands);
  Output out;
  out.Write(shell == "bash"  ? bash_script(commands)
            : shell == "zsh" ? zsh_script(commands)
                             : fish_script(commands));
  out.Flush();
  if (out.failed())
    throw std::runtime_error(out.problem());
  return 0;
}

}  // namespace

void add_completion_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("completion", "Print a script that makes a shell complete this program");
  command->footer(
      "An installed program brings the scripts along. Otherwise, for the shell at hand:\n"
      "  bash: source <(zmqwriter completion bash)\n"
      "  zsh:  source <(zmqwriter completion zsh), behind compinit\n"
      "  fish: zmqwriter completion fish | source");
  const auto shell = std::make_shared<std::string>();
  command->add_option("SHELL", *shell, "bash, zsh or fish")
      ->required()
      ->type_name("")
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));
  command->callback([&app, shell, exit_code] { *exit_code = print_script(app, *shell); });
}

}  // namespace zmqwriter
