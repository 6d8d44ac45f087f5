"""The driver of the benchmarks runs the cheapest one and writes its files.

    bench_run_test.py SOURCE_FOLDER BUILD_FOLDER
"""

import importlib.machinery
import importlib.util
import os
import shutil
import sys
import tempfile
import unittest
from unittest import mock

SOURCE, BUILD = sys.argv[1:3]

sys.dont_write_bytecode = True
loader = importlib.machinery.SourceFileLoader("bench_run", os.path.join(SOURCE, "bench", "run"))
run = importlib.util.module_from_spec(importlib.util.spec_from_loader("bench_run", loader))
loader.exec_module(run)


class BenchRunTest(unittest.TestCase):
    def test_cheapest_benchmark_fills_the_table(self):
        with tempfile.TemporaryDirectory(prefix="zmqwriter-test-") as folder:
            for name in ("bench", "CMakeCache.txt"):
                os.symlink(os.path.join(BUILD, name), os.path.join(folder, name))
            with mock.patch.object(run, "build_all"), mock.patch.object(run, "BUILD", folder):
                status = run.main(["--quick", "--only", "conversion", "--no-install"])
            self.assertEqual(status, 0 if shutil.which("gnuplot") else 1)
            with open(os.path.join(folder, "results", "table.md"), encoding="utf-8") as file:
                table = file.read()
        self.assertRegex(table, r"\n\| conversion \| connection \| [0-9.]+ ns\S* "
                                r"\| generated builder functions \| [0-9.]+ ns\S* \| [0-9.]+ \|")
        self.assertRegex(table, r"\n\| columns per record \| conversion of a connection, ns \| 22 ")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
