"""The shells' completion, driven in the shells themselves, against what --help says."""

import os
import shutil
import subprocess
import unittest

from cli_support import CliTest, DEADLINE, ZMQWRITER, write_file
from help_tree import help_tree

# Each driver asks for the completion of the command line that each line of standard input holds,
# words separated by tabs, the last one under the cursor. It prints a line of candidates with tabs.
BASH_DRIVER = r"""
source ./completion
while IFS= read -r line; do
    COMP_WORDS=()
    while [[ $line == *$'\t'* ]]; do
        COMP_WORDS+=("${line%%$'\t'*}")
        line=${line#*$'\t'}
    done
    COMP_WORDS+=("$line")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    "$(complete -p zmqwriter | sed 's/.*-F \([^ ]*\) .*/\1/')"
    (IFS=$'\t'; printf '%s\n' "${COMPREPLY[*]}")
done
"""
# With zsh's builtins of completion as far as they are used: they print.
ZSH_DRIVER = r"""
compdef() { :; }
compset() { PREFIX=${PREFIX#${~2}}; }
_files() { print -n "<files>\t"; for word in $* $PREFIX; do print -rn -- $word$'\t'; done; }
_describe() { for word in ${(MP)2:#$PREFIX*}; do print -rn -- ${word%%:*}$'\t'; done; }
source ./completion
while IFS= read -r line; do
    words=("${(@ps:\t:)line}")
    CURRENT=$#words
    PREFIX=$words[-1]
    _zmqwriter
    print
done
"""
FISH_DRIVER = r"""
source ./completion
while read -l line
    echo (complete -C (string replace -a \t ' ' -- $line) | string split -f 1 \t | string join \t)
end
"""
SHELLS = {"bash": ["bash", "--norc", "-c", BASH_DRIVER], "zsh": ["zsh", "-f", "-c", ZSH_DRIVER],
          "fish": ["fish", "--no-config", "-c", FISH_DRIVER]}
# The scripts call the program by the name that was typed. No shell reads a user's own files.
ENVIRONMENT = dict(os.environ, HOME="/nonexistent", XDG_CONFIG_HOME="/nonexistent",
                   ZDOTDIR="/nonexistent",
                   PATH=os.path.dirname(ZMQWRITER) + os.pathsep + os.environ["PATH"])


class CompletionTest(CliTest):
    def setUp(self):
        super().setUp()
        os.mkdir("logs")
        write_file("a file.log", "")
        write_file("server.secret", "")

    def run_shell(self, shell, arguments, text=""):
        if not shutil.which(shell):
            self.skipTest(shell + " is not installed")
        write_file("completion", self.run_tool("completion", shell).stdout)
        result = subprocess.run(arguments, input=text, capture_output=True, timeout=DEADLINE,
                                text=True, env=ENVIRONMENT)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        return result.stdout

    def check(self, shell, expected):
        """Beside what --help says, `expected`: words, and the candidates for the last one."""
        for command in help_tree():
            options = [name for name in command.options if name.startswith("--")]
            expected += [(command.path + ["--"], options)]
            expected += [(command.path + [""], command.subcommands)] * bool(command.subcommands)
            expected += [(command.path + [option, ""], words)
                         for option, words in command.words.items()]
        self.assertIn((["collect", "--format", ""], ["json", "text", "raw"]), expected)
        lines = "".join("\t".join(["zmqwriter"] + words) + "\n" for words, _ in expected)
        found = self.run_shell(shell, SHELLS[shell], lines).split("\n")[:-1]
        self.assertEqual(len(found), len(expected))
        for line, (words, candidates) in zip(found, expected):
            self.assertEqual(sorted(filter(None, line.split("\t"))), sorted(candidates), words)

    def test_bash_completes_words_values_and_names(self):
        self.check("bash", [
            (["spool", "d"], ["dump"]), (["spool", "dump", "--r"], ["--raw"]), (["nonsense"], []),
            # Readline hands ':' and '=' over as words, unless COMP_WORDBREAKS was changed.
            (["collect", "--format", "="], ["json", "text", "raw"]),
            (["collect", "--format", "=", "r"], ["raw"]),
            (["collect", "--format=r"], ["--format=raw"]),
            (["collect", "--bind", "tcp", ":", "//127.0.0.1", ":", "5555", "--secret"],
             ["--secret-key"]),
            (["replay", "--set", "LogZMQ", "::", "zmq_agent_id", "=", "a", "a"], ["a file.log"]),
            # A value is no subcommand, and a flag has none.
            (["spool", "--help", "re"], ["repair"]), (["keygen", "--dir", "spool", "--d"], ["--dir"]),
            (["collect", "--count", ""], []),
            (["decode", "a"], ["a file.log"]), (["replay", "one.log", "a"], ["a file.log"]),
            (["collect", "--secret-key", "s"], ["server.secret"]),
            (["keygen", "--dir", ""], ["logs"]), (["spool", "list", ""], ["logs"]),
            (["completion", "f"], ["fish"]), (["completion", "fish", ""], ["-h", "--help"])])

    def test_zsh_completes_words_values_and_names(self):
        self.check("zsh", [
            (["collect", "--format=r"], ["--format=raw"]), (["decode", "ser"], ["<files>", "ser"]),
            (["collect", "--output=ser"], ["<files>", "ser"]),
            (["spool", "list", "l"], ["<files>", "-/", "l"]),
            (["keygen", "--dir", "l"], ["<files>", "-/", "l"])])

    def test_fish_completes_words_and_names(self):
        self.check("fish", [
            (["decode", "ser"], ["server.secret"]),
            (["collect", "--secret-key", "ser"], ["server.secret"]),
            (["spool", "list", "l"], ["logs/"]), (["keygen", "--dir", "l"], ["logs/"])])

    def test_bash_and_zsh_bind_the_function_to_the_program(self):
        for shell, options, command in (
                ("bash", "--norc", "source ./completion; complete -p zmqwriter"),
                ("zsh", "-f", "autoload -U compinit; compinit -D; source ./completion; "
                              "print $_comps[zmqwriter] zmqwriter")):
            bound = self.run_shell(shell, [shell, options, "-c", command])
            self.assertEqual(bound.split()[-2:], ["_zmqwriter", "zmqwriter"])


if __name__ == "__main__":
    unittest.main()
