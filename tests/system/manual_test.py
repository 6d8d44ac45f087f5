"""The manual pages: complete by what --help says, clean by man's own check, and installed."""

import os
import re
import shutil
import subprocess
import unittest

from cli_support import BUILD_DIR, CliTest, DEADLINE, PLUGIN, SOURCE_DIR, ZMQWRITER, read_file
from docs_support import Block, Command, Sandbox, commands_in
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
    def source(self, name):
        with open(os.path.join(PAGES, name + ".1"), encoding="utf-8") as file:
            return file.read()

    def plain(self, name):
        """The page's source without fonts and escapes, one blank between words."""
        text = re.sub(r"\\f.|\\[,/&]|^\.[A-Z]+", "", self.source(name), flags=re.M)
        return " ".join(text.replace("\\-", "-").replace("\\e", "\\").split())

    def test_there_is_a_page_for_the_program_and_each_subcommand_and_no_other(self):
        self.assertEqual(sorted(os.listdir(PAGES)),
                         sorted(page_of(command) + ".1" for command in help_tree()))

    def test_pages_name_all_subcommands_options_and_operands(self):
        for command in help_tree():
            text = self.plain(page_of(command))
            for name in command.options + command.operands + command.subcommands:
                self.assertRegex(text, r"(?<![\w-])%s(?![\w-])" % re.escape(name), page_of(command))

    def test_pages_say_all_that_help_says(self):
        for command in help_tree():
            text = self.plain(page_of(command))
            for word in re.findall(r"[A-Za-z]{3,}", re.sub("^(Usage|Options):", "", command.text, flags=re.M)):
                self.assertIn(word, text, page_of(command))

    def test_pages_begin_with_what_they_are_about_in_one_line(self):
        for command in help_tree():
            name = re.search(r"^\.SH NAME\n(.*)\n", self.source(page_of(command)), re.M).group(1)
            self.assertRegex(name, r"^%s \\- [a-z]" % page_of(command).replace("-", r"(\\?-)"))
            self.assertLess(len(name), 120, name)

    def test_pages_tell_the_exit_status_and_what_else_to_see(self):
        tree = {page_of(command): command for command in help_tree()}
        for name, command in tree.items():
            sections = dict(re.findall(r"^\.SH \"?([A-Z ]+)\"?\n(.*?)(?=^\.SH|\Z)",
                                       self.source(name), re.M | re.S))
            self.assertIn("wrong usage", sections["EXIT STATUS"], name)
            named = re.findall(r"^\.BR (\S+) \(1\)", sections["SEE ALSO"], re.M)
            above = [name.rpartition("-")[0]] if command.path else []
            self.assertEqual(named, above + [name + "-" + word for word in command.subcommands])
            self.assertTrue(set(named) <= set(tree), named)

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


