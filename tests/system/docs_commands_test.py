"""What the documents tell a reader to type works, and what they name exists.

Every command of README.md, bench/README.md and docs/*.md is run in a sandbox, a page in its order,
or stands in one of the tables below; rows that no document needs any more are failures too. Ports
are replaced by free ones of the loopback interface.
"""

import os
import plistlib
import re
import shlex
import shutil
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

# Settings that a page gives as examples of a mistake.
MISSPELT = {"zmq.secondary_server"}

# Programs that commands may use beside zmqwriter, as they leave the system alone.
HARMLESS = set("""[ awk cat cd cmp curl cut diff echo export false flatc grep head jq kill ls mkdir
    printf rm sed seq sleep sort tail test touch true uniq wait wc""".split())

# The system's own places; commands that are run must keep away from them.
SYSTEM_PLACES = re.compile(r"(?<![\w$}.\"~])/(usr|opt|etc|var|Library|System)/")

_help = {}


def help_of(*command):
    if command not in _help:
        result = subprocess.run(list(command) + ["--help"], stdout=subprocess.PIPE, text=True,
                                stderr=subprocess.STDOUT, cwd=SOURCE_DIR, timeout=60)
        _help[command] = result.stdout if result.returncode == 0 else ""
    return _help[command]


def options_in(text):
    return set(re.findall(r"(?<![\w-])--?[a-zA-Z][\w-]*", text))


def subcommands(*parents):
    """Names in the list of subcommands."""
    text = help_of(ZMQWRITER, *parents)
    listed = re.split(r"(?im)^subcommands:$", text)
    return re.findall(r"(?m)^  ([a-z-]+)\b", listed[1]) if len(listed) == 2 else []


def zmqwriter_problem(words):
    """What is wrong with the words behind the program's name; None if nothing is."""
    if not words:
        return None
    path = []
    while words and words[0] in subcommands(*path):
        path.append(words.pop(0))
    if words and subcommands(*path) and not words[0].startswith("-"):
        return "no subcommand " + " ".join(path + words[:1])
    known = options_in(help_of(ZMQWRITER, *path))
    for word in words:
        for option in options_in(word.split("=")[0]):
            if option not in known:
                return "%s has no option %s" % (" ".join(path) or "zmqwriter", option)
    return None


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

    def test_tables_of_what_is_not_run_hold_nothing_too_much(self):
        blocks = {self.not_commands(page, block) for page in self.pages for block in page.blocks}
        self.assertEqual(set(NOT_COMMANDS) - blocks, set())
        rows = {self.not_run(command) for page in self.pages for command in self.commands(page)}
        self.assertEqual(set(NOT_RUN) - rows, set())

    def test_commands_that_are_not_run_exist_with_their_options(self):
        for page in self.pages:
            for command in self.commands(page):
                if self.not_run(command):
                    with self.subTest(str(command)):
                        self.assert_exists(shlex.split(command.text, comments=True))

    def assert_exists(self, words):
        program, options = words[0], options_in(" ".join(words[1:]))
        if program == "sudo":
            # What it runs may be for another system; of ours, files and options must be there.
            for word in words[1:]:
                if word.startswith("setup/"):
                    self.assertTrue(os.path.exists(os.path.join(SOURCE_DIR, word)), word)
        elif program.startswith(("./", "setup/", "bench/")):
            path = os.path.join(SOURCE_DIR, program)
            self.assertTrue(os.access(path, os.X_OK), path)
            self.assertEqual(options - options_in(help_of(path)), set())
        elif program in ("cmake", "ninja"):
            self.assert_build_words_exist(words)
        elif program.startswith("build-"):
            name = os.path.basename(program)
            self.assertTrue(re.search(r"\b%s\b" % name, self.build_files()), program)
        else:
            self.assertIsNotNone(shutil.which(program), program)

    def assert_build_words_exist(self, words):
        for name in re.findall(r"-D(ZMQWRITER_\w+)=", " ".join(words)):
            self.assertTrue(name in self.build_files(), name)
        targets = words[words.index("--target") + 1:] if "--target" in words else []
        if words[0] == "ninja":
            targets = words[3:]
        for target in targets:
            self.assertTrue(re.search(r"\b%s\b" % re.escape(target), self.build_files()), target)

    @staticmethod
    def build_files():
        """The texts of all CMake files."""
        texts = []
        for folder, names, files in os.walk(SOURCE_DIR):
            names[:] = [n for n in names if not n.startswith(("build", ".git"))]
            texts += [read_file(os.path.join(folder, f)) for f in files
                      if f == "CMakeLists.txt" or f.endswith(".cmake")]
        return "\n".join(texts)


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


