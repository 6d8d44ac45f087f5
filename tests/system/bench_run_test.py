"""The driver of the benchmarks: what it makes of the programs' files, and how it ends.

    bench_run_test.py SOURCE_FOLDER [BUILD_FOLDER]

No figure that was measured is looked at. With the folder of a finished build (that has the
benchmarks) the cheapest one is run for real.
"""

import importlib.machinery
import importlib.util
import io
import math
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from contextlib import redirect_stderr, redirect_stdout
from unittest import mock

SOURCE = sys.argv[1]
BUILD = os.path.abspath(sys.argv[2]) if len(sys.argv) > 2 else None

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(SOURCE, "bench"))
import report  # noqa: E402
import shipper_bench  # noqa: E402

loader = importlib.machinery.SourceFileLoader("bench_run", os.path.join(SOURCE, "bench", "run"))
run = importlib.util.module_from_spec(importlib.util.spec_from_loader("bench_run", loader))
loader.exec_module(run)

ROWS = """measure,case,unit,ours,peer_name,peer,ratio,goal,lowest,highest
spool Store,400 B,us,1.1,bare stdio,1,1.1,<= 1.15,1.05,1.2
delivered,"http, 1 writer",events/s,80000,loop,100000,0.8,>= 0.9,,
growth of memory,server up,kB,2048,,,,<= 2048,,
drain,1000 records,us,3,sequential read,0.5,6,,5.5,7
"""

POINTS = """curve,x,ours,peer
"spool depth: drain, s",1,0.5,0.1
"spool depth: drain, s",10,5,
"spool depth: drain, s",100,50,10
"writers: delivery, s",1,1,
"writers: delivery, s",2,4,
"""


