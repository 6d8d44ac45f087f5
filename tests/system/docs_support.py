"""Reads the documents: their blocks, the commands in these, links and anchors; and runs commands of
a page one after the other, in one shell, as a reader would.

Indented blocks and those fenced as ```sh hold commands. Blocks fenced as ```console hold commands
behind "$ " (continued behind "> "), followed by lines of what they print. "..." in such a line
stands for anything; other lines may come between. A comment "# exit status N" at the end of a
command tells that N is right, and not 0.
"""

import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time

COMMAND_TIMEOUT = 100  # seconds; only ever reached by a failure


class Command:
    def __init__(self, text, page, line):
        self.text, self.page, self.line = text, page, line
        self.output = []  # lines that it is said to print
        found = re.search(r"#.*\bexit status (\d+)[^\n]*$", text)
        self.status = int(found.group(1)) if found else 0

    def __str__(self):
        return "%s:%d: %s" % (self.page, self.line, self.text)

    def without_data(self):
        """The command without here-documents, quoted texts and comments."""
        text = re.sub(r"<<-?'?(\w+)'?(.*)\n(?s:.*?)\n\1$", r"\2", self.text, flags=re.M)
        text = re.sub(r"'[^']*'", "''", text)
        return re.sub(r"(^|\s)#.*", "", text)

    def programs(self):
        """What the shell would look up, as far as the text tells."""
        names = []
        text = self.without_data().replace("\\\n", " ")
        between = r"\n|\|\|?|&&?|;|\$\(|[()`]|\b(?:do|then|else|until|while|if|!)\s"
        for part in re.split(between, re.sub(r"\d?>&\d", "", text)):
            words = re.sub(r"^(\s|\{|\w+=(\"[^\"]*\"|\S*))*", "", part).split()
            if words and re.match(r"[\w./\[]", words[0]) and words[0] not in ("done", "fi", "for"):
                names.append(words[0].strip('"'))
        return names


class Block:
    def __init__(self, kind, line, lines):
        self.kind, self.line, self.lines = kind, line, lines


def is_whole(text):
    """Whether the shell takes the text for one or more whole commands."""
    if text.endswith("\\"):
        return False
    result = subprocess.run(["bash", "-n"], input=text + "\n", capture_output=True, text=True)
    return result.returncode == 0 and not result.stderr


def commands_in(block, name):
    """The commands of a block in their order; `name` is the page's."""
    console, found, text, begin = block.kind == "console", [], "", 0
    for number, line in enumerate(block.lines, block.line):
        if console and not text:
            if not line.startswith("$ "):
                if not found:
                    raise ValueError("%s:%d: output without a command" % (name, number))
                found[-1].output.append(line)
                continue
            line = line[2:]
        elif console:
            line = re.sub(r"^> ?", "", line)
        if not text:
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            begin = number
        text += ("\n" if text else "") + line
        if is_whole(text):
            found.append(Command(text, name, begin))
            text = ""
    if text:
        raise ValueError("%s:%d: no whole command: %s" % (name, begin, text))
    return found


class Page:
    def __init__(self, folder, name):
        self.name = name
        with open(os.path.join(folder, name), encoding="utf-8") as file:
            self.lines = file.read().split("\n")
        self.blocks, self.prose = [], []  # prose: (line number, text)
        self._read()

    def _read(self):
        at, blank_before = 0, True
        while at < len(self.lines):
            line = self.lines[at]
            fence = re.match(r" *(```+)(\w*)", line)
            if fence:
                end = next(i for i in range(at + 1, len(self.lines))
                           if self.lines[i].strip() == fence.group(1))
                self.blocks.append(Block(fence.group(2) or "text", at + 2, self.lines[at + 1:end]))
                at, blank_before = end + 1, False
            elif line.startswith("    ") and blank_before:
                end = at
                while end < len(self.lines) and (not self.lines[end].strip() or
                                                 self.lines[end].startswith("    ")):
                    end += 1
                text = "\n".join(l[4:] for l in self.lines[at:end]).rstrip("\n")
                self.blocks.append(Block("indented", at + 1, text.split("\n")))
                at, blank_before = end, True
            else:
                self.prose.append((at + 1, line))
                blank_before = not line.strip()
                at += 1

    def commands(self, block):
        return commands_in(block, self.name)

    def links(self):
        for number, line in self.prose:
            for target in re.findall(r"\]\(([^)\s]+)\)", re.sub(r"`[^`]*`", "", line)):
                yield number, target

    def anchors(self):
        names = []
        for _, line in self.prose:
            heading = re.match(r"#+ (.*)", line)
            if heading:
                text = re.sub(r"[^\w\- ]", "", heading.group(1).strip().lower())
                name = text.replace(" ", "-")
                names.append(name + ("-%d" % names.count(name) if name in names else ""))
        return names