class NamesTest(DocumentsTest):
    def spans_and_commands(self):
        for page in self.pages:
            for line, span in page.code_spans():
                yield "%s:%d" % (page.name, line), span
            for command in self.commands(page):
                yield "%s:%d" % (page.name, command.line), command.text

    def assert_each_exists(self, pattern, exists, at_least):
        count = 0
        for place, text in self.spans_and_commands():
            for name in re.findall(pattern, text):
                count += 1
                with self.subTest("%s: %s" % (place, name)):
                    self.assertTrue(exists(name))
        self.assertGreaterEqual(count, at_least)

    @staticmethod
    def sources(*folders):
        texts = []
        for folder in folders:
            for where, _, files in os.walk(os.path.join(SOURCE_DIR, folder)):
                texts += [read_file(os.path.join(where, file)) for file in files
                          if file.endswith((".cc", ".h", ".bro", ".bif"))]
        return "\n".join(texts)

    def test_every_script_constant_and_function_exists(self):
        scripts = self.sources("scripts") + read_file(os.path.join(SOURCE_DIR, "src", "zmq.bif"))
        declared = set(re.findall(r"(?:const|global|function|type) (\w+)", scripts))
        self.assert_each_exists(r"\bLogZMQ::(?!NAME)(\w+)", declared.__contains__, 5)

    def test_every_settings_key_exists(self):
        source, misspelt = self.sources("src"), set()

        def exists(key):
            there = '"%s"' % key in source
            if not there and key in MISSPELT:
                misspelt.add(key)
            return there or key in MISSPELT

        self.assert_each_exists(r"(?<![\w./$])((?:zmq|disk|pqueue)\.(?!bif|h\b)[a-z_.]+\w)",
                                exists, 8)
        self.assertEqual(misspelt, MISSPELT)

    def test_every_subcommand_and_option_of_the_program_exists(self):
        count = 0
        for place, text in self.spans_and_commands():
            if text.split(" ")[0] in subcommands():  # in running text often without the program
                text = "zmqwriter " + re.sub(r"[][]", "", text)
            for words in re.findall(r"(?:^|[\s/(])zmqwriter((?: +[^|;&<>\n`'\\]+|\\\n)+)", text):
                words = words.replace("\\\n", " ").replace("\\|", " ").split()
                if words and re.match(r"[a-z-]+$", words[0]):
                    count += 1
                    with self.subTest("%s: %s" % (place, " ".join(words))):
                        self.assertIsNone(zmqwriter_problem(words))
        self.assertGreater(count, 20)

    def test_every_option_by_itself_belongs_to_something(self):
        known = set()
        for path in [()] + [(name,) for name in subcommands()]:
            known |= options_in(help_of(ZMQWRITER, *path))
            for name in subcommands(*path) if path else ():
                known |= options_in(help_of(ZMQWRITER, *path, name))
        for script in ("test", "demo", "configure", "cross-macos", "setup/packages"):
            known |= options_in(help_of(os.path.join(SOURCE_DIR, script)))
        known |= {"--install", "--build"}  # CMake's
        count = 0
        for page in self.pages:
            for line, span in page.code_spans():
                for option in re.findall(r"^(--[a-z][\w-]*)", span):
                    count += 1
                    with self.subTest("%s:%d: %s" % (page.name, line, option)):
                        self.assertIn(option, known)
        self.assertGreater(count, 5)

    def test_every_metric_exists(self):
        source = self.sources("tools/collect")
        prefix = "zmqwriter_collect_"
        self.assertIn('"%s"' % prefix, source)
        self.assert_each_exists(prefix + r"(\w+)", lambda name: '"%s"' % name in source, 8)


