// Completion of the command line. The scripts of the three shells ask the program itself: they run
// "zmqwriter __complete WORD...", where the last word is the one to complete, and show the answer.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Output.h"

namespace zmqwriter {

namespace {

const char kBash[] =
    R"script(# bash completion of zmqwriter, as 'zmqwriter completion bash' prints it

# For bash 3.2, the one of macOS, and newer.
_zmqwriter() {
    local words=() word glue='' current=${COMP_WORDS[COMP_CWORD]} whole split kind before line
    # Readline splits words at ':' and '='.
    for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
        if [[ ${#words[@]} -gt 0 && ( -n $glue || $word == [:=]* ) ]]; then
            words[${#words[@]} - 1]+=$word
        else
            words+=("$word")
        fi
        [[ $word == [:=]* ]] && glue=yes || glue=
    done
    whole=${words[${#words[@]} - 1]}
    [[ $current != [:=]* ]] || current=
    split=${whole%"$current"}  # readline replaces only what follows

    COMPREPLY=()
    {
        IFS=$'\t' read -r kind before
        while IFS=$'\t' read -r line _; do COMPREPLY+=("$line"); done
    } < <("${COMP_WORDS[0]/#~\//$HOME/}" __complete "${words[@]}" 2>/dev/null)
    if [[ $kind == -[fd] ]]; then
        compopt -o filenames 2>/dev/null
        while IFS= read -r line; do COMPREPLY+=("$before$line"); done \
            < <(compgen "$kind" -- "${whole#"$before"}")
    fi
    COMPREPLY=("${COMPREPLY[@]#"$split"}")
}

complete -F _zmqwriter zmqwriter
)script";

const char kZsh[] = R"script(#compdef zmqwriter
# zsh completion of zmqwriter, as 'zmqwriter completion zsh' prints it

_zmqwriter() {
    local -a lines candidates
    lines=("${(@f)$(${~words[1]} __complete "${(@Q)words[2,CURRENT]}" 2>/dev/null)}")
    if [[ $lines[1] == -* ]]; then
        compset -P "${(b)lines[1]#*$'\t'}"
        _files ${${(M)lines[1]:#-d*}:+-/}
    else
        candidates=("${(@)${(@)lines[2,-1]//:/\\:}/$'\t'/:}")
        _describe zmqwriter candidates
    fi
}

# As a file in $fpath this is the function's body.
if [[ $funcstack[1] == _zmqwriter ]]; then
    _zmqwriter "$@"
else
    compdef _zmqwriter zmqwriter
fi
)script";

const char kFish[] =
    R"script(# fish completion of zmqwriter, as 'zmqwriter completion fish' prints it

function __zmqwriter_complete
    set -l words (commandline -opc) (commandline -ct)
    set -l lines ($words[1] __complete $words[2..-1] 2>/dev/null)
    set -l answer (string split -m 1 \t -- $lines[1])
    set -l begun (string sub -s (math (string length -- "$answer[2]") + 1) -- $words[-1])
    switch $answer[1]
        case -f
            printf "$answer[2]%s\n" (__fish_complete_path $begun)
        case -d
            printf "$answer[2]%s\n" (__fish_complete_directories $begun)
        case '*'
            printf '%s\n' $lines[2..-1]
    end
end

complete -c zmqwriter -f -a '(__zmqwriter_complete)'
)script";

/// What --help says of an option's value.
struct Value {
  std::string kind;  // "-f" is the name of a file, "-d" of a folder, as bash's compgen has it
  std::vector<std::string> words;
};

Value value_of(const CLI::Option& option) {
  Value value;
  // CLI11 names a set of values as in "TEXT:{json,text}".
  const std::string names = option.get_name(true) + ':' + option.get_type_name();
  for (const std::string& name : CLI::detail::split(names, ':')) {
    if (name == "FILE" || name == "LOG")
      value.kind = "-f";
    else if (name == "DIR" || name == "FOLDER")
      value.kind = "-d";
    else if (name[0] == '{')
      value.words = CLI::detail::split(name.substr(1, name.size() - 2), ',');
  }
  return value;
}

/// Null for a flag, or when there is no such option.
const CLI::Option* option_with_value(const CLI::App& command, const std::string& name) {
  const CLI::Option* const option = command.get_option_no_throw(name);
  return option && option->get_items_expected_max() > 0 ? option : nullptr;
}

/// The operand that follows `taken` others; null when there is none.
const CLI::Option* next_operand(const CLI::App& command, std::size_t taken) {
  for (const CLI::Option* option : command.get_options())
    if (option->get_positional() && (option->get_expected_max() > 1 || taken-- == 0))
      return option;
  return nullptr;
}

}  // namespace

std::string complete(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* command = &app;
  const CLI::Option* asked = nullptr;  // whose value the next word is
  std::size_t operands = 0;
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    const auto named = command->get_subcommands(
        [&](const CLI::App* subcommand) { return subcommand->check_name(words[i]); });
    if (asked)
      asked = nullptr;
    else if (words[i][0] == '-')
      asked = option_with_value(*command, words[i]);
    else if (named.empty())
      ++operands;
    else
      command = named.front();
  }

  const std::string current = words.empty() ? "" : words.back();
  const bool is_option = !asked && current[0] == '-';
  const auto subcommands = command->get_subcommands([](const CLI::App*) { return true; });
  std::string before;
  if (is_option && current.find('=') != std::string::npos) {
    before = current.substr(0, current.find('=') + 1);
    asked = option_with_value(*command, before.substr(0, before.size() - 1));
  } else if (!asked && !is_option && subcommands.empty()) {
    asked = next_operand(*command, operands);
  }
  const Value value = asked ? value_of(*asked) : Value();
  std::string answer = value.kind + '\t' + before + '\n';
  const auto add = [&](const std::string& word, const std::string& description) {
    if (word.compare(0, current.size(), current) == 0)
      answer += word + '\t' + description + '\n';
  };
  for (const std::string& word : value.words)
    add(before + word, "");
  if (!asked && !is_option)
    for (const CLI::App* subcommand : subcommands)
      add(subcommand->get_name(), subcommand->get_description());
  if (!asked && (is_option || subcommands.empty()))
    for (const CLI::Option* option : command->get_options())
      for (const std::string& name : CLI::detail::split(option->get_name(false, true), ','))
        if (name[0] == '-')
          add(name, option->get_description());
  return answer;
}

void add_completion_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("completion", "Print the completion script for a shell");
  command->footer(
      "The scripts are installed with the program. Without an installation:\n"
      "  bash: source <(zmqwriter completion bash)\n"
      "  zsh:  source <(zmqwriter completion zsh), after compinit\n"
      "  fish: zmqwriter completion fish | source");
  const auto shell = std::make_shared<std::string>();
  command->add_option("SHELL", *shell, "bash, zsh or fish")
      ->required()
      ->type_name("")
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));
  command->callback([shell, exit_code] {
    Output out;
    out.Write(*shell == "bash" ? kBash : *shell == "zsh" ? kZsh : kFish);
    out.Finish();
    *exit_code = 0;
  });
}

}  // namespace zmqwriter
