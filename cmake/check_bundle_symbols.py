"""Looks over a Mach-O bundle: what kind of file it is, and where its undefined symbols come from.

    check_bundle_symbols.py BUNDLE UNDEFINED HOST_SYMBOLS ZMQ_HEADER

UNDEFINED is the output of `llvm-nm -m --undefined-only BUNDLE`. What that binds to a library of the
system is the system's. The rest must be a name in HOST_SYMBOLS (one demangled name a line, without
arguments) or a function that ZMQ_HEADER declares. Exit status 0 if so, else 1.
"""

import re
import struct
import subprocess
import sys

MACHO_64, X86_64, BUNDLE_TYPE = 0xFEEDFACF, 0x01000007, 8
SYSTEM_LIBRARIES = {"libSystem", "libc++"}


def is_bundle(path):
    with open(path, "rb") as file:
        magic, cpu, _, file_type = struct.unpack("<4I", file.read(16))
    return (magic, cpu, file_type) == (MACHO_64, X86_64, BUNDLE_TYPE)


def undefined(path):
    """Pairs of a symbol and the library that has it, None where it is looked up when loading."""
    with open(path) as file:
        for line in file:
            match = re.search(r"external (\S+) \((?:from (\S+)|dynamically looked up)\)", line)
            if match:
                yield match.group(1), match.group(2)


def demangle(names):
    text = subprocess.run(["c++filt"], input="\n".join(names), stdout=subprocess.PIPE, text=True,
                          check=True).stdout
    return text.splitlines()


def without_arguments(name):
    """f(int) const -> f; f[abi:v1](int) -> f."""
    return re.split(r"\(|\[abi", name, maxsplit=1)[0]


def lines(path):
    with open(path) as file:
        return {line.strip() for line in file if line.strip() and not line.startswith("#")}


def main(bundle, undefined_file, host_file, zmq_header):
    host = lines(host_file)
    with open(zmq_header) as file:
        zmq = set(re.findall(r"\b(zmq_\w+) \(", file.read()))
    counts = {"libSystem": 0, "libc++": 0, "the host": 0, "libzmq": 0}
    problems = []
    if not is_bundle(bundle):
        problems.append("%s is not a bundle for x86_64" % bundle)
    looked_up = []
    for symbol, library in undefined(undefined_file):
        if library is None:
            # C names carry one underscore more there.
            looked_up.append(symbol[1:] if symbol.startswith("_") else symbol)
        elif library in SYSTEM_LIBRARIES:
            counts[library] += 1
        else:
            problems.append("%s of %s" % (symbol, library))
    for name in map(without_arguments, demangle(looked_up)):
        if name in zmq:
            counts["libzmq"] += 1
        elif name in host:
            counts["the host"] += 1
        else:
            problems.append(name)
    print("undefined symbols: " + ", ".join("%d of %s" % (counts[k], k) for k in counts))
    if not all(counts.values()):
        problems.append("(nothing at all is taken from one of these)")
    for problem in problems:
        print("not the host's, libzmq's or the system's: " + problem, file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
