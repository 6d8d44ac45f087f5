"""Looks over a Mach-O bundle: its kind, the libraries it loads, what it exports, and where its
undefined symbols come from.

    check_bundle.py NM BUNDLE ARCH

NM is llvm-nm, ARCH x86_64 or arm64. Each undefined symbol must be bound to libzmq or a library of
the system, or be one of the host's (tests/data/host-symbols.txt). Exit status 0 if all is well,
else 1.
"""

import collections
import os
import re
import struct
import subprocess
import sys

from host_symbols import demangle, host_symbols

CPUS = {"x86_64": 0x01000007, "arm64": 0x0100000C}
MACHO_64, BUNDLE_TYPE, LOAD_DYLIB = 0xFEEDFACF, 8, 0xC
LIBRARIES = ["libSystem", "libc++", "libzmq"]
EXPORTS = os.path.join(os.path.dirname(__file__), "exports.darwin")


def header_and_libraries(path):
    """((magic, processor, kind of file), names of the libraries that are loaded)."""
    with open(path, "rb") as file:
        data = file.read()
    magic, cpu, _, file_type, commands = struct.unpack_from("<5I", data)
    libraries, at = [], 32
    for _ in range(commands):
        command, size = struct.unpack_from("<2I", data, at)
        if command == LOAD_DYLIB:
            name = data[at + struct.unpack_from("<I", data, at + 8)[0]:at + size].split(b"\0")[0]
            libraries.append(os.path.basename(name.decode()).split(".")[0])
        at += size
    return (magic, cpu, file_type), libraries


def main(nm, bundle, arch):
    problems = []
    header, libraries = header_and_libraries(bundle)
    if header != (MACHO_64, CPUS[arch], BUNDLE_TYPE):
        problems.append("it is no bundle for " + arch)
    if sorted(libraries) != LIBRARIES:
        problems.append("it loads %s instead of %s" % (sorted(libraries), LIBRARIES))

    symbols = subprocess.run([nm, "-m", bundle], stdout=subprocess.PIPE, text=True,
                             check=True).stdout
    exports = re.findall(r"^[0-9a-f]+ \(.*\) (?:weak )?external (\S+)", symbols, re.M)
    with open(EXPORTS) as file:
        if exports != file.read().split():
            problems.append("it exports %s" % exports)

    counts = collections.Counter(re.findall(r"external \S+ \(from (\S+)\)$", symbols, re.M))
    if sorted(counts) != LIBRARIES:
        problems.append("it takes symbols of %s instead of %s" % (sorted(counts), LIBRARIES))
    # Names carry one underscore more there.
    names = re.findall(r"external _(\S+) \(dynamically looked up\)$", symbols, re.M)
    unknown = sorted(set(demangle(names)) - host_symbols("unsigned long long"))
    problems += ["not a symbol of the host, libzmq or the system: " + name for name in unknown]
    counts["the host"] = len(names)

    print("undefined symbols: " + ", ".join("%d of %s" % (counts[k], k) for k in sorted(counts)))
    for problem in problems:
        print(os.path.basename(bundle) + ": " + problem, file=sys.stderr)
    return 1 if problems or not names else 0


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
