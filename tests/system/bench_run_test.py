"""The driver of the benchmarks runs the cheapest one and writes its files."""

import importlib.machinery
import importlib.util
import os
import shutil
import unittest
from unittest import mock

from cli_support import BUILD_DIR, CliTest, SOURCE_DIR, read_file

loader = importlib.machinery.SourceFileLoader("bench_run", os.path.join(SOURCE_DIR, "bench", "run"))
run = importlib.util.module_from_spec(importlib.util.spec_from_loader("bench_run", loader))
loader.exec_module(run)


class BenchRunTest(CliTest):
    def test_cheapest_benchmark_fills_the_table(self):
        for name in ("bench", "CMakeCache.txt"):
            os.symlink(os.path.join(BUILD_DIR, name), name)
        with mock.patch.object(run, "build_all"), mock.patch.object(run, "BUILD", os.getcwd()):
            status = run.main(["--quick", "--only", "conversion", "--no-install"])
        self.assertEqual(status, 0 if shutil.which("gnuplot") else 1)
        table = read_file("results/table.md")
        self.assertRegex(table, r"\n\| conversion \| connection \| [0-9.]+ ns\S* "
                                r"\| generated builder functions \| [0-9.]+ ns\S* \| [0-9.]+ \|")
        self.assertRegex(table, r"\n\| columns per record \| conversion of a connection, ns \| 22 ")
        self.assertIn("\nconversion,connection,ns,", read_file("results/table.csv"))
        self.assertIn("\n\"columns per record: conversion of a connection, ns\",22,",
                      read_file("results/growth.csv"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
