"""What ./cross-macos holds a bundle to, without a bundle.

    ProbeBundleCheckTest.py SOURCE_DIR ZMQ_HEADER
"""

import os
import struct
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR, ZMQ_HEADER = sys.argv[1:]
CHECK = os.path.join(SOURCE_DIR, "cmake/check_bundle_symbols.py")
HOST_SYMBOLS = os.path.join(SOURCE_DIR, "tests/data/host-symbols.txt")
BUNDLE, DYNAMIC_LIBRARY = 8, 6

SYSTEM = "                 (undefined) external _malloc (from libSystem)"
CXX = "                 (undefined) weak external __ZdlPv (from libc++)"
HOST = "                 (undefined) external __ZN8Reporter4InfoEPKcz (dynamically looked up)"
ZMQ = "                 (undefined) external _zmq_ctx_new (dynamically looked up)"
GOOD = [SYSTEM, CXX, HOST, ZMQ]


def check(lines, file_type=BUNDLE, cpu=0x01000007):
    """Exit status and what was complained about."""
    with tempfile.TemporaryDirectory() as folder:
        bundle, undefined = os.path.join(folder, "bundle"), os.path.join(folder, "undefined")
        with open(bundle, "wb") as file:
            file.write(struct.pack("<4I", 0xFEEDFACF, cpu, 3, file_type))
        with open(undefined, "w") as file:
            file.write("\n".join(lines) + "\n")
        run = subprocess.run([sys.executable, "-B", CHECK, bundle, undefined, HOST_SYMBOLS,
                              ZMQ_HEADER], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        return run.returncode, run.stderr


class BundleCheckTest(unittest.TestCase):
    def assert_refused(self, complaint, *arguments):
        status, complaints = check(*arguments)
        self.assertEqual(status, 1)
        self.assertIn(complaint, complaints)

    def test_symbols_of_all_four_are_accepted(self):
        self.assertEqual(check(GOOD), (0, ""))

    def test_function_that_nobody_has_is_refused(self):
        line = "                 (undefined) external __Z15nobody_has_thisi (dynamically looked up)"
        self.assert_refused("nobody_has_this", GOOD + [line])

    def test_c_function_of_another_system_is_refused(self):
        line = "                 (undefined) external _epoll_create1 (dynamically looked up)"
        self.assert_refused("epoll_create1", GOOD + [line])

    def test_name_that_only_looks_like_libzmqs_is_refused(self):
        line = "                 (undefined) external _zmq_not_there (dynamically looked up)"
        self.assert_refused("zmq_not_there", GOOD + [line])

    def test_symbol_of_another_library_is_refused(self):
        line = "                 (undefined) external _png_init (from libpng)"
        self.assert_refused("_png_init of libpng", GOOD + [line])

    def test_bundle_that_needs_nothing_of_one_of_the_four_is_refused(self):
        for line in GOOD:
            self.assert_refused("nothing at all", [other for other in GOOD if other != line])

    def test_file_that_is_no_bundle_for_this_processor_is_refused(self):
        self.assert_refused("not a bundle", GOOD, DYNAMIC_LIBRARY)
        self.assert_refused("not a bundle", GOOD, BUNDLE, 0x0100000C)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
