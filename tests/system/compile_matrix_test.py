"""The plug-in's sources compile with clang++ in the oldest and the newest standard, without a
warning (the build itself does so with its own compiler); they keep the order of includes that makes
this work with the host's headers, which define macros and open namespace std; and they ask for no
host and no system.

    compile_matrix_test.py [INCLUDE_DIR]...
"""

import concurrent.futures
import glob
import itertools
import os
import re
import shutil
import subprocess
import sys
import unittest

from cli_support import BUILD_DIR, SOURCE_DIR, CliTest, read_file, write_file

GENERATED_DIR = os.path.join(BUILD_DIR, "generated")
SRC = os.path.join(SOURCE_DIR, "src")
HOST = os.path.join(SOURCE_DIR, "host/api/include")
PLATFORM = os.path.join(SOURCE_DIR, "platform/include")
OWN = [os.path.basename(path) for path in glob.glob(os.path.join(SRC, "*.h"))]
STANDARDS = ("c++11", "c++17")


def find_clang():
    """The compiler's path, also where it is installed under a name with its version only."""
    names = [os.path.basename(path) for path in glob.glob("/usr/bin/clang++-[0-9]*")]
    return next(filter(None, map(shutil.which, ["clang++"] + names)), None)


def includes(path):
    return re.findall(r'^#include(?:_next)? ([<"][^>"]+[>"])', read_file(path), re.MULTILINE)


def is_host_header(include):
    name = include.strip('<>"')
    return include.startswith('"') and name not in OWN and (
        os.path.exists(os.path.join(HOST, name)) or name in ("SettingsFile.h", "zmq.bif.h"))


def brings_host_headers(include):
    """Host headers, and headers of ours that include some."""
    name = include.strip('<>"')
    if include.startswith('"') and name in OWN:
        return any(is_host_header(i) for i in includes(os.path.join(SRC, name)))
    return is_host_header(include)


def sources():
    return sorted(glob.glob(os.path.join(SRC, "**/*.cc"), recursive=True) +
                  glob.glob(os.path.join(GENERATED_DIR, "zmq.bif*.cc")))


def compile_one(compiler, standard, source):
    folders = [SRC, HOST, GENERATED_DIR] + ([PLATFORM] if sys.platform != "darwin" else [])
    flags = ["-std=" + standard, "-fsyntax-only", "-Wall", "-Wextra", "-Werror"]
    flags += ["-I" + folder for folder in folders]
    for folder in sys.argv[1:]:
        # Naming the system's own folder would change the order in which headers are found.
        flags += ["-isystem", folder] if folder != "/usr/include" else []
    result = subprocess.run([compiler] + flags + [source], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    return result.returncode, result.stdout


class CompileMatrixTest(CliTest):
    def test_sources_compile_with_clang_in_every_standard(self):
        compiler = find_clang()
        if not compiler and sys.platform != "linux":
            self.skipTest("clang++ is not installed")
        self.assertTrue(compiler, "clang++ is not installed")
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            results = list(pool.map(lambda job: compile_one(compiler, *job),
                                    itertools.product(STANDARDS, sources())))
        self.assertGreater(len(results), 16)
        for status, text in results:
            self.assertEqual(status, 0, text)

    def test_headers_are_self_contained(self):
        for name in OWN:
            with self.subTest(name):
                write_file("only.cc", '#include "%s"\n' % name)
                result = subprocess.run(
                    ["g++", "-std=c++11", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-I" + SRC,
                     "-I" + HOST, "-I" + GENERATED_DIR, "only.cc"],
                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
                self.assertEqual(result.returncode, 0, result.stdout)

    def test_host_headers_come_last(self):
        for path in glob.glob(os.path.join(SRC, "*.cc")) + glob.glob(os.path.join(SRC, "*.h")):
            found = includes(path)
            own = '"%s.h"' % os.path.splitext(os.path.basename(path))[0]
            first_host = next((i for i, name in enumerate(found)
                               if brings_host_headers(name) and name != own), len(found))
            for name in found[first_host:]:
                self.assertTrue(name.startswith('"'),
                                "%s: %s stands behind %s" % (path, name, found[first_host]))

    def test_no_host_or_system_is_asked_for(self):
        for path in glob.glob(os.path.join(SRC, "*.cc")) + glob.glob(os.path.join(SRC, "*.h")):
            self.assertEqual(re.findall(r"^ *#.*\b(?:__APPLE__|__linux__|BRO_\w+)\b.*", read_file(path),
                                        re.MULTILINE), [], path)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
