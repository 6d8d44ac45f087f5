"""The manual pages: one for each subcommand, clean by man's own check, and installed."""

import os
import re
import shutil
import stat
import subprocess
import unittest

from cli_support import BUILD_DIR, CliTest, DEADLINE, SOURCE_DIR, read_file
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
            text = read_file(os.path.join(SOURCE_DIR, "docs", "man", file)).replace("\\\\\n", " ")
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


class InstallTest(CliTest):
    """cmake --install of a build without a host."""

    def test_program_plugin_pages_completions_and_prepared_folders_are_installed(self):
        root = os.path.join(os.getcwd(), "root")
        result = subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", "/opt/z"], text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                env=dict(os.environ, DESTDIR=root))
        self.assertEqual(result.returncode, 0, result.stdout)
        # Where a host looks for plug-ins there is none, as a host could not load this one.
        self.assertEqual(os.listdir(root + "/opt/z/lib"), ["zmqwriter"])
        described = subprocess.run([root + "/opt/z/bin/zmqwriter", "replay", "-N"], check=True,
                                   stdout=subprocess.PIPE, text=True)
        self.assertEqual(described.stdout.split()[0], "Dravenholt::ZMQWriter")
        for folder in ("/usr/local/orvik", "/usr/local/Cellar/orvik/2.4.1"):
            self.assertEqual(stat.S_IMODE(os.stat(root + folder).st_mode), 0o700, folder)
            self.assertIn("Made for the installing user alone: " + root + folder, result.stdout)
        share = root + "/opt/z/share/"
        if shutil.which("help2man"):
            self.assertEqual(sorted(os.listdir(share + "man/man1")), sorted(os.listdir(PAGES)))
        for shell, name in (("bash", "bash-completion/completions/zmqwriter"),
                            ("zsh", "zsh/site-functions/_zmqwriter"),
                            ("fish", "fish/vendor_completions.d/zmqwriter.fish")):
            self.assertEqual(read_file(share + name, "rb"), self.run_tool("completion", shell).stdout)


if __name__ == "__main__":
    unittest.main()
