"""What the benchmark of the socket probe takes and prints; its times are not looked at.

    probe_bench_test.py PROBE_BENCH
"""

import os
import subprocess
import sys
import tempfile
import unittest

PROBE_BENCH = sys.argv[1]


class ProbeBenchTest(unittest.TestCase):
    def run_bench(self, *words, **environment):
        return subprocess.run([PROBE_BENCH] + list(words), stdout=subprocess.PIPE, text=True,
                              stderr=subprocess.PIPE, env=dict(os.environ, **environment))

    def test_wrong_words_are_refused_with_the_usage(self):
        for words in (["--frobnicate", "1"], ["word"], ["--runs"], ["--runs", "x"], ["--runs", "0"],
                      ["--processes", "5x"]):
            with self.subTest(words):
                result = self.run_bench(*words)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertTrue(result.stderr.startswith("usage: ProbeBench "), result.stderr)

    def test_tool_that_cannot_be_run_is_a_dash_and_left_out_of_the_ratio(self):
        with tempfile.TemporaryDirectory(prefix="zmqwriter-test-") as folder:
            for tools in ([], ["ss"]):
                for tool in tools:
                    path = os.path.join(folder, tool)
                    with open(path, "w") as file:
                        file.write("#!/bin/sh\n")
                    os.chmod(path, 0o755)
                result = self.run_bench("--runs", "1", "--processes", "10", PATH=folder)
                self.assertEqual(result.returncode, 0, result.stderr)
                for line in result.stdout.splitlines()[2:]:
                    words = line.split()
                    self.assertEqual(words[5] == "-", not tools, line)
                    self.assertEqual(words[6], "-", line)
                    for ratio in words[7::2]:
                        self.assertEqual(ratio == "-", not tools, line)
                self.assertEqual(len(result.stdout.splitlines()), 4)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