def all_pages(folder):
    names = ["README.md", "bench/README.md"]
    names += sorted("docs/" + name for name in os.listdir(os.path.join(folder, "docs"))
                    if name.endswith(".md"))
    return [Page(folder, name) for name in names]


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Ports:
    """Puts free ports of the loopback interface in the place of the documents' ports."""

    ENDPOINT = re.compile(r"(tcp://\*|127\.0\.0\.1|localhost):(\d{2,5})\b")

    def __init__(self):
        self.chosen = {}

    def substitute(self, text):
        def replace(match):
            port = self.chosen.setdefault(match.group(2), str(free_port()))
            return match.group(1).replace("*", "127.0.0.1") + ":" + port
        return self.ENDPOINT.sub(replace, text)


class Sandbox:
    """A copy of the sources with a build folder in it, a home, and a shell that runs in it.

    The shell runs one command after the other, so that variables, the current folder and background
    jobs live on. Everything that it started ends with it.
    """

    def __init__(self, source_dir, build_dir):
        self.root = tempfile.mkdtemp(prefix="zmqwriter-test-")
        self.ports = Ports()
        top = os.path.join(self.root, "top")
        shutil.copytree(source_dir, top, symlinks=True, ignore=self._ignored(source_dir))
        os.mkdir(os.path.join(top, "build"))
        for name in os.listdir(build_dir):
            os.symlink(os.path.join(build_dir, name), os.path.join(top, "build", name))
        home = os.path.join(self.root, "home")
        os.mkdir(home)
        self.output_file = open(os.path.join(self.root, "output"), "w+b")
        status_read, status_write = os.pipe()
        environment = dict(os.environ, HOME=home, LC_ALL="C")
        for name in ("plugin", "samples", "primary", "secondary", "agent"):
            environment.pop(name, None)
        self.shell = subprocess.Popen(
            ["bash", "--noprofile", "--norc"], cwd=top, env=environment, stdin=subprocess.PIPE,
            stdout=self.output_file, stderr=subprocess.STDOUT, pass_fds=(status_write,),
            start_new_session=True)
        self.status_write = status_write
        self.status = os.fdopen(status_read, "rb", buffering=0)
        os.close(status_write)
        os.set_blocking(self.status.fileno(), False)

    @staticmethod
    def _ignored(source_dir):
        def ignore(folder, names):
            if folder != source_dir:
                return [name for name in names if name == "__pycache__"]
            return [name for name in names if name.startswith(("build", ".git", "found"))]
        return ignore

    def run(self, command):
        """Runs a command; gives its exit status and what was printed meanwhile."""
        script = os.path.join(self.root, "command")
        with open(script, "w") as file:
            file.write(self.ports.substitute(command.text) + "\n")
        begin = self.output_file.seek(0, os.SEEK_END)
        self.shell.stdin.write(b". '%s' </dev/null; echo $? >&%d\n" %
                               (script.encode(), self.status_write))
        self.shell.stdin.flush()
        status = self._wait_for_status()
        self.output_file.seek(begin)
        return status, self.output_file.read().decode("utf-8", "replace")

    def _wait_for_status(self):
        text, end = b"", time.monotonic() + COMMAND_TIMEOUT
        while not text.endswith(b"\n"):
            if time.monotonic() > end:
                return "none within %d seconds" % COMMAND_TIMEOUT
            if self.shell.poll() is not None:
                return "the shell has ended"
            text += self.status.read() or b""
            time.sleep(0.01)
        return int(text)

    def close(self):
        try:
            os.killpg(self.shell.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.shell.wait()
        self.shell.stdin.close()
        self.status.close()
        self.output_file.close()
        shutil.rmtree(self.root, ignore_errors=True)


def missing_output(expected, printed):
    """The first line of `expected` that `printed` does not have, in this order; None if it has all."""
    lines = iter(printed.split("\n"))
    for line in expected:
        pattern = ".*".join(r"\s+".join(re.escape(word) for word in re.split(r"\s+", piece))
                            for piece in line.strip().split("..."))
        if line.strip() and not any(re.fullmatch(pattern, candidate.strip())
                                    for candidate in lines):
            return line
    return None
