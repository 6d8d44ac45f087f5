"""The commands of docs/*.md work, the links of all pages lead somewhere, and the examples of
services start the collector.

Commands are run from blocks fenced as ```bash and ```console, a page in its order. A ```console
block has commands behind "$ ", followed by lines that they print: "..." in such a line stands for
anything, and other lines may come between. A comment "# exit status N" at the end of a command says
that N is right, and not 0. Other blocks are not run.
"""

import os
import plistlib
import re
import shlex
import shutil
import signal
import subprocess
import unittest

from cli_support import BUILD_DIR, CliTest, Port, SOURCE_DIR, ZMQWRITER, read_file, write_file

EXAMPLES = os.path.join(SOURCE_DIR, "setup", "examples")
PAGES = ["README.md", "CONTRIBUTING.md", "bench/README.md"] + sorted(
    "docs/" + name for name in os.listdir(os.path.join(SOURCE_DIR, "docs"))
    if name.endswith(".md"))
TIMEOUT = 400  # seconds for a page; only ever reached by a failure


class Command:
    def __init__(self, text):
        self.text = text
        self.output = []  # lines that it should print
        found = re.search(r"#.*\bexit status (\d+)", text)
        self.status = int(found.group(1)) if found else 0


def is_whole(text):
    """Whether the shell takes the text for whole commands."""
    result = subprocess.run(["bash", "-n"], input=text + "\n", capture_output=True, text=True)
    return result.returncode == 0 and not result.stderr


def commands_of(page):
    found = []
    for kind, block in re.findall(r"^```(bash|console)\n(.*?)^```$", page, re.M | re.S):
        text = ""
        for line in block.splitlines():
            if kind == "console" and not text and not line.startswith("$ "):
                found[-1].output.append(line)
                continue
            text += "\n" + line if text else line[2:] if kind == "console" else line
            if is_whole(text):
                found.append(Command(text))
                text = ""
        assert not text, "no whole command: " + text
    return found


def with_free_ports(text):
    """The text with free ports of the loopback interface in the place of its own."""
    free = {port: Port().number for port in set(re.findall(r"127\.0\.0\.1:(\d+)", text))}
    return re.sub(r"127\.0\.0\.1:(\d+)", lambda m: "127.0.0.1:%d" % free[m.group(1)], text)


def missing_line(expected, printed):
    """The first of the lines that `printed` does not have, in this order; None if it has all."""
    lines = iter(printed.split("\n"))
    for line in expected:
        pattern = ".*".join(r"\s+".join(re.escape(word) for word in re.split(r"\s+", piece))
                            for piece in line.strip().split("..."))
        if not any(re.fullmatch(pattern, candidate.strip()) for candidate in lines):
            return line
    return None


class CommandsTest(CliTest):
    @staticmethod
    def run_page(folder, commands):
        """Runs the commands in one shell, up to the first that fails; gives what each printed."""
        os.mkdir(folder)
        os.symlink(BUILD_DIR, folder + "/build")
        os.symlink(os.path.join(SOURCE_DIR, "samples"), folder + "/samples")
        write_file(folder + "/script", "".join("%s\n[ $? = %d ] || exit\necho @@@\n" % (
            command.text, command.status) for command in commands))
        with open(folder + "/output", "w") as file:
            shell = subprocess.Popen(
                ["bash", "script"], cwd=folder, stdin=subprocess.DEVNULL, stdout=file,
                env=dict(os.environ, HOME=os.path.abspath(folder), LC_ALL="C"),
                stderr=subprocess.STDOUT, start_new_session=True)
        try:
            shell.wait(TIMEOUT)
        except subprocess.TimeoutExpired:
            pass  # the command that took so long is the last one with output
        finally:
            try:
                os.killpg(shell.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            shell.wait()
        return read_file(folder + "/output").split("@@@\n")

    def test_commands_of_the_pages_work_in_their_order(self):
        count = 0
        for name in PAGES:
            commands = commands_of(with_free_ports(read_file(os.path.join(SOURCE_DIR, name))))
            printed = self.run_page(name.replace("/", "-"), commands)
            for at, command in enumerate(commands):
                count += 1
                where = "%s: %s\n%s" % (name, command.text, printed[at])
                self.assertGreater(len(printed), at + 1, "failed or did not end: " + where)
                self.assertIsNone(missing_line(command.output, printed[at]), where)
        self.assertGreater(count, 20)


class LinksTest(unittest.TestCase):
    @staticmethod
    def prose(path):
        return re.sub(r"^ *```.*?^ *```$|`[^`\n]*`", "", read_file(path), flags=re.M | re.S)

    def anchors(self, path):
        return [re.sub(r"[^\w\- ]", "", heading.strip().lower()).replace(" ", "-")
                for heading in re.findall(r"^#+ (.*)$", read_file(path), re.M)]

    def test_every_relative_link_leads_to_a_file_and_an_anchor_in_it(self):
        count = 0
        for page in PAGES:
            path = os.path.join(SOURCE_DIR, page)
            for target in re.findall(r"\]\(([^)\s]+)\)", self.prose(path)):
                if re.match(r"[a-z]+:", target):
                    continue
                count += 1
                name, _, anchor = target.partition("#")
                file = os.path.join(os.path.dirname(path), name) if name else path
                with self.subTest("%s: %s" % (page, target)):
                    self.assertTrue(os.path.exists(file))
                    if anchor:
                        self.assertIn(anchor, self.anchors(file))
        self.assertGreater(count, 10)


class ServiceExamplesTest(CliTest):
    SERVICES = {"collect": "collect", "follow": "replay"}  # and the subcommand

    def test_services_start_for_their_user_only_with_options_that_there_are(self):
        for service, subcommand in self.SERVICES.items():
            unit = read_file(EXAMPLES + "/zmqwriter-%s.service" % service).replace("\\\n", " ")
            unit_command = shlex.split(re.search(r"(?m)^ExecStart=(.*)$", unit).group(1))
            plist = plistlib.loads(read_file(EXAMPLES + "/org.example.zmqwriter-%s.plist" % service,
                                             "rb"))
            self.assertEqual(plist["Label"], "org.example.zmqwriter-" + service)
            self.assertRegex(unit, r"(?m)^UMask=0077$")
            self.assertEqual(plist["Umask"], 0o077)
            known = self.run_tool(subcommand, "--help").stdout.decode().split()
            for words in (unit_command, plist["ProgramArguments"]):
                self.assertEqual([os.path.basename(words[0]), words[1]], ["zmqwriter", subcommand])
                options = [word for word in words if word.startswith("--")]
                self.assertGreater(len(options), 2)
                self.assertEqual(set(options) - set(known), set())

    @unittest.skipUnless(shutil.which("systemd-analyze"), "needs systemd-analyze")
    def test_systemd_finds_nothing_wrong_with_the_units_and_little_exposed(self):
        for service in self.SERVICES:
            name = "zmqwriter-%s.service" % service
            write_file(name, read_file(os.path.join(EXAMPLES, name)).replace(
                "/opt/zmqwriter/bin/zmqwriter", ZMQWRITER))
            verified = subprocess.run(["systemd-analyze", "verify", os.path.abspath(name)],
                                      capture_output=True, text=True)
            self.assertNotIn(name, verified.stderr)
            said = subprocess.run(["systemd-analyze", "security", "--offline=true",
                                   os.path.abspath(name)], capture_output=True, text=True).stdout
            if "Unknown option" not in said and said:
                exposure = re.search(r"exposure level for .*: ([0-9.]+)", said).group(1)
                self.assertLess(float(exposure), 2.0, said)


if __name__ == "__main__":
    unittest.main(verbosity=2)
