"""The shells' completion, driven in the shells themselves, against what --help says."""

import os
import shutil
import subprocess
import unittest

from cli_support import CliTest, DEADLINE, ZMQWRITER, write_file
from help_tree import help_tree

# Asks for the completion of the command line that each line of standard input holds, words separated
# by tabs; the last word is the one under the cursor. One line of candidates for each, with tabs.
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

# The same for zsh, with its builtins of completion as far as they are used: they print.
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

    def run_shell(self, arguments, **options):
        result = subprocess.run(arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                timeout=DEADLINE, universal_newlines=True, env=ENVIRONMENT,
                                **options)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        return result.stdout

    def script(self, shell):
        result = self.run_tool("completion", shell)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        write_file("completion", result.stdout)

    def check_against_help(self, complete):
        """`complete` takes lists of words and gives the candidates for each list's last word."""
        tree = help_tree()
        self.assertEqual(len(tree[0].subcommands), len(set(tree[0].subcommands)))
        found = complete([command.path + [""] for command in tree if command.subcommands])
        for command, candidates in zip((c for c in tree if c.subcommands), found):
            self.assertEqual(sorted(candidates), sorted(command.subcommands), command.path)
        found = complete([command.path + ["--"] for command in tree])
        for command, candidates in zip(tree, found):
            self.assertEqual(sorted(candidates),
                             sorted(name for name in command.options if name.startswith("--")))
        sets = [(command.path + [option], words) for command in tree
                for option, words in command.words.items()]
        self.assertIn((["collect", "--format"], ["json", "text", "raw"]), sets)
        for (path, words), candidates in zip(sets, complete([path + [""] for path, _ in sets])):
            self.assertEqual(sorted(candidates), sorted(words), path)

    def test_unknown_shell_is_wrong_usage(self):
        result = self.run_tool("completion", "tcsh")
        self.assertEqual((result.returncode, result.stdout), (2, b""))
        self.assertIn("{bash,zsh,fish}", result.stderr)

    # ---- bash ----

    def bash(self, lines):
        self.script("bash")
        output = self.run_shell(
            ["bash", "--norc", "-c", BASH_DRIVER],
            input="".join("\t".join(["zmqwriter"] + words) + "\n" for words in lines))
        answers = [line.split("\t") if line else [] for line in output.split("\n")[:-1]]
        self.assertEqual(len(answers), len(lines))
        return answers

    def expect_bash(self, words, candidates):
        self.assertEqual(sorted(self.bash([words])[0]), sorted(candidates), words)

    def test_bash_offers_what_help_says(self):
        self.check_against_help(self.bash)

    def test_bash_completes_begun_words(self):
        self.expect_bash(["dec"], ["decode"])
        self.expect_bash(["spool", "d"], ["dump"])
        self.expect_bash(["spool", "dump", "--r"], ["--raw"])
        self.expect_bash(["nonsense"], [])

    def test_bash_completes_values_behind_an_equals_sign(self):
        # Readline hands '=' over as a word of its own, unless COMP_WORDBREAKS was changed.
        self.expect_bash(["collect", "--format", "="], ["json", "text", "raw"])
        self.expect_bash(["collect", "--format", "=", "r"], ["raw"])
        self.expect_bash(["collect", "--format=r"], ["--format=raw"])

    def test_bash_knows_that_an_endpoint_of_several_words_is_one_value(self):
        self.expect_bash(["collect", "--bind", "tcp", ":", "//127.0.0.1", ":", "5555", "--secret"],
                         ["--secret-key"])
        self.expect_bash(["replay", "--set", "LogZMQ", "::", "zmq_agent_id", "=", "a", "a"],
                         ["a file.log"])

    def test_bash_takes_no_value_for_a_subcommand(self):
        self.expect_bash(["spool", "--help", "re"], ["repair"])
        self.expect_bash(["keygen", "--dir", "spool", "--d"], ["--dir"])

    def test_bash_completes_files_and_folders(self):
        self.expect_bash(["decode", "a"], ["a file.log"])
        self.expect_bash(["replay", "one.log", "a"], ["a file.log"])
        self.expect_bash(["collect", "--secret-key", "s"], ["server.secret"])
        self.expect_bash(["keygen", "--dir", ""], ["logs"])
        self.expect_bash(["spool", "list", ""], ["logs"])

    def test_bash_has_nothing_to_offer_for_a_free_value(self):
        self.expect_bash(["collect", "--count", ""], [])

    def test_bash_offers_options_once_the_operands_are_there(self):
        self.expect_bash(["completion", "f"], ["fish"])
        self.expect_bash(["completion", "fish", ""], ["-h", "--help"])

    def test_bash_itself_finds_the_function_for_the_program(self):
        self.script("bash")
        output = self.run_shell(["bash", "--norc", "-c", "source ./completion; complete -p zmqwriter"])
        self.assertEqual(output.split()[-2:], ["_zmqwriter", "zmqwriter"])

    # ---- fish ----

    def fish(self, lines):
        self.script("fish")
        asked = [" ".join(["zmqwriter"] + words) for words in lines]
        output = self.run_shell(
            ["fish", "--no-config", "-c",
             "source ./completion; for line in $argv; complete -C $line; echo END; end"] + asked)
        return [[line.split("\t")[0] for line in part.splitlines()]
                for part in output.split("END\n")[:-1]]

    @unittest.skipUnless(shutil.which("fish"), "fish is not installed")
    def test_fish_offers_what_help_says(self):
        self.check_against_help(self.fish)

    @unittest.skipUnless(shutil.which("fish"), "fish is not installed")
    def test_fish_completes_files_and_folders(self):
        self.assertEqual(self.fish([["decode", "ser"], ["collect", "--secret-key", "ser"],
                                    ["spool", "list", "l"], ["keygen", "--dir", "l"]]),
                         [["server.secret"], ["server.secret"], ["logs/"], ["logs/"]])

    # ---- zsh ----

    def zsh(self, lines):
        self.script("zsh")
        output = self.run_shell(
            ["zsh", "-f", "-c", ZSH_DRIVER],
            input="".join("\t".join(["zmqwriter"] + words) + "\n" for words in lines))
        return [[word for word in line.split("\t") if word] for line in output.split("\n")[:-1]]

    @unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
    def test_zsh_offers_what_help_says(self):
        self.check_against_help(self.zsh)

    @unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
    def test_zsh_completes_values_behind_an_equals_sign(self):
        self.assertEqual(self.zsh([["collect", "--format=r"]]), [["--format=raw"]])

    @unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
    def test_zsh_completes_files_and_folders(self):
        self.assertEqual(self.zsh([["decode", "ser"], ["collect", "--output=ser"],
                                   ["spool", "list", "l"], ["keygen", "--dir", "l"]]),
                         [["<files>", "ser"], ["<files>", "ser"],
                          ["<files>", "-/", "l"], ["<files>", "-/", "l"]])

    @unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
    def test_zsh_binds_the_function_to_the_program(self):
        self.script("zsh")
        output = self.run_shell(
            ["zsh", "-f", "-c",
             "autoload -U compinit; compinit -D; source ./completion; print $_comps[zmqwriter]"])
        self.assertEqual(output.split(), ["_zmqwriter"])


if __name__ == "__main__":
    unittest.main()
