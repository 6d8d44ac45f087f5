"""cmake --install of a build without a host: what it puts where.

    install_test.py BUILD_DIR
"""

import os
import stat
import subprocess
import sys
import tempfile
import unittest

BUILD_DIR = sys.argv[1]


class InstallTest(unittest.TestCase):
    def test_program_plugin_and_prepared_folders_are_installed_below_destdir(self):
        with tempfile.TemporaryDirectory(prefix="zmqwriter-test-") as root:
            result = subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", "/opt/z"], text=True,
                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                    env=dict(os.environ, DESTDIR=root))
            self.assertEqual(result.returncode, 0, result.stdout)
            # Where a host looks for plug-ins there is none, as a host could not load this one.
            self.assertEqual(os.listdir(os.path.join(root, "opt/z/lib")), ["zmqwriter"])
            program = os.path.join(root, "opt/z/bin/zmqwriter")
            described = subprocess.run([program, "replay", "-N"], stdout=subprocess.PIPE, text=True,
                                       check=True)
            self.assertEqual(described.stdout.split()[0], "Dravenholt::ZMQWriter")
            for folder in ("usr/local/orvik", "usr/local/Cellar/orvik/2.4.1"):
                path = os.path.join(root, folder)
                self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o700, folder)
                self.assertIn("Made for the installing user alone: " + path, result.stdout)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
