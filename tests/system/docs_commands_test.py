"""The commands of README.md, bench/README.md and docs/*.md work, and their links lead somewhere.

Every command is run in a sandbox, a page in its order, unless it stands in a table below. Ports are
replaced by free ones of the loopback interface.
"""

import os
import plistlib
import re
import shlex
import subprocess
import unittest

from cli_support import BUILD_DIR, SOURCE_DIR, ZMQWRITER, read_file
from docs_support import Page, Sandbox, all_pages, missing_output

OPERATIONS = "docs/operations.md"
EXAMPLES = os.path.join(SOURCE_DIR, "setup", "examples")

# Indented blocks that hold no commands, by their page and the start of their first line.
NOT_COMMANDS = {
    ("README.md", "demo: made a CURVE key pair"): "output of the demo",
    ("README.md", "redef LogZMQ::"): "site scripts of the host",
    (OPERATIONS, "redef LogZMQ::"): "site scripts of the host",
}

# Commands that the test does not run, by a regular expression for their start, and why.
NOT_RUN = {
    r"\./demo\b": "builds, and is run by ./test",
    r"\./test\b": "runs this test",
    r"\./configure\b": "needs the host's tree; a test of its own runs it",
    r"make( install)?$": "needs the host's tree; a test of its own runs it",
    r"cmake -S ": "configures a whole build",
    r"cmake --build ": "builds everything",
    r"cmake --install build --prefix /opt/": "installs into the system",
    r"ninja -C build-fuzz ": "builds with a fuzzer",
    r"mkdir found$": "belongs to the fuzzer's run",
    r"build-fuzz/tests/SpoolFuzzer ": "fuzzes for a minute",
    r"sudo ": "changes the system",
    r"bench/run$": "measures for minutes; a test of its own runs the quick form",
}

# Programs that commands may use beside zmqwriter, as they leave the system alone.
HARMLESS = set("""[ awk cat cd cmp curl cut diff echo export false flatc grep head jq kill ls mkdir
    printf rm sed seq sleep sort tail test touch true uniq wait wc""".split())

# The system's own places; commands that are run must keep away from them.
SYSTEM_PLACES = re.compile(r"(?<![\w$}.\"~])/(usr|opt|etc|var|Library|System)/")


def is_zmqwriter(program):
    return program in ("zmqwriter", "build/bin/zmqwriter") or program.endswith("/bin/zmqwriter")


class DocumentsTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.pages = all_pages(SOURCE_DIR)

    def command_blocks(self, page):
        for block in page.blocks:
            if block.kind in ("sh", "console"):
                yield block
            elif block.kind == "indented" and not self.not_commands(page, block):
                yield block

    @staticmethod
    def not_commands(page, block):
        return next((key for key in NOT_COMMANDS
                     if key[0] == page.name and block.lines[0].startswith(key[1])), None)

    def commands(self, page):
        return [command for block in self.command_blocks(page)
                for command in page.commands(block)]

    @staticmethod
    def not_run(command):
        return next((row for row in NOT_RUN if re.match(row, command.text)), None)


class CommandsTest(DocumentsTest):
    def run_page(self, name):
        page = next(page for page in self.pages if page.name == name)
        commands = [c for c in self.commands(page) if not self.not_run(c)]
        for command in commands:
            self.assert_harmless(command)
        if not commands:
            return
        sandbox = Sandbox(SOURCE_DIR, BUILD_DIR)
        self.addCleanup(sandbox.close)
        for command in commands:
            status, printed = sandbox.run(command)
            self.assertEqual(status, command.status, "%s\n%s" % (command, printed))
            expected = [sandbox.ports.substitute(line) for line in command.output]
            self.assertIsNone(missing_output(expected, printed), "%s\n%s" % (command, printed))

    def assert_harmless(self, command):
        programs = command.programs()
        self.assertTrue(programs or "=" in command.text, command)
        for program in programs:
            self.assertTrue(is_zmqwriter(program) or program in HARMLESS,
                            "%s\n'%s' is neither known to be harmless nor listed as not to be run" %
                            (command, program))
        text = command.without_data()
        self.assertIsNone(SYSTEM_PLACES.search(text), command)
        # By itself the program takes the plug-in with the real places.
        if re.search(r"zmqwriter (replay|check)\b", text):
            self.assertRegex(text, r"--plugin \"?(\$plugin|build/plugin-sandbox)\b", command)

    def test_commands_of_the_operations_page_work_in_their_order(self):
        self.run_page(OPERATIONS)

    def test_commands_of_the_readme_work_in_their_order(self):
        self.run_page("README.md")

    def test_commands_of_all_other_pages_work_in_their_order(self):
        for page in self.pages:
            if page.name not in (OPERATIONS, "README.md"):
                with self.subTest(page.name):
                    self.run_page(page.name)


class LinksTest(DocumentsTest):
    def test_every_relative_link_leads_to_a_file_and_an_anchor_in_it(self):
        count = 0
        for page in self.pages:
            for line, target in page.links():
                if re.match(r"[a-z]+:", target):
                    continue
                count += 1
                name, _, anchor = target.partition("#")
                path = os.path.normpath(os.path.join(os.path.dirname(page.name), name))
                path = path if name else page.name
                with self.subTest("%s:%d: %s" % (page.name, line, target)):
                    self.assertTrue(os.path.exists(os.path.join(SOURCE_DIR, path)))
                    if anchor:
                        self.assertIn(anchor, Page(SOURCE_DIR, path).anchors())
        self.assertGreater(count, 10)


class ServiceExamplesTest(unittest.TestCase):
    def test_services_start_the_collector_with_options_that_it_has(self):
        unit = read_file(os.path.join(EXAMPLES, "zmqwriter-collect.service")).replace("\\\n", " ")
        unit_command = shlex.split(re.search(r"(?m)^ExecStart=(.*)$", unit).group(1))
        with open(os.path.join(EXAMPLES, "org.example.zmqwriter-collect.plist"), "rb") as file:
            plist_command = plistlib.load(file)["ProgramArguments"]
        known = subprocess.check_output([ZMQWRITER, "collect", "--help"], text=True).split()
        for words in (unit_command, plist_command):
            self.assertTrue(is_zmqwriter(words[0]) and words[1] == "collect", words)
            options = [word.split("=")[0] for word in words if word.startswith("--")]
            self.assertGreater(len(options), 2)
            self.assertEqual(set(options) - set(known), set())


if __name__ == "__main__":
    unittest.main(verbosity=2)