class InFolder(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zmqwriter-test-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def file(self, name, content=None):
        path = os.path.join(self.folder, name)
        if content is not None:
            with open(path, "w", encoding="utf-8") as file:
                file.write(content)
        return path

    def text(self, name):
        with open(os.path.join(self.folder, name), encoding="utf-8") as file:
            return file.read()


class FiguresTest(unittest.TestCase):
    def test_median_is_the_middle_or_the_mean_of_two(self):
        self.assertEqual(report.median([3]), 3)
        self.assertEqual(report.median([9, 1, 5]), 5)
        self.assertEqual(report.median([9, 1, 5, 2]), 3.5)

    def test_goal_includes_its_bound_unless_it_says_less(self):
        for goal, value, met in (("<= 1.15", 1.15, True), ("<= 1.15", 1.151, False),
                                 (">= 0.9", 0.9, True), (">= 0.9", 0.899, False),
                                 ("< 1", 1, False), ("< 1", 0.99, True),
                                 ("> 1", 1, False), ("> 1", 1.01, True), ("", 7, None)):
            with self.subTest((goal, value)):
                self.assertIs(report.goal_met(goal, value), met)

    def test_goal_that_cannot_be_read_is_an_error(self):
        for goal in ("1.15", "<=1.15", "<= x", "about 1"):
            with self.subTest(goal), self.assertRaises(ValueError):
                report.parse_goal(goal)

    def test_goal_is_asked_of_the_ratio_or_else_of_our_figure(self):
        self.assertIs(report.row_met(report.Row("", "", "", 5.0, "p", 10.0, 0.5, "<= 1")), True)
        self.assertIs(report.row_met(report.Row("", "", "", 5.0, "", None, None, "<= 1")), False)

    def test_exponent_tells_linear_from_quadratic_and_constant(self):
        xs = [1, 10, 100, 1000, 10000]
        self.assertAlmostEqual(report.exponent([(x, 3 * x) for x in xs]), 1)
        self.assertAlmostEqual(report.exponent([(x, x * x) for x in xs]), 2)
        self.assertAlmostEqual(report.exponent([(x, 7) for x in xs]), 0)

    def test_exponent_is_that_of_the_large_end(self):
        points = [(1, 1), (10, 1), (100, 1), (1000, 100), (10000, 10000)]
        self.assertAlmostEqual(report.exponent(points), 2)

    def test_exponent_of_two_points_is_that_of_the_line_between(self):
        self.assertAlmostEqual(report.exponent([(2, 1), (1, 0.5)]), 1)

    def test_figures_show_three_digits_that_count(self):
        for value, text in ((None, ""), (0, "0"), (0.01234, "0.0123"), (0.9, "0.900"),
                            (1.5, "1.50"), (99.96, "100.0"), (123.4, "123"), (65432.1, "65432")):
            with self.subTest(value):
                self.assertEqual(report.figure(value), text)


class FilesTest(InFolder):
    def test_rows_are_read_with_quotes_and_gaps(self):
        rows = report.read_rows(self.file("rows.csv", ROWS))
        self.assertEqual(len(rows), 4)
        self.assertEqual(rows[1], report.Row("delivered", "http, 1 writer", "events/s", 80000.0,
                                             "loop", 100000.0, 0.8, ">= 0.9"))
        self.assertEqual(rows[2].peer, None)
        self.assertEqual((rows[0].lowest, rows[0].highest, rows[1].lowest), (1.05, 1.2, None))
        self.assertEqual([report.row_met(row) for row in rows], [True, False, True, None])

    def test_rows_that_were_written_are_read_again(self):
        rows = report.read_rows(self.file("rows.csv", ROWS))
        report.write_rows(self.file("again.csv"), rows)
        self.assertEqual(report.read_rows(self.file("again.csv")), rows)

    def test_malformed_files_are_refused_by_name_and_line(self):
        head = "measure,case,unit,ours,peer_name,peer,ratio,goal,lowest,highest\n"
        for content, where in (("", "the first line"), ("measure,case\n", "the first line"),
                               (head + "a,b,c\n", ":2: 3 columns"),
                               (head + "a,b,us,x,,,,,,\n", ":2: "),
                               (head + "a,b,us,1,,,,,,\na,b,us,nan,,,,,,\n", ":3: "),
                               (head + "a,b,us,1,p,inf,,,,\n", ":2: "),
                               (head + "a,b,us,1,,,,,1,y\n", ":2: "),
                               (head + "a,b,us,1,,,,good,,\n", ":2: no goal")):
            with self.subTest(content):
                with self.assertRaises(report.Malformed) as caught:
                    report.read_rows(self.file("rows.csv", content))
                self.assertIn(self.file("rows.csv"), str(caught.exception))
                self.assertIn(where, str(caught.exception))

    def test_points_need_a_place_on_a_logarithmic_scale(self):
        for line in ("c,0,1,", "c,1,0,", "c,1,1,-1", "c,-1,1,"):
            with self.subTest(line), self.assertRaises(report.Malformed):
                report.read_points(self.file("points.csv", "curve,x,ours,peer\n%s\n" % line))

    def test_curves_are_sorted_out_by_axis_and_series(self):
        points = report.read_points(self.file("points.csv", POINTS))
        curves = report.curves(points)
        self.assertEqual(list(curves), ["spool depth", "writers"])
        self.assertEqual(list(curves["writers"]), ["delivery, s"])


class TableTest(InFolder):
    def setUp(self):
        super().setUp()
        self.rows = report.read_rows(self.file("rows.csv", ROWS))
        self.points = report.read_points(self.file("points.csv", POINTS))

    def test_table_says_of_each_goal_whether_it_is_met(self):
        lines = report.rows_table(self.rows).splitlines()[2:]
        self.assertTrue(lines[0].endswith("| 1.10 | 1.05–1.20 | <= 1.15 | met |"), lines[0])
        self.assertTrue(lines[1].endswith("| 0.800 |  | >= 0.9 | **missed** |"), lines[1])
        self.assertTrue(lines[2].endswith("| 2048 kB |  |  |  |  | <= 2048 | met |"), lines[2])
        self.assertTrue(lines[3].endswith("| 6.00 | 5.50–7.00 |  |  |"), lines[3])

    def test_growth_is_judged_by_its_exponent(self):
        linear, quadratic = report.growth_rows(self.points)
        self.assertAlmostEqual(linear.ours, 1)
        self.assertAlmostEqual(linear.peer, 1)
        self.assertIs(linear.met, True)
        self.assertAlmostEqual(quadratic.ours, 2)
        self.assertIsNone(quadratic.peer)
        self.assertIs(quadratic.met, False)

    def test_growth_may_be_no_steeper_for_a_floor_that_is(self):
        points = [report.Point("n: a, s", x, x ** 1.15, x ** 1.3) for x in (1.0, 10.0, 100.0)]
        row, = report.growth_rows(points)
        self.assertEqual((row.goal, row.met), ("<= 1.1", False))

    def test_goals_of_rows_and_curves_are_counted(self):
        self.assertEqual(report.count_goals(self.rows, self.points), (3, 2))

    def test_page_has_the_facts_and_the_warnings(self):
        page = report.markdown([("commit", "abc")], ["Not quiet."], self.rows, [])
        self.assertIn("- commit: abc\n", page)
        self.assertIn("**Not quiet.**", page)
        self.assertNotIn("## Growth", page)

    def test_plot_has_a_panel_for_each_axis_and_quotes_what_it_shows(self):
        points = self.points + [report.Point("it's: a, b", 1.0, 2.0, 3.0)]
        script = report.plot_script(points, self.file("it's.svg"))
        self.assertEqual(len(re.findall("^plot ", script, re.M)), 3)
        self.assertIn("set title 'it''s'", script)
        self.assertIn("it''s.svg'", script)
        self.assertIn("drain, s, floor", script)

    @unittest.skipUnless(shutil.which("gnuplot"), "needs gnuplot")
    def test_plot_is_an_svg(self):
        report.draw(self.points, self.file("growth.svg"))
        self.assertIn("<svg", self.text("growth.svg"))
        self.assertIn("spool depth", self.text("growth.svg"))


class DriverTest(InFolder):
    """bench/run with programs of the test's own in place of the benchmarks."""

    def program(self, name, script):
        os.makedirs(os.path.join(self.folder, "build", "bench"), exist_ok=True)
        path = self.file(os.path.join("build", "bench", name), "#!/bin/sh\n" + script)
        os.chmod(path, 0o755)
        return path

    def drive(self, benchmarks, *words, busy=None):
        """The exit status, standard output and standard error of a run without a build."""
        with open(os.path.join(self.folder, "build", "CMakeCache.txt"), "w") as cache:
            cache.write("CMAKE_CXX_COMPILER:FILEPATH=/bin/false\n")
        out, err = io.StringIO(), io.StringIO()
        with mock.patch.object(run, "BENCHMARKS", benchmarks), \
                mock.patch.object(run, "build_all"), redirect_stdout(out), redirect_stderr(err), \
                mock.patch.object(run.os, "getloadavg", lambda: (busy or 0.0, 0, 0)), \
                mock.patch.object(run, "busy_seconds", lambda: None):
            status = run.main(["--no-install", "--build", os.path.join(self.folder, "build"),
                               "--results", os.path.join(self.folder, "results")] + list(words))
        return status, out.getvalue(), err.getvalue()

    def writes(self, rows=ROWS):
        """A shell program that writes these rows to where --csv says."""
        return "cat > \"$2\" <<'EOD'\n%sEOD\necho \"$@\" > %s\n" % (rows, self.file("words"))

    def test_missed_goals_are_no_failure_of_the_run(self):
        self.program("Good", self.writes())
        status, out, _ = self.drive([run.Benchmark("good", "Good")])
        self.assertEqual(status, 0)
        self.assertIn("2 goals met, 1 missed", out)
        self.assertIn("**missed**", self.text("results/table.md"))
        self.assertIn("kind of run: full", self.text("results/table.md"))

    def test_quick_is_passed_on_and_marked(self):
        self.program("Good", self.writes())
        self.drive([run.Benchmark("good", "Good")], "--quick")
        self.assertTrue(self.text("words").endswith(" --quick\n"), self.text("words"))
        self.assertIn("not to be quoted", self.text("results/table.md"))

    def test_program_that_fails_fails_the_run_but_not_the_others(self):
        self.program("Bad", "echo no such thing >&2; exit 3\n")
        self.program("Good", self.writes())
        status, _, err = self.drive([run.Benchmark("bad", "Bad"), run.Benchmark("good", "Good")])
        self.assertEqual(status, 1)
        self.assertIn("bad ended with status 3", err)
        self.assertIn("no such thing", err)
        self.assertIn("spool Store", self.text("results/table.md"))
        self.assertIn("**Not everything could be measured: bad ended with status 3",
                      self.text("results/table.md"))

    def test_what_was_measured_before_a_program_failed_is_kept(self):
        self.program("Half", self.writes() + "exit 1\n")
        status, _, err = self.drive([run.Benchmark("half", "Half")])
        self.assertEqual(status, 1)
        self.assertIn("FAILED: half ended with status 1", err)
        self.assertIn("spool Store", self.text("results/table.md"))
        self.assertIn("Not everything could be measured", self.text("results/table.md"))

    def test_figures_of_an_earlier_run_never_stand_for_a_program_that_failed(self):
        os.makedirs(os.path.join(self.folder, "results"))
        self.file("results/bad.csv", ROWS)
        self.program("Bad", "exit 0\n")  # and writes nothing
        status, _, _ = self.drive([run.Benchmark("bad", "Bad")])
        self.assertEqual(status, 1)
        self.assertNotIn("spool Store", self.text("results/table.md"))

    def test_malformed_file_fails_the_run(self):
        self.program("Odd", self.writes("a,b\n"))
        status, _, err = self.drive([run.Benchmark("odd", "Odd")])
        self.assertEqual(status, 1)
        self.assertIn("odd.csv: the first line", err)

    def test_what_a_program_left_out_is_passed_on(self):
        self.program("Part", self.writes() + "echo left out: no shipper here >&2; seq 100\n")
        status, _, err = self.drive([run.Benchmark("part", "Part")])
        self.assertEqual(status, 0)
        self.assertIn("part: left out: no shipper here", err)
        self.assertIn("left out: no shipper here", self.text("results/table.md"))

    def test_busy_machine_is_said_in_the_table(self):
        self.program("Good", self.writes())
        self.drive([run.Benchmark("good", "Good")], busy=0.4)
        self.assertNotIn("not quiet", self.text("results/table.md"))
        self.drive([run.Benchmark("good", "Good")], busy=2.5)
        self.assertIn("**The machine was not quiet when the run began: its load was 2.50",
                      self.text("results/table.md"))

    def test_only_runs_what_was_named(self):
        self.program("Good", self.writes())
        self.program("Bad", "exit 3\n")
        status, _, _ = self.drive([run.Benchmark("good", "Good"), run.Benchmark("bad", "Bad")],
                                  "--only", "good")
        self.assertEqual(status, 0)

    def test_failed_build_ends_the_run(self):
        out, err = io.StringIO(), io.StringIO()
        with mock.patch.object(run, "build_all", side_effect=run.Failed("does not build")), \
                redirect_stdout(out), redirect_stderr(err):
            status = run.main(["--no-install", "--build", self.folder])
        self.assertEqual((status, out.getvalue()), (1, ""))
        self.assertIn("does not build", err.getvalue())

    def test_wrong_words_are_refused(self):
        for words in (["--frobnicate"], ["--only"], ["--only", "nothing"], ["word"]):
            with self.subTest(words):
                result = subprocess.run([sys.executable, "-B", os.path.join(SOURCE, "bench", "run")]
                                        + words, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertIn("bench/run", result.stderr)

    def test_work_of_others_is_told_from_our_own(self):
        clock = iter([100.0, 110.0])
        with mock.patch.object(run.time, "monotonic", lambda: next(clock)), \
                mock.patch.object(run.os, "getloadavg", lambda: (0.0, 0, 0)), \
                mock.patch.object(run, "busy_seconds", mock.Mock(side_effect=[50.0, 61.0])), \
                mock.patch.object(run, "own_seconds", mock.Mock(side_effect=[5.0, 9.0])):
            warnings = run.Quietness().warnings()
        self.assertEqual(len(warnings), 1)
        self.assertIn("Other work took 0.70 processors", warnings[0])


class ShipperTest(InFolder):
    LOG = ("#separator \\x09\n#path\tweird\n"
           "#fields\tts\tuid\tn\tok\tname\tset\tports\tgone\n"
           "#types\ttime\tstring\tcount\tbool\tstring\tset[string]\tvector[count]\tstring\n"
           "1.5\tC1\t7\tT\tcaf\\xc3\\xa9 \\\"\t(empty)\t1,2\t-\n"
           "2.5\tC2\t8\tF\t(empty)\ta,b\\x2cc\t-\t-\n"
           "#close\t2015\n")

    def log(self):
        return shipper_bench.Log(self.file("in.log", self.LOG))

    def test_json_line_holds_every_set_column_by_its_type(self):
        log = self.log()
        self.assertEqual(log.object_of(log.rows[0]), {
            "_path": "weird", "ts": 1.5, "uid": "C1", "n": 7, "ok": True, "name": "caf\xe9 \\\"",
            "set": [], "ports": [1, 2]})
        self.assertEqual(log.object_of(log.rows[1], {"uid"}), {
            "_path": "weird", "ts": 2.5, "n": 8, "ok": False, "name": "", "set": ["a", "b,c"]})

    def test_rows_are_repeated_until_there_are_enough(self):
        log = self.log()
        log.write(self.file("out.log"), 5)
        log.write_json(self.file("out.json"), 5, envelope={"agent_id": "a"})
        records = [line for line in self.text("out.log").splitlines() if not line.startswith("#")]
        lines = self.text("out.json").splitlines()
        self.assertEqual((len(records), len(lines)), (5, 5))
        self.assertEqual(records[4], records[0])
        self.assertEqual(lines[4], lines[0])
        self.assertTrue(lines[0].endswith(',"agent_id":"a"}'), lines[0])

    def test_keys_are_written_as_libzmq_reads_them(self):
        # The example of the encoding's own description.
        self.assertEqual(shipper_bench.z85(bytes.fromhex("864FD26FB559F75B")), "HelloWorld")

    def test_lines_are_counted_as_they_are_received(self):
        size = self.log().write_json(self.file("out.json"), 3)
        with open(self.file("out.json"), "rb") as file:
            self.assertEqual(size, sum(len(line.rstrip(b"\n")) for line in file))

    def bench(self, *words, **functions):
        """The status and standard error of a run with functions of the test's own."""
        out, err = io.StringIO(), io.StringIO()
        functions.setdefault("find_rsyslogd", lambda: "/bin/false")
        with mock.patch.multiple(shipper_bench, **functions), \
                mock.patch.object(sys, "argv", ["shipper_bench.py", "--build", self.folder, "--csv",
                                                self.file("rows.csv")] + list(words)), \
                redirect_stdout(out), redirect_stderr(err):
            return shipper_bench.main(), err.getvalue()

    def test_rows_are_our_figures_beside_those_of_both_contents_with_their_goals(self):
        ours = mock.Mock(side_effect=[(rate, 2.0, 30.0) for rate in (50.0, 40, 60, 45, 55)] * 2)
        status, _ = self.bench(
            "--records", "2000", client_keys=lambda *_: ["p", "s"], rsyslog_problem=lambda *_: None,
            run_ours=ours, run_rsyslog=lambda build, keys, lines, count, size:
            (100.0, 4.0, 60.0) if lines.endswith("event.json") else (80.0, 5.0, 90.0))
        self.assertEqual((status, ours.call_count), (0, 10))
        rows = report.read_rows(self.file("rows.csv"))
        self.assertEqual(
            [(row.measure, row.case, row.ours, row.peer, row.ratio, row.goal) for row in rows[:6]],
            [("shipped", "connection, the event's contents", 50, 100, 0.5, ">= 0.5"),
             ("processor time of shipping", "connection, the event's contents", 2, 4, 0.5, "< 1"),
             ("bytes on the wire", "connection, the event's contents", 30, 60, 0.5, "< 1"),
             ("shipped", "connection, all columns", 50, 80, 0.625, ">= 0.5"),
             ("processor time of shipping", "connection, all columns", 2, 5, 0.4, "< 1"),
             ("bytes on the wire", "connection, all columns", 30, 90, 0.333333, "< 1")])
        self.assertEqual((rows[0].lowest, rows[0].highest), (0.4, 0.6))
        self.assertEqual([(row.measure, row.case.replace("http", "connection"), row.goal)
                          for row in rows[6:]],
                         [(row.measure, row.case, row.goal) for row in rows[:6]])

    def test_run_that_fails_fails_the_benchmark_but_keeps_the_rows_before(self):
        def run_ours(build, log, count):
            if log.endswith("http.log"):
                raise shipper_bench.Failed("not all events arrived")
            return 50.0, 2.0, 30.0
        status, err = self.bench(
            "--runs", "1", client_keys=lambda *_: ["p", "s"], rsyslog_problem=lambda *_: None,
            run_ours=run_ours, run_rsyslog=lambda *_: (100.0, 4.0, 60.0))
        self.assertEqual((status, err), (1, "shipper_bench.py: not all events arrived\n"))
        rows = report.read_rows(self.file("rows.csv"))
        self.assertEqual({(row.case.partition(",")[0], row.lowest) for row in rows},
                         {("connection", None)})

    def test_shipper_that_does_not_deliver_is_left_out(self):
        status, err = self.bench(client_keys=lambda *_: ["p", "s"],
                                 run_rsyslog=mock.Mock(side_effect=shipper_bench.Failed("nothing")))
        self.assertEqual(status, 0)
        self.assertIn("left out: rsyslog with its czmq module does not deliver here: nothing", err)

    def test_keys_or_a_sink_of_ours_that_fail_are_not_the_shippers_fault(self):
        os.makedirs(os.path.join(self.folder, "bin"))
        path = self.file("bin/zmqwriter", "#!/bin/sh\necho no keys >&2; exit 1\n")
        os.chmod(path, 0o755)
        status, err = self.bench()
        self.assertEqual((status, err),
                         (1, "shipper_bench.py: zmqwriter keygen failed:\nno keys\n\n"))
        status, err = self.bench(client_keys=lambda *_: ["p", "s"])
        self.assertEqual(status, 1)
        self.assertTrue(err.startswith("shipper_bench.py: Sink cannot be run: "), err)

    def test_other_bytes_than_those_of_the_lines_are_a_failure(self):
        sink = mock.Mock()
        sink.wait.return_value = (100.0, 4000, 60.0)
        for size, fails in ((4000, False), (4001, True), (3999, True), (None, False)):
            with self.subTest(size):
                sender = ["true"], self.folder, sink, 10, size
                if fails:
                    with self.assertRaisesRegex(shipper_bench.Failed, "4000 bytes arrived"):
                        shipper_bench.run_sender(*sender)
                else:
                    self.assertEqual(shipper_bench.run_sender(*sender)[0], 100.0)

    def test_candidates_take_turns_in_both_directions_and_figures_are_their_own(self):
        calls = []
        figures = {"a": iter([1, 9, 5, 3, 7]), "b": iter([20, 10, 50, 40, 30])}

        def candidate(name):
            def run_once():
                calls.append(name)
                value = next(figures[name])
                return value, -value
            return run_once
        self.assertEqual(shipper_bench.measure_in_turn(5, [candidate("a"), candidate("b")]),
                         [[(1, 9, 5, 3, 7), (-1, -9, -5, -3, -7)],
                          [(20, 10, 50, 40, 30), (-20, -10, -50, -40, -30)]])
        self.assertEqual("".join(calls), "abbaabbaab")

    def test_without_a_shipper_there_is_no_row_and_a_reason(self):
        status, err = self.bench(find_rsyslogd=lambda: None)
        self.assertEqual(status, 0)
        self.assertTrue(err.startswith("left out: rsyslogd is not installed"))
        self.assertEqual(report.read_rows(self.file("rows.csv")), [])


@unittest.skipUnless(BUILD, "needs a build with the benchmarks")
class RealRunTest(InFolder):
    def test_cheapest_program_is_run_for_real(self):
        out, err = io.StringIO(), io.StringIO()
        with mock.patch.object(run, "build_all"), redirect_stdout(out), redirect_stderr(err):
            status = run.main(["--quick", "--only", "conversion", "--no-install", "--build", BUILD,
                               "--results", self.folder])
        if not shutil.which("gnuplot"):
            self.assertIn("no plot: ", err.getvalue())
        else:
            self.assertEqual(status, 0, err.getvalue())
            self.assertIn("<svg", self.text("growth.svg"))
        rows = report.read_rows(self.file("conversion.csv"))
        self.assertIn("connection", [row.case for row in rows])
        for row in rows:
            self.assertGreater(row.ours, 0)
            self.assertTrue(row.ratio is None or
                            math.isclose(row.ratio, row.ours / row.peer, rel_tol=1e-4), row)
        self.assertIn("| conversion | connection |", self.text("table.md"))
        self.assertIn("columns per record", self.text("table.md"))

    # What is asked of each program's rows; whether it is given says nothing about its being met.
    GOALS = {
        "ConversionBench": {
            ("conversion", "connection"): "<= 1.3", ("conversion", "http"): "",
            ("conversion, allocations", "connection"): "<= 1",
            ("conversion, allocations", "20-pairs"): "<= 1"},
        "WriteBench": {
            ("DoWrite", "connection, 1 writer"): "<= 1.5", ("DoWrite", "connection, 4 writers"): "",
            ("DoWrite, all writers", "connection, 8 writers"): ">= 0.9"},
        "DeliveryBench": {
            ("delivered", "%s, %s, %s" % (kind, writers, way)): ">= 0.9"
            for kind in ("connection", "http") for writers in ("1 writer", "4 writers")
            for way in ("in memory", "by the spool")},
        "SpoolBench": {
            ("spool " + measure, "%d B" % size): "<= 1.15"
            for measure in ("Store", "Get", "Store and Get in turn")
            for size in (100, 400, 1000, 4000, 16000, 60000)},
        "ProbeBench": {
            ("UserDetect query", "1000 sockets, 10 processes, owner " + owner): "<= 0.2"
            for owner in ("first", "in the middle", "last")},
        "StatsBench": {("SystemStats reading", None): "<= 0.2"},
        "MemoryBench": {
            ("growth of resident memory", "one run, 10000 to 30000 records, " + when): "<= 2048"
            for when in ("server up", "server down", "drained")},
    }

    WORDS = {"DeliveryBench": ["--runs", "1", "--events", "2000"],
             "ProbeBench": ["--runs", "1", "--processes", "10"]}

    CURVES = {
        "ConversionBench": ["columns per record: conversion of a connection, ns",
                            "columns per record: conversion of key/value pairs, ns"],
        "WriteBench": ["writers: DoWrite, s"],
        "DeliveryBench": ["message size (B): delivery, us", "writers: delivery, s"],
        "SpoolBench": ["message size (B): Get, us", "message size (B): Store, us",
                       "spool depth: drain, s"],
    }

    def test_every_program_measures_all_that_has_a_goal_and_writes_where_it_was_started(self):
        for name, goals in self.GOALS.items():
            program = os.path.join(BUILD, "bench", name)
            if not os.path.exists(program):
                self.assertNotEqual(platform.system(), "Linux", "%s is not built" % name)
                continue
            with self.subTest(name):
                words = ["--quick", "--csv", "rows.csv"] + self.WORDS.get(name, [])
                if name in self.CURVES:
                    words += ["--growth", "points.csv"]
                result = subprocess.run([program] + words, cwd=self.folder, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
                self.assertEqual(result.returncode, 0, result.stderr)
                self.check_rows(name, report.read_rows(self.file("rows.csv")), goals)
                if name in self.CURVES:
                    points = report.read_points(self.file("points.csv"))
                    self.assertEqual(sorted({point.curve for point in points}), self.CURVES[name])

    def check_rows(self, name, rows, goals):
        for row in rows:
            if not row.measure.startswith("growth"):
                self.assertGreater(row.ours, 0, row)
        for (measure, case), goal in goals.items():
            found = [row.goal for row in rows
                     if row.measure == measure and case in (None, row.case)]
            self.assertTrue(found, "%s: no row %s, %s" % (name, measure, case))
            # Rows beside another peer have none.
            self.assertEqual({each for each in found if each} or {""}, {goal}, (measure, case))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