class ManualExamplesTest(unittest.TestCase):
    """The pages' own examples, typed as they stand there, in a folder with logs.

    The program is made to take the sandbox plug-in, and the spool is that one's.
    """

    SPOOL = "/usr/local/Cellar/orvik/2.4.1/work"

    def setUp(self):
        self.sandbox = Sandbox(SOURCE_DIR, BUILD_DIR)
        self.addCleanup(self.sandbox.close)
        self.folder = os.path.join(self.sandbox.root, "folder")
        os.makedirs(os.path.join(self.folder, "orvik-spool"))
        for name in ("conn", "http", "dns"):
            log = os.path.join(SOURCE_DIR, "samples", name + ".log")
            shutil.copy(log, self.folder)
        program = os.path.join(self.sandbox.root, "zmqwriter")
        with open(program, "w") as file:
            file.write("#!/bin/sh\ncase $1 in\n"
                       "  check | replay) exec '%s' \"$@\" --plugin '%s' ;;\n"
                       "  *) exec '%s' \"$@\" ;;\nesac\n" % (ZMQWRITER, PLUGIN, ZMQWRITER))
        os.chmod(program, 0o755)
        self.run_here("cd '%s'; PATH='%s':$PATH" % (self.folder, self.sandbox.root))

    def run_here(self, text, expected_status=0):
        self.assertNotRegex(text, r"(?<![\w.])/(usr|opt|etc|var|Library)/")
        status, printed = self.sandbox.run(Command(text, "here", 0))
        self.assertEqual(status, expected_status, "%s\n%s" % (text, printed))
        return printed

    def examples(self, page):
        """The commands of the page's section EXAMPLES."""
        name = os.path.join("docs", "man", page + ".h2m")
        section = re.search(r"^\[EXAMPLES\]\n((?:(?!\[).*\n)*)",
                            read_file(os.path.join(SOURCE_DIR, name)), re.M).group(1)
        boxes = re.findall(r"^\.nf\n\.RS\n(.*?)^\.RE\n\.fi\n", section, re.M | re.S)
        text = "".join(boxes).replace("\\\\", "\\").replace(self.SPOOL, "orvik-spool/work")
        commands = commands_in(Block("sh", 1, text.rstrip("\n").split("\n")), name)
        self.assertGreater(len(commands), 1, name)
        return [command.text for command in commands]

    def run_examples(self, page):
        return "".join(self.run_here(text) for text in self.examples(page))

    def test_examples_of_the_program_deliver_a_log(self):
        self.assertIn("left: nothing", self.run_examples("zmqwriter"))
        self.assertIn("events: 12 ", self.run_here("kill $!; wait $!"))

    def test_examples_of_check_and_replay_go_on_from_there(self):
        self.run_examples("zmqwriter")
        printed = self.run_examples("zmqwriter-check")
        self.assertIn("All well: 0 errors", printed)
        self.assertIn("connected, handshake done", printed)
        self.assertIn("left: nothing", self.run_examples("zmqwriter-replay"))

    def test_examples_of_collect_give_what_those_of_decode_read(self):
        self.run_here("zmqwriter keygen --dir keys")
        self.run_here("printf 'zmq.server = 127.0.0.1:5555\nzmq.public_key = %s\n' "
                      "$(cat keys/server.public) >agent.cfg")
        lines, one = self.examples("zmqwriter-collect")
        log = "zmqwriter replay --settings agent.cfg http.log"
        for collect in (lines, one):
            self.run_here(collect + " & collector=$!")
            self.run_here(log if collect == lines else log + " --drain 1 || true")
            self.run_here("kill $collector; wait $collector" if collect == lines else
                          "wait $collector")
        self.assertEqual(len(read_file(os.path.join(self.folder, "events.json")).split("\n")), 8)
        self.run_here("mkdir -p orvik-spool/work")
        self.assertEqual(self.run_examples("zmqwriter-decode").count('"HttpData"'), 1)

    def test_examples_of_keygen_make_a_pair_and_the_line_for_the_agents(self):
        for text in self.examples("zmqwriter-keygen"):
            self.run_here("rm -rf keys")
            self.run_here(text)
        self.assertRegex(read_file(os.path.join(self.folder, "agent.cfg")),
                         r"\Azmq\.public_key = [0-9A-F]{64}\n\Z")

    def test_examples_of_spool_repair_mend_what_a_failed_start_left(self):
        self.run_here("printf 'zmq.server = foo://bar\\n' >agent.cfg")
        self.run_here("zmqwriter replay --settings agent.cfg --no-pace" + 90 * " http.log", 1)
        seen, _, done = [self.run_here(text, status) for text, status in
                         zip(self.examples("zmqwriter-spool-repair"), (1, 0, 0))]
        self.assertIn("the next start of the plug-in finds 0", seen)
        self.assertIn("header set to", done)
        self.assertIn("the next start of the plug-in finds 130",
                      self.run_here("zmqwriter spool list orvik-spool/work"))

    def test_examples_of_completion_write_a_script_for_each_shell(self):
        for text in self.examples("zmqwriter-completion"):
            target = text.split("> ")[1]
            self.run_here("mkdir -p $(dirname %s)" % target)
            self.run_here(text)
            self.run_here("grep -q zmqwriter " + target)

    def test_every_page_with_examples_is_tried(self):
        pages = {name[:-len(".h2m")] for name in os.listdir(os.path.join(SOURCE_DIR, "docs", "man"))
                 if "[EXAMPLES]" in read_file(os.path.join(SOURCE_DIR, "docs", "man", name))}
        tried = set(re.findall(r'(?:run_examples|self\.examples)\("([\w-]+)"\)',
                               read_file(os.path.abspath(__file__))))
        self.assertEqual(pages, tried)


if __name__ == "__main__":
    unittest.main()