# ---- what the messages mean ----

def without_comments(source):
    return re.sub(r'("(?:[^"\\\n]|\\.)*")|//[^\n]*', lambda match: match.group(1) or "", source)


def literals(text):
    """String literals of C++ code as their contents, neighbours joined."""
    joined = re.sub(r'"\s*\n\s*"', "", text)
    return [re.sub(r"\\(.)", lambda escape: {"n": "\n", "t": "\t"}.get(escape.group(1),
                                                                     escape.group(1)), body)
            for body in re.findall(r'"((?:[^"\\\n]|\\.)*)"', joined)]


def call_arguments(source, call):
    """The texts between the parentheses of each call."""
    for match in re.finditer(call + r"\(", source):
        depth, at, quoted = 1, match.end(), False
        while depth:
            if source[at] == "\\" and quoted:
                at += 1
            elif source[at] == '"':
                quoted = not quoted
            elif not quoted:
                depth += {"(": 1, ")": -1}.get(source[at], 0)
            at += 1
        yield source[match.end():at - 1]


def with_dots(text):
    """A printf format as the documents write it."""
    return re.sub(r"%[-+0-9.]*(?:ll|l|h|z)?[a-zA-Z]", "...", text).strip()


class MessagesTest(DocumentsTest):
    def rows(self):
        page = next(page for page in self.pages if page.name == OPERATIONS)
        found = []
        for line, cells in page.table_rows("What the messages mean"):
            text = re.match(r"`(.*)`$", cells[0].replace("\\|", "|"))
            if text:
                self.assertTrue(len(cells) >= 2 and cells[-1], cells)
                found.append((line, text.group(1)))
        self.assertGreater(len(found), 20)
        return found

    @staticmethod
    def files(*folders):
        for folder in folders:
            for where, _, names in os.walk(os.path.join(SOURCE_DIR, folder)):
                for name in names:
                    if name.endswith((".cc", ".h", ".bro")):
                        yield os.path.join(where, name)

    def texts_of_the_plug_in(self):
        """Every text that a report, a printed line or a script's message begins with."""
        texts = {}
        for path in self.files("src"):
            source = without_comments(read_file(path))
            for call in ("reports::(?:weird|warning|error|info)", "print_line", "text_or"):
                for arguments in call_arguments(source, r"\b" + call):
                    in_call = literals(arguments)
                    if call == "text_or" and in_call:
                        in_call = in_call[:1]  # the other one is the value instead
                    if re.match(r"(const|void)\b", arguments):
                        continue  # a declaration
                    if not in_call:  # from a table of the same file; weirds end so
                        in_call = [text for text in literals(source) if text.endswith("!")]
                        self.assertTrue(in_call, "%s: %s" % (path, arguments))
                    for text in in_call:
                        texts[with_dots(text)] = path
        for path in self.files("scripts"):
            for arguments in call_arguments(read_file(path), r"\bfmt"):
                for text in literals(arguments.replace("\n", " "))[:1]:
                    if len(text.split()) > 3:
                        texts[with_dots(text)] = path
        self.assertGreater(len(texts), 20)
        return texts

    def test_every_text_of_the_plug_in_stands_in_the_tables(self):
        rows = {row for _, row in self.rows()}
        for text, path in sorted(self.texts_of_the_plug_in().items()):
            with self.subTest(text):
                self.assertIn(text, rows, path)

    def test_every_warning_of_the_program_stands_in_the_tables(self):
        rows = {row for _, row in self.rows()}
        warnings = [with_dots(text) for path in self.files("tools")
                    for text in literals(without_comments(read_file(path)))
                    if text.startswith("warning: ")]
        self.assertGreater(len(warnings), 5)
        for text in warnings:
            with self.subTest(text):
                self.assertIn(text, rows)

    def test_every_complaint_about_the_settings_file_stands_in_the_tables(self):
        rows = " ".join(row for _, row in self.rows())
        source = read_file(os.path.join(SOURCE_DIR, "host", "SettingsFile.cc"))
        count = 0
        for text in literals(source):
            for piece in with_dots(text).split("..."):
                if len(piece.split()) >= 3:
                    count += 1
                    with self.subTest(text):
                        self.assertIn(piece.strip(" ,:'"), rows)
        self.assertGreater(count, 5)

    def test_every_row_of_the_tables_exists_in_the_sources(self):
        generated = read_file(os.path.join(BUILD_DIR, "generated", "zmq.bif.cc"))
        everything = [literals(without_comments(read_file(path)))
                      for path in self.files("src", "scripts", "host", "tools")]
        everything = "\n".join(with_dots(text) for texts in everything + [literals(generated)]
                               for text in texts)
        for line, row in self.rows():
            row = row.replace("gave up: ", "gave up: ...")  # what follows comes from elsewhere
            for piece in row.split("..."):
                if piece.strip(" ,:'"):
                    with self.subTest("%s:%d: %s" % (OPERATIONS, line, row)):
                        self.assertTrue(piece.strip(" ,:'") in everything)


