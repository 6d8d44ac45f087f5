"""The plug-in's sources compile as C++11, C++14 and C++17, with g++ and clang++, with assertions
and without, without a warning; and they keep the order of includes that makes this work with the
host's headers, which define macros and open namespace std.

    compile_matrix_test.py SOURCE_DIR GENERATED_DIR [INCLUDE_DIR]...
"""

import concurrent.futures
import glob
import itertools
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR, GENERATED_DIR = sys.argv[1:3]
SRC = os.path.join(SOURCE_DIR, "src")
HOST = os.path.join(SOURCE_DIR, "host/include")
PLATFORM = os.path.join(SOURCE_DIR, "platform/include")
OWN = [os.path.basename(path) for path in glob.glob(os.path.join(SRC, "*.h"))]
STANDARDS = ("c++11", "c++14", "c++17")


def find_clang(path=None):
    """The compiler's path, also where a system installs it under its versioned name only."""
    return shutil.which("clang++", path=path) or shutil.which("clang++-14", path=path)


def includes(path):
    with open(path) as file:
        return re.findall(r'^#include(?:_next)? ([<"][^>"]+[>"])', file.read(), re.MULTILINE)


def is_host_header(include):
    name = include.strip('<>"')
    return include.startswith('"') and name not in OWN and (
        os.path.exists(os.path.join(HOST, name)) or name == "zmq.bif.h")


def brings_host_headers(include):
    """Host headers, and headers of ours that include some."""
    name = include.strip('<>"')
    if include.startswith('"') and name in OWN:
        return any(is_host_header(i) for i in includes(os.path.join(SRC, name)))
    return is_host_header(include)


def compile_all(configuration):
    compiler, standard, assertions = configuration
    folders = [SRC, HOST, GENERATED_DIR] + ([PLATFORM] if sys.platform != "darwin" else [])
    flags = ["-std=" + standard, "-fsyntax-only", "-Wall", "-Wextra", "-Werror"]
    flags += ["-I" + folder for folder in folders]
    for folder in sys.argv[3:]:
        # Naming the system's own folder would change the order in which headers are found.
        flags += ["-isystem", folder] if folder != "/usr/include" else []
    flags += [] if assertions else ["-DNDEBUG"]
    sources = sorted(glob.glob(os.path.join(SRC, "*.cc")) +
                     glob.glob(os.path.join(GENERATED_DIR, "zmq.bif*.cc")))
    result = subprocess.run([compiler] + flags + sources, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    return len(sources), result.returncode, result.stdout


class CompileMatrixTest(unittest.TestCase):
    def test_clang_is_found_under_either_name(self):
        with tempfile.TemporaryDirectory(prefix="zmqwriter-test-") as folder:
            self.assertIsNone(find_clang(folder))
            for name in ("clang++-14", "clang++"):
                path = os.path.join(folder, name)
                os.close(os.open(path, os.O_CREAT, 0o755))
                self.assertEqual(find_clang(folder), path)

    def test_sources_compile_in_every_combination_with_gcc(self):
        self.check_every_combination("g++")

    def test_sources_compile_in_every_combination_with_clang(self):
        compiler = find_clang()
        if not compiler and sys.platform != "linux":
            self.skipTest("neither clang++ nor clang++-14 is installed")
        self.assertTrue(compiler, "neither clang++ nor clang++-14 is installed")
        self.check_every_combination(compiler)

    def check_every_combination(self, compiler):
        configurations = list(itertools.product([compiler], STANDARDS, (True, False)))
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            for configuration, (count, status, text) in zip(configurations,
                                                            pool.map(compile_all, configurations)):
                with self.subTest(configuration):
                    self.assertEqual(status, 0, text)
                    self.assertEqual(count, len(glob.glob(os.path.join(SRC, "*.cc"))) + 3)

    def test_headers_are_self_contained(self):
        for name in OWN:
            with self.subTest(name), tempfile.TemporaryDirectory(prefix="zmqwriter-test-") as folder:
                path = os.path.join(folder, "only.cc")
                with open(path, "w") as file:
                    file.write('#include "%s"\n' % name)
                result = subprocess.run(
                    ["g++", "-std=c++11", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-I" + SRC,
                     "-I" + HOST, "-I" + GENERATED_DIR, path],
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


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
