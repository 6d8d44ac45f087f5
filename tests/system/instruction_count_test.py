"""The guard against work that grew, with a valgrind that counts to order.

    instruction_count_test.py SOURCE_FOLDER
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SCRIPT = os.path.join(sys.argv[1], "bench", "count-instructions")
HERE = "GCC 12 on x86_64 with FlatBuffers 2.0 and -O2 -g -DNDEBUG"
OTHER = "GCC 12 on x86_64 with FlatBuffers 2.0 and -O3 -DNDEBUG"
HEADER = "environment,case,instructions\n"

# A start of 100000 instructions, and so many for each record of the case.
VALGRIND = """#!/bin/sh
case $4 in conversion) each=%d ;; store) each=%d ;; esac
echo "==1== Collected : $((100000 + $each * $5))" >&2
"""


class InstructionCountTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="zmqwriter-test-")
        self.addCleanup(shutil.rmtree, self.folder)
        os.makedirs(os.path.join(self.folder, "bench"))
        os.mkdir(os.path.join(self.folder, "tools"))
        self.counts = os.path.join(self.folder, "counts.csv")
        self.program("bench/InstructionCount", '#!/bin/sh\necho "%s"\n' % HERE)

    def program(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w") as file:
            file.write(text)
        os.chmod(path, 0o755)

    def valgrind(self, conversion, store):
        self.program("tools/valgrind", VALGRIND % (conversion, store))

    def record(self, text):
        with open(self.counts, "w") as file:
            file.write(text)

    def recorded(self):
        with open(self.counts) as file:
            return file.read()

    def count(self, *words):
        return subprocess.run(
            [sys.executable, SCRIPT, "--build", self.folder, "--counts", self.counts] + list(words),
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env=dict(os.environ, PATH=os.path.join(self.folder, "tools")))

    def test_ten_percent_more_are_let_pass(self):
        self.record(HEADER + HERE + ",conversion,4000\n" + HERE + ",store,700\n")
        self.valgrind(4400, 770)
        result = self.count()
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_more_than_ten_percent_more_fail_and_the_case_is_named(self):
        self.record(HEADER + HERE + ",conversion,4000\n" + HERE + ",store,700\n")
        for conversion, store, grown in ((4401, 700, "conversion"), (4000, 771, "store")):
            with self.subTest(grown):
                self.valgrind(conversion, store)
                result = self.count()
                self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
                self.assertEqual(result.stdout.count("more than 10 % more"), 1)
                self.assertRegex(result.stdout, r"(?m)^%s .*\n  That is more" % grown)
                self.assertIn("bench/count-instructions --update", result.stdout)

    def test_less_passes(self):
        self.record(HEADER + HERE + ",conversion,4000\n" + HERE + ",store,700\n")
        self.valgrind(1000, 100)
        self.assertEqual(self.count().returncode, 0)

    def test_counts_of_other_flags_are_not_compared_with(self):
        self.record(HEADER + OTHER + ",conversion,1\n" + OTHER + ",store,1\n")
        self.valgrind(4000, 700)
        result = self.count()
        self.assertEqual(result.returncode, 77)
        self.assertIn("no counts are recorded for " + HERE, result.stdout)
        self.assertIn("bench/count-instructions --update", result.stdout)

    def test_record_without_one_of_the_cases_is_a_failure(self):
        for kept, missing in (("conversion,4000", "store"), ("store,700", "conversion")):
            with self.subTest(missing):
                self.record(HEADER + HERE + "," + kept + "\n")
                self.valgrind(4000, 700)
                result = self.count()
                self.assertEqual((result.returncode, result.stdout), (1, ""))
                self.assertIn("no count is recorded for %s of %s" % (missing, HERE), result.stderr)

    def test_unoptimised_build_is_neither_compared_nor_recorded(self):
        self.program("bench/InstructionCount", '#!/bin/sh\necho "%s, not optimised"\n' % HERE)
        record = HEADER + HERE + ",conversion,4000\n" + HERE + ",store,700\n"
        self.record(record)
        self.valgrind(4000, 700)
        for words in ([], ["--update"]):
            with self.subTest(words):
                result = self.count(*words)
                self.assertEqual((result.returncode, result.stdout), (1, ""))
                self.assertIn("is not optimised", result.stderr)
                self.assertEqual(self.recorded(), record)

    def test_without_valgrind_nothing_is_compared(self):
        self.record(HEADER + HERE + ",conversion,4000\n" + HERE + ",store,700\n")
        result = self.count()
        self.assertEqual(result.returncode, 77)
        self.assertEqual(result.stdout, "skipped: valgrind is not installed\n")

    def test_update_replaces_the_counts_of_this_environment_alone(self):
        self.record(HEADER + HERE + ",conversion,1\n" + OTHER + ",conversion,2\n")
        self.valgrind(4321, 700)
        result = self.count("--update")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.recorded(), HEADER + HERE + ",conversion,4321\n" + HERE +
                         ",store,700\n" + OTHER + ",conversion,2\n")
        self.assertEqual(self.count().returncode, 0)

    def test_update_without_valgrind_leaves_the_record_alone(self):
        self.record(HEADER)
        self.assertEqual(self.count("--update").returncode, 77)
        self.assertEqual(self.recorded(), HEADER)

    def test_run_that_fails_or_tells_no_count_is_a_failure(self):
        self.record(HEADER + HERE + ",conversion,4000\n" + HERE + ",store,700\n")
        for text, told in (("#!/bin/sh\nexit 3\n", "failed"), ("#!/bin/sh\n", "told no count")):
            with self.subTest(told):
                self.program("tools/valgrind", text)
                result = self.count()
                self.assertEqual(result.returncode, 1)
                self.assertIn(told, result.stderr)

    def test_broken_record_is_a_failure_and_names_the_line(self):
        self.record(HEADER + HERE + ",conversion,many\n")
        self.valgrind(1, 1)
        result = self.count()
        self.assertEqual(result.returncode, 1)
        self.assertIn("line 2: not a count", result.stderr)

    def test_program_that_was_not_built_is_a_failure(self):
        os.remove(os.path.join(self.folder, "bench", "InstructionCount"))
        result = self.count()
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot be run", result.stderr)

    def test_the_record_that_ships_is_readable(self):
        with open(os.path.join(sys.argv[1], "bench", "instruction-counts.csv")) as file:
            lines = file.read().splitlines()
        self.assertEqual(lines[0] + "\n", HEADER)
        self.assertGreater(len(lines), 2)
        for line in lines[1:]:
            self.assertTrue(re.fullmatch(r"[^,]+,(conversion|store),[1-9][0-9]*", line), line)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
