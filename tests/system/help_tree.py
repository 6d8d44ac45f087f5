"""What --help says of the program and of each subcommand, for the tests of manual and completion."""

import re
import subprocess

from cli_support import DEADLINE, ZMQWRITER


class Help:
    def __init__(self, path):
        self.path = path  # the words behind the program's name
        self.text = subprocess.run([ZMQWRITER] + path + ["--help"], check=True, timeout=DEADLINE,
                                   stdout=subprocess.PIPE).stdout.decode()
        sections = re.split(r"^(Usage|Positionals|Options|Subcommands):", self.text, flags=re.M)
        self.description = " ".join(sections[0].split())
        parts = dict(zip(sections[1::2], sections[2::2]))
        lines = re.findall(r"^  (-.*?)(?:  .*)?$", parts["Options"], re.M)
        self.options = [name for line in lines for name in re.findall(r"(?<![^ ])--?[\w-]+", line)]
        self.words = {re.match(r"--[\w-]+", line).group(): line.split()[1].split("|")
                      for line in lines if "|" in line}
        self.operands = re.findall(r"^  (\S+)", parts.get("Positionals", ""), re.M)
        self.subcommands = re.findall(r"^  ([a-z][\w-]*)", parts.get("Subcommands", ""), re.M)


def help_tree():
    """The program itself first, then all below it."""
    tree = [Help([])]
    for command in tree:
        tree += [Help(command.path + [name]) for name in command.subcommands]
    return tree