class ServiceExamplesTest(DocumentsTest):
    """The examples of services, as far as they can be checked without installing them."""

    UNIT = os.path.join(EXAMPLES, "zmqwriter-collect.service")
    PLIST = os.path.join(EXAMPLES, "org.example.zmqwriter-collect.plist")

    def unit_command(self):
        text = read_file(self.UNIT).replace("\\\n", " ")
        return shlex.split(re.search(r"(?m)^ExecStart=(.*)$", text).group(1))

    def plist_command(self):
        with open(self.PLIST, "rb") as file:
            return plistlib.load(file)["ProgramArguments"]

    def test_services_start_the_collector_with_options_that_it_has(self):
        for words in (self.unit_command(), self.plist_command()):
            with self.subTest(" ".join(words)):
                self.assertTrue(is_zmqwriter(words[0]))
                self.assertEqual(words[1], "collect")
                self.assertIsNone(zmqwriter_problem(words[1:]))

    def test_both_services_start_the_collector_alike(self):
        def without_places(words):
            return [re.sub(r".*/", "", word) for word in words]
        self.assertEqual(without_places(self.unit_command()), without_places(self.plist_command()))

    @unittest.skipUnless(shutil.which("systemd-analyze"), "needs systemd-analyze")
    def test_unit_is_well_formed(self):
        sandbox = Sandbox(SOURCE_DIR, BUILD_DIR)
        self.addCleanup(sandbox.close)
        # It is looked up, and must be there.
        unit = os.path.join(sandbox.root, "zmqwriter-collect.service")
        with open(unit, "w") as file:
            file.write(read_file(self.UNIT).replace(self.unit_command()[0], ZMQWRITER))
        result = subprocess.run(["systemd-analyze", "verify", unit], stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, timeout=60)
        about_it = [line for line in result.stdout.split("\n") if "zmqwriter" in line]
        self.assertEqual((result.returncode, about_it), (0, []), result.stdout)

    def test_documents_name_the_examples(self):
        text = read_file(os.path.join(SOURCE_DIR, OPERATIONS))
        for name in os.listdir(EXAMPLES):
            self.assertIn(name, text)


if __name__ == "__main__":
    unittest.main(verbosity=2)
