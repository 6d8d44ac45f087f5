"""What the plug-in's shared object takes and gives, as nm shows it.

    plugin_object_test.py SHARED_OBJECT [SANDBOX_SHARED_OBJECT]
"""

import os
import re
import subprocess
import sys
import unittest

from cli_support import SOURCE_DIR, read_file

OBJECT, SANDBOX = (sys.argv[1:] + [""])[:2]
sys.path.insert(0, os.path.join(SOURCE_DIR, "cmake"))
from host_symbols import demangle, host_symbols

# Versioned symbols of libc and libstdc++, and names that every shared object may have.
SYSTEM = re.compile(r"@+(GLIBC|GLIBCXX|CXXABI|GCC)_|^_ITM_|^__gmon_start__$|^__cxa_finalize$")
LIBZMQ = re.compile(r"^zmq_\w+$")


def output_of(*command):
    return subprocess.run([*command, OBJECT], stdout=subprocess.PIPE, text=True, check=True).stdout


def nm(*options):
    return [line.split()[-1] for line in output_of("nm", "-D", *options).splitlines()]


class PluginObjectTest(unittest.TestCase):
    def test_undefined_symbols_are_the_hosts_libzmqs_libstdcxxs_and_libcs_only(self):
        names = [name for name in nm("--undefined-only")
                 if not SYSTEM.search(name) and not LIBZMQ.match(name)]
        self.assertTrue(names, "nothing at all is taken from the host")
        self.assertEqual(set(demangle(names)) - host_symbols("unsigned long"), set())

    def test_needed_libraries_are_libzmq_libstdcxx_and_libc_only(self):
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", output_of("readelf", "-d"))
        for name in needed:
            self.assertRegex(name, r"^(libzmq|libstdc\+\+|libgcc_s|libc|libm|libpthread|ld-linux[\w-]*)\.so")
        self.assertTrue(any(name.startswith("libzmq.so") for name in needed), needed)

    def test_only_the_status_function_is_exported(self):
        self.assertEqual(nm("--defined-only", "--extern-only"), ["dravenholt_zmqwriter_status"])

    def test_plugin_object_is_constructed_before_the_initialiser_is_registered(self):
        constructors = {}
        for line in output_of("nm").splitlines():
            words = line.split()
            if len(words) == 3 and words[2].startswith("_GLOBAL__sub_I_"):
                constructors[int(words[0], 16)] = words[2]
        array = re.search(r" \.init_array\s+INIT_ARRAY\s+(\w+)\s+\w+\s+(\w+)",
                          output_of("readelf", "-SW"))
        start, size = int(array.group(1), 16), int(array.group(2), 16)
        order = []
        for where, value in re.findall(r"^(\w+)\s+\w+\s+R_\w+_RELATIVE\s+(\w+)",
                                       output_of("readelf", "-rW"), re.M):
            if start <= int(where, 16) < start + size:
                order.append((int(where, 16), constructors.get(int(value, 16), "")))
        names = [name for _, name in sorted(order)]
        plugin = next(i for i, name in enumerate(names) if name.endswith("_Plugin.cc"))
        registration = next(i for i, name in enumerate(names) if name.endswith("register.cc"))
        self.assertLess(plugin, registration)

    def test_sandbox_holds_none_of_the_places_that_an_installation_uses(self):
        if not SANDBOX:
            self.skipTest("no sandbox")
        places = re.findall(r'^#define ZMQWRITER_\w+ "(/.*)"$',
                            read_file(os.path.join(SOURCE_DIR, "src/Paths.h")), re.MULTILINE)
        self.assertEqual(len(places), 2)
        code = read_file(SANDBOX, "rb")
        for place in places:
            self.assertNotIn(place.encode(), code)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
