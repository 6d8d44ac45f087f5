"""The manual pages: one for each subcommand, clean by man's own check, and installed."""

import os
import re
import shutil
import subprocess
import unittest

from cli_support import BUILD_DIR, CliTest, DEADLINE, SOURCE_DIR
from help_tree import help_tree

PAGES = os.path.join(BUILD_DIR, "man", "man1")


def page_of(command):
    return "-".join(["zmqwriter"] + command.path)


def has_man():
    """Whether man is man-db's, and there is a page to show."""
    return shutil.which("man") and subprocess.run(
        ["man", "--version"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout.startswith(b"man 2")


@unittest.skipUnless(shutil.which("help2man"), "help2man is not installed")
class ManualTest(CliTest):
    def test_there_is_a_page_for_the_program_and_each_subcommand_and_no_other(self):
        self.assertEqual(sorted(os.listdir(PAGES)),
                         sorted(page_of(command) + ".1" for command in help_tree()))

    def test_examples_use_options_that_there_are(self):
        tree = {tuple(command.path): command for command in help_tree()}
        found = 0
        for file in os.listdir(os.path.join(SOURCE_DIR, "docs", "man")):
            with open(os.path.join(SOURCE_DIR, "docs", "man", file)) as page:
                text = page.read().replace("\\\\\n", " ")
            for line in re.findall(r"^zmqwriter (.*)$", text, re.M):
                for words in [part.split() for part in re.split(r"\| *(?:zmqwriter|tee)", line)]:
                    path = ()
                    while words and path + (words[0],) in tree:
                        path += (words.pop(0),)
                    for option in [word for word in words if word.startswith("--")]:
                        self.assertIn(option, tree[path].options, line)
                        found += 1
        self.assertGreater(found, 10)

    @unittest.skipUnless(has_man(), "man-db is not installed")
    def test_man_has_nothing_to_warn_of(self):
        for command in help_tree():
            result = subprocess.run(
                ["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z",
                 os.path.join(PAGES, page_of(command) + ".1")],
                stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=DEADLINE,
                env=dict(os.environ, MANWIDTH="80"))
            self.assertEqual((result.returncode, result.stderr), (0, b""), page_of(command))

    def test_pages_and_completions_are_installed(self):
        destination = os.path.join(os.getcwd(), "root")
        result = subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", "/opt/z"],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                universal_newlines=True, env=dict(os.environ, DESTDIR=destination))
        self.assertEqual(result.returncode, 0, result.stdout)
        share = os.path.join(destination, "opt/z/share")
        self.assertEqual(sorted(os.listdir(os.path.join(share, "man", "man1"))),
                         sorted(os.listdir(PAGES)))
        for shell, name in (("bash", "bash-completion/completions/zmqwriter"),
                            ("zsh", "zsh/site-functions/_zmqwriter"),
                            ("fish", "fish/vendor_completions.d/zmqwriter.fish")):
            with open(os.path.join(share, name), "rb") as file:
                self.assertEqual(file.read(), self.run_tool("completion", shell).stdout)


if __name__ == "__main__":
    unittest.main()
