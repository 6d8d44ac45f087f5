"""zmqwriter replay and collect, end to end: every record of a log arrives once, every value right."""

import collections
import contextlib
import ctypes
import datetime
import glob
import gzip
import json
import os
import pty
import re
import resource
import shutil
import signal
import struct
import subprocess
import time
import unittest

from bro_log import BroLog, PAYLOADS, expected_event
from cli_support import (CliTest, DEADLINE, PLUGIN, Port, SOURCE_DIR, ZMQWRITER, open_files, read_file, totals,
                         wait_for, write_file)

SAMPLES = os.path.join(SOURCE_DIR, "samples")
# A folder of further logs to replay, e.g. real ones.
EXTRA_LOGS = os.environ.get("ZMQWRITER_EXTRA_LOGS", "")
AGENT = "agent-7"
HEADER = "#separator \\x09\n#path\t%s\n#fields\tts\tuid\tn\n#types\ttime\tstring\tcount\n"


def log_of(count, path="things"):
    """A log whose records can be told apart."""
    return HEADER % path + "".join("%d.5\tC%d\t%d\n" % (n, n, n) for n in range(count))


def canonical(event):
    return json.dumps(event, sort_keys=True)


def minutes_west():
    """The zone that the kernel tells, which is not the one of TZ."""
    zone = (ctypes.c_int * 2)()
    time_of_day = (ctypes.c_long * 2)()
    ctypes.CDLL(None).gettimeofday(time_of_day, zone)
    return zone[0]


class ReplayTestCase(CliTest):
    def setUp(self):
        super().setUp()
        os.mkdir("orvik-spool")

    def settings_for(self, endpoint):
        self.keygen()
        write_file("settings", "zmq.server = %s\nzmq.public_key = %s" %
                   (endpoint, read_file("server.public")))

    def start_replay(self, *arguments, **options):
        return self.start("replay", "--settings", "settings", "--plugin", PLUGIN, "--set",
                          "LogZMQ::zmq_agent_id=" + AGENT, *arguments, **options)

    def replay(self, *arguments):
        process = self.start_replay(*arguments)
        process.status = process.wait()
        return process

    def events(self, collector, count):
        """The first `count` events, parsed."""
        wait_for(lambda: len(collector.lines()) >= count, "%d events" % count)
        return [json.loads(line) for line in collector.lines()]

    def uids(self, collector, count):
        return collections.Counter(event["uid"] for event in self.events(collector, count))

    def assert_each_once(self, collector, count):
        self.assertEqual(self.uids(collector, count),
                         collections.Counter("C%d" % n for n in range(count)))


class EndToEndTest(ReplayTestCase):
    def assert_logs_arrive(self, files):
        """Replays the logs in one call and compares every event with the test's own reading."""
        collector = self.collect()
        self.settings_for(collector.endpoint)
        begin = time.time()
        replay = self.replay(*files)
        self.assertEqual(replay.status, 0, replay.stderr)

        expected = collections.Counter()
        for file in files:
            log = BroLog(read_file(file, "rb"))
            for record in log.records:
                event = expected_event(log, record, AGENT, minutes_west())
                expected[canonical(event)] += 1
        events = self.events(collector, sum(expected.values()))
        for event in events:
            if event["data_type"] == "SystemStatsData":
                # Minutes, as the clock may be set meanwhile; the samples' own times are years old.
                self.assertTrue(begin - 300 <= event["ts"] <= time.time() + 300,
                                "a fresh time stamp")
                event["ts"] = None
        received = collections.Counter(canonical(event) for event in events)
        self.assertEqual(sorted((expected - received).elements()), [], "records that are missing")
        self.assertEqual(sorted((received - expected).elements()), [], "events too many")

        self.end(collector)
        end = totals(collector)
        self.assertEqual((end["empty messages"], end["malformed messages"]), (0, 0))
        self.assertIn("read: %d records from %d log" % (len(events), len(files)), replay.stderr)
        self.assertIn("left: nothing", replay.stderr)

    def test_every_sample_record_arrives_once_with_every_value(self):
        files = sorted(glob.glob(SAMPLES + "/*.log"))
        self.assertGreaterEqual(len(files), 6)
        self.assert_logs_arrive(files)

    def test_samples_hold_what_is_worth_testing(self):
        everything = b"".join(read_file(file, "rb") for file in glob.glob(SAMPLES + "/*.log"))
        for needed in [b"\t-\t", b"(empty)", b"2001:db8:", b"\\x", b"\\\\", b"\tset[string]",
                       b"\tvector[", b"#path\tsystem_stats"]:
            self.assertIn(needed, everything)

    @unittest.skipUnless(os.path.isdir(EXTRA_LOGS), "ZMQWRITER_EXTRA_LOGS names no folder of logs")
    def test_every_record_of_further_logs_arrives_once_with_every_value(self):
        self.assert_logs_arrive(sorted(glob.glob(EXTRA_LOGS + "/**/*.log", recursive=True)))

    def test_header_that_changes_in_the_middle_changes_the_events(self):
        write_file("a.log", log_of(2) + "#separator ;\n#path;http\n#fields;uid;method\n"
                   "#types;string;string\nC2;GET\n" + log_of(1, "more").replace("C0", "C3"))
        collector = self.collect()
        self.settings_for(collector.endpoint)
        self.assertEqual(self.replay("a.log").status, 0)
        events = {event["uid"]: event for event in self.events(collector, 4)}
        self.assertEqual(events["C2"]["data"]["method"], "GET")
        self.assertEqual(events["C0"]["data"]["fields"][0], {"key": "_path", "value": "things"})
        self.assertEqual(events["C3"]["data"]["fields"][0], {"key": "_path", "value": "more"})

    def test_uid_without_a_value_is_left_out_and_not_reported(self):
        log = log_of(40)
        for n in range(1, 40, 2):
            log = log.replace("\tC%d\t" % n, "\t-\t")
        write_file("a.log", log)
        collector = self.collect()
        self.settings_for(collector.endpoint)
        replay = self.replay("a.log")
        self.assertEqual(replay.status, 0, replay.stderr)
        uids = self.uids(collector, 40)
        self.assertEqual(uids, {None: 20, **{"C%d" % n: 1 for n in range(0, 40, 2)}})
        self.assertNotIn("Empty uid!", replay.stdout + replay.stderr)
        self.assertIn("  a.log: 40 records\n", replay.stderr)

    def test_rate_spreads_the_records(self):
        write_file("a.log", log_of(10))
        collector = self.collect()
        self.settings_for(collector.endpoint)
        begin = time.monotonic()
        # A drain time without end does not end the drain.
        self.assertEqual(self.replay("--rate", "20", "--drain", "1e300", "a.log").status, 0)
        # Only a lower bound, which holds on a loaded machine too. The tenth record is due at 0.5 s.
        self.assertGreaterEqual(time.monotonic() - begin, 0.5)
        self.assert_each_once(collector, 10)

    def test_tiny_rate_holds_the_second_record_back(self):
        write_file("a.log", log_of(100))
        collector = self.collect()
        self.settings_for(collector.endpoint)
        replay = self.start_replay("--rate", "1e-10", "a.log")
        self.events(collector, 1)
        replay.popen.send_signal(signal.SIGINT)
        self.assertEqual(replay.wait(), 1)
        self.assertIn("read: 1 record from 1 log", replay.stderr)
        self.assert_each_once(collector, 1)


def json_value(log, type_, raw, iso):
    """A column as the host writes it in JSON."""
    if "[" in type_:
        parts = [] if raw == log.empty else raw.split(log.set_separator)
        return [json_value(log, type_[type_.index("[") + 1:-1], part, iso) for part in parts]
    text = log.text(type_, raw)
    if type_ == "time" and iso:
        time_of = datetime.datetime.fromtimestamp(float(text), datetime.timezone.utc)
        return time_of.strftime("%Y-%m-%dT%H:%M:%S.%fZ")
    return {"bool": lambda: text == "T", "count": lambda: int(text), "port": lambda: int(text),
            "int": lambda: int(text), "time": lambda: float(text), "double": lambda: float(text),
            "interval": lambda: float(text)}.get(type_, lambda: text)()


class JsonLogTest(ReplayTestCase):
    def write_as_json(self, name, file, iso, extra):
        """Returns the events that are to come; dns has intervals, whose text JSON does not keep."""
        log = BroLog(read_file(file, "rb"))
        expected, lines = [], []
        for record in log.records:
            objects = {name: json_value(log, *column, iso)
                       for name, column in log.columns(record).items() if column[1] is not None}
            try:
                line = json.dumps({**objects, **extra}, ensure_ascii=False).encode()
            except UnicodeEncodeError:
                continue  # no text in JSON
            if iso and "id.orig_h" in objects:
                nested = {key[3:]: objects.pop(key) for key in list(objects) if key[:3] == "id."}
                if log.path in PAYLOADS:  # the order of pairs is that of the fields
                    line = json.dumps({"id": nested, **objects, **extra}).encode()
            lines.append(line + b"\n")
            expected.append(expected_event(log, record, AGENT, minutes_west()))
        content = b"".join(lines)
        half = len(content) // 2  # two members, as appending gives
        write_file(name, gzip.compress(content[:half]) + gzip.compress(content[half:]) if iso
                   else content)
        return expected

    def test_json_gives_the_events_that_ascii_gives(self):
        collector = self.collect()
        self.settings_for(collector.endpoint)
        files = [file for file in glob.glob(SAMPLES + "/*.log") if "dns" not in file]
        for iso in (False, True):
            logs, expected = [], []
            for file in files:
                path = os.path.basename(file)[:-4]
                logs.append("%s.%s" % (path, "2024-01-01-00-00-00.log.gz" if iso else "log"))
                expected += self.write_as_json(logs[-1], file, iso, {})
            # Of all paths one after the other.
            expected += self.write_as_json("all.json", SAMPLES + "/http.log", iso,
                                           {"_path": "http", "user_agent": None})
            before = len(collector.lines())
            replay = self.replay(*logs, "all.json")
            self.assertEqual(replay.status, 0, replay.stderr)
            events = self.events(collector, before + len(expected))[before:]
            for event in events + expected:
                if event["data_type"] == "SystemStatsData":
                    event["ts"] = None
            self.assertEqual(sorted(map(canonical, events)), sorted(map(canonical, expected)))

    def test_lines_that_are_no_records_are_named_counted_and_skipped(self):
        lines = ['{"ts":1.5,"uid":"C0"}', "nonsense", "[1]", '{"ts":"soon"}', '{"id.orig_p":"x"}',
                 '{"a":' * 20 + "1" + "}" * 20, "{" + ",".join('"%d":1' % n for n in range(2000)) +
                 "}", "", '{"ts":"2015-06-04T12:00:00+02:00","uid":"C1"}', '{"a":1e999}', '{"ts":1.5']
        write_file("conn.log", "\n".join(lines))
        collector = self.collect()
        self.settings_for(collector.endpoint)
        replay = self.replay("conn.log")
        self.assertEqual(replay.status, 1)
        for number, reason in ((2, "not a JSON object: wrong at byte 2"), (3, "not a JSON object"),
                               (4, "column 'ts': 'soon' is not a time in the form of ISO 8601"),
                               (5, "column 'id.orig_p': 'x' is not a valid port"),
                               (6, "nested in more than 8 levels"), (7, "more than 1000 fields"),
                               (8, "not a JSON object"), (10, "a number is out of range"),
                               (11, "the last line has no line end")):
            self.assertIn("conn.log:%d: %s" % (number, reason), replay.stderr)
        self.assertIn("read: 2 records from 1 log, 9 broken lines skipped\n", replay.stderr)
        self.assertEqual([(event["uid"], event["ts"]) for event in self.events(collector, 2)],
                         [("C0", 1.5), ("C1", 1433412000.0)])


class LogInputTest(ReplayTestCase):
    def replay_of(self, content, name="-"):
        collector = self.collect("--output", "-")
        self.settings_for(collector.endpoint)
        if name != "-":
            write_file(name, content)
        replay = self.start_replay(name, stdin=subprocess.PIPE)
        with contextlib.suppress(BrokenPipeError):
            if name == "-":
                replay.popen.stdin.write(content)
            replay.popen.stdin.close()
        return collector, replay.wait(), replay.stderr

    def test_standard_input_is_read_compressed_or_not(self):
        for content in (log_of(3).encode(), gzip.compress(log_of(3).encode()),
                        b'{"uid":"C0","_path":"x"}\n{"uid":"C1","_path":"y"}\n{"uid":"C2"}\n'):
            collector, status, said = self.replay_of(content)
            count = 2 if content[0] == ord("{") else 3
            self.assertEqual(status, 3 - count, said)
            self.assert_each_once(collector, count)
        self.assertIn("standard input:3: no field _path tells which log it is of\n", said)

    def test_record_of_a_pipe_that_stays_open_arrives(self):
        collector = self.collect()
        self.settings_for(collector.endpoint)
        replay = self.start_replay("-", stdin=subprocess.PIPE, bufsize=0)
        for number, part in enumerate((log_of(2), "2.5\tC2", "\t2\n3.5")):
            replay.popen.stdin.write(part.encode())
            self.assert_each_once(collector, 2 + (number == 2))
        replay.popen.send_signal(signal.SIGTERM)
        self.assertEqual(replay.wait(), 1)
        replay.popen.stdin.close()
        self.assertIn("standard input: 3 records, not read to its end\n", replay.stderr)

    def test_compressed_log_that_is_cut_or_damaged_is_told_and_read_as_far_as_possible(self):
        content = gzip.compress("".join([log_of(2000)]).encode())
        for damaged, reason in ((content[:-9], "the compressed data ends early"),
                                (content + b"x" * 20, "the compressed data is damaged")):
            _, status, said = self.replay_of(damaged, "a.log")
            self.assertEqual(status, 1)
            self.assertIn("a.log: " + reason, said)
            self.assertIn("2000 records, could not be read to its end", said)

    def test_line_without_end_is_refused_in_little_memory(self):
        self.settings_for("tcp://127.0.0.1:9")
        for start, reason in (("", "file without header: the line is longer than 16 MiB"),
                              ('{"_path":"x"}\n', ":2: the line is longer than 16 MiB")):
            write_file("start", start)
            replay = subprocess.run(
                ["sh", "-c", "(cat start; head -c 600000000 /dev/zero) | exec %s replay "
                 "--settings settings --drain 1 --plugin %s -" % (ZMQWRITER, PLUGIN)],
                capture_output=True, text=True, timeout=DEADLINE)
            self.assertEqual(replay.returncode, 1)
            self.assertIn(reason, replay.stderr)
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, 400000)

    def test_progress_is_for_terminals_that_can_overwrite_a_line(self):
        write_file("a.log", log_of(100))
        collector = self.collect()
        self.settings_for(collector.endpoint)
        for kind, shown in (("xterm", True), ("dumb", False)):
            master, slave = pty.openpty()
            replay = subprocess.Popen(
                [ZMQWRITER, "replay", "--settings", "settings", "--plugin", PLUGIN, "--rate", "30",
                 "a.log"], stdout=subprocess.DEVNULL, stderr=slave, env={**os.environ, "TERM": kind})
            os.close(slave)
            said = b""
            with contextlib.suppress(OSError), os.fdopen(master, "rb", 0) as terminal:
                while data := terminal.read(4096):
                    said += data
            self.assertEqual(replay.wait(), 0, said)
            self.assertEqual(bool(re.search(rb"\r\x1b\[K\d+% read, \d+ sent, \d+/s, \d+ s left ",
                                            said)), shown, said)
            self.assertEqual(b"\x1b" in said, shown)


class OpenFilesTest(ReplayTestCase):
    LIMIT = 160

    def replay_of(self, logs):
        write_file("a.log", log_of(1))
        collector = self.collect("--quiet")
        self.settings_for(collector.endpoint)
        replay = self.start_replay(*["a.log"] * logs, preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_NOFILE, (64, self.LIMIT)))
        replay.status = replay.wait()
        return collector, replay

    def test_low_limit_is_raised_as_far_as_the_system_lets_it(self):
        collector, replay = self.replay_of(self.LIMIT - 64)
        self.assertEqual(replay.status, 0, replay.stderr)
        self.assertEqual(self.uids(collector, self.LIMIT - 64), {"C0": self.LIMIT - 64})

    def test_more_logs_than_files_that_may_be_open_are_refused_in_one_line(self):
        _, replay = self.replay_of(self.LIMIT - 63)
        self.assertEqual(replay.status, 1)
        self.assertEqual(replay.stderr, "zmqwriter: 97 logs need 161 open files, but the system "
                         "allows only 160: replay fewer at a time or raise the limit (ulimit -n)\n")


class DamagedLogsTest(ReplayTestCase):
    def test_broken_lines_and_logs_are_named_counted_and_skipped(self):
        lines = log_of(6).split("\n")
        lines[5] = "1.5\tC1"  # line 6: a column is missing
        lines[7] = "3.5\tC3\tmany"
        write_file("a.log", "\n".join(lines)[:-3])  # the last line is cut
        write_file("bare.log", "1\t2\n")
        write_file("broken.log", log_of(1).replace("\tC", "\tD") + "broken\n" * 5000)
        collector = self.collect()
        self.settings_for(collector.endpoint)
        replay = self.replay("bare.log", "missing.log", "broken.log", "a.log")
        self.assertEqual(replay.status, 1)
        self.assertEqual(set(self.uids(collector, 4)), {"C0", "C2", "C4", "D0"})
        for words in ("a.log:6: 2 columns instead of 3\n",
                      "a.log:8: column 'n': 'many' is not a valid count\n",
                      "a.log:10: the last line has no line end", "  a.log: 3 records, 3 broken lines\n",
                      "bare.log:1: file without header", "missing.log: cannot be read: No such file",
                      "refused: 2 logs\n", "left: nothing\n",
                      "read: 4 records from 2 logs, 5003 broken lines skipped\n"):
            self.assertIn(words, replay.stderr)
        self.assertEqual(replay.stderr.count("1 columns instead of 3"), 20)


class BackPressureTest(ReplayTestCase):
    def test_replay_that_outruns_the_server_leaves_the_disk_alone(self):
        # Longer than what the disk takes: each arrives whole.
        write_file("a.log", HEADER % "things" +
                   "".join("%d.5\t%s\t1\n" % (n, "C" * 70000) for n in range(1000)))
        collector = self.collect("--quiet")
        self.settings_for(collector.endpoint)
        collector.popen.send_signal(signal.SIGSTOP)
        replay = self.start_replay("a.log")
        # The plug-in is connected to nobody yet; let it wait for the frozen server.
        wait_for(lambda: "Using zmq server" in replay.stdout, "the plug-in's start")
        collector.popen.send_signal(signal.SIGCONT)
        self.assertEqual(replay.wait(), 0, replay.stderr)
        self.assertEqual(self.uids(collector, 1000), {"C" * 70000: 1000})
        self.assertNotIn("cut on disk", replay.stderr)
        self.assertEqual(os.listdir("orvik-spool/work"), [])

    def test_server_that_is_late_gets_everything(self):
        write_file("a.log", log_of(20))
        port = Port()
        self.settings_for(port.endpoint)
        replay = self.start_replay("a.log")
        wait_for(lambda: "is not responding" in replay.stderr, "the warning about the server")
        late = self.collect(endpoint=port.endpoint)
        self.assertEqual(replay.wait(), 0, replay.stderr)
        self.assert_each_once(late, 20)

    def test_events_that_were_cut_on_disk_are_counted_and_a_failure(self):
        write_file("a.log", HEADER % "things" +
                   "".join("%d.5\t%s\t1\n" % (n, "C" * 70000) for n in range(1500)))
        collector = self.collect("--quiet", "--format", "raw")
        self.settings_for(collector.endpoint)
        collector.popen.send_signal(signal.SIGSTOP)
        replay = self.start_replay("--no-pace", "a.log")
        spool = "orvik-spool/work/queue.dat"
        wait_for(lambda: os.path.exists(spool) and os.path.getsize(spool) > 10 * 65535,
                 "events on disk")
        collector.popen.send_signal(signal.SIGCONT)
        self.assertEqual(replay.wait(), 1)
        self.assertRegex(replay.stderr,
                         r"\n[1-9]\d+ events were longer than 65535 bytes and were cut on disk\n")
        self.assertIn("read: 1500 records from 1 log, 0 broken lines", replay.stderr)

    def test_plug_in_that_cannot_send_at_all_is_noticed(self):
        write_file("a.log", log_of(2))
        self.settings_for("nonsense://x")
        replay = self.replay("a.log")
        self.assertEqual(replay.status, 1)
        self.assertIn("gave up: the plug-in sends nothing at all", replay.stderr)

    def test_signal_ends_the_reading_and_what_was_read_is_delivered(self):
        write_file("a.log", log_of(100000))
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            collector = self.collect()
            self.settings_for(collector.endpoint)
            replay = self.start_replay("--rate", "200", "a.log")
            self.events(collector, 5)
            replay.popen.send_signal(number)
            self.assertEqual(replay.wait(), 1)
            self.assertIn("gave up: stopped by a signal\n", replay.stderr)
            self.assertIn("\nleft: nothing\n", replay.stderr)
            read = int(re.search(r"read: (\d+) records", replay.stderr).group(1))
            self.assertLess(read, 100000)
            self.assert_each_once(collector, read)


class SpoolTestCase(ReplayTestCase):
    SPOOL = "orvik-spool/work"
    COUNT = 2000

    def spool(self, *arguments):
        result = self.run_tool("spool", *arguments, self.SPOOL)
        return result.returncode, result.stdout.decode() + result.stderr

    def start_without_server(self, *arguments):
        """A replay with 500 records in memory and 1500 on disk; one more or less is being sent."""
        write_file("a.log", log_of(self.COUNT))
        self.settings_for("tcp://127.0.0.1:9")
        replay = self.start_replay("--no-pace", *arguments, "a.log")
        wait_for(lambda: os.path.exists(self.SPOOL + "/queue.dat") and
                 re.search(r", (1499|15\d\d) records", self.spool("list")[1]), "the events on disk")
        return replay

    def findings(self):
        check = self.run_tool("check", "--settings", "settings", "--plugin", PLUGIN, "--json")
        return {one["id"]: one for one in json.loads(check.stdout)["findings"]}

    def assert_refused(self, finding, *patterns):
        """check gives this error and replay does not start: both say all of it."""
        found = self.findings()
        self.assertIn(finding, found)
        self.assertEqual(found[finding]["severity"], "error")
        before = {name: read_file(os.path.join(self.SPOOL, name), "rb")
                  for name in os.listdir(self.SPOOL)}
        replay = self.replay("--no-pace", "--drain", "1", "a.log")
        self.assertEqual(replay.status, 1)
        self.assertNotIn("read: ", replay.stderr)
        for pattern in patterns:
            self.assertIn(pattern, found[finding]["text"] + found[finding]["what_to_do"])
            self.assertIn(pattern, replay.stderr)
        self.assertEqual(before, {name: read_file(os.path.join(self.SPOOL, name), "rb")
                                  for name in os.listdir(self.SPOOL)})


class EndTest(SpoolTestCase):
    """The end without a server, when the plug-in alone would take 25 minutes to stop."""

    def assert_spool_is_closed(self, replay):
        """The account agrees with what the next start finds; returns how much that is."""
        on_disk = int(re.search(r"\non disk: (\d+) records in orvik-spool/work\n",
                                replay.stderr).group(1))
        lost = int(re.search(r"\nlost: at most (\d+) records", replay.stderr).group(1))
        self.assertEqual(on_disk + lost, self.COUNT)
        self.assertGreaterEqual(on_disk, 1499)
        status, said = self.spool("list")
        self.assertEqual(status, 0, said)
        self.assertIn("the next start of the plug-in finds %d\n" % on_disk, said)
        return on_disk

    def test_end_is_bounded_by_the_drain_time_and_closes_the_spool(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, None):
            with self.subTest(number):
                replay = self.start_without_server("--drain", "2")
                if number:
                    replay.popen.send_signal(number)
                    wait_for(lambda: "stopping: " in replay.stderr, "an answer to the signal")
                    self.assertIsNone(replay.popen.poll())
                self.assertEqual(replay.wait(), 1)
                self.assertEqual("stopping: no more is read" in replay.stderr, bool(number))
                self.assertIn("at most 2 seconds", replay.stderr)
                self.assertIn("gave up: stopped by a signal\n" if number else
                              "gave up: no record was sent for 2 seconds\n", replay.stderr)
                self.assertIn("  a.log: 2000 records\n", replay.stderr)
                self.assertIn("\nsent so far: 0 messages, failed: ", replay.stderr)
                self.assert_spool_is_closed(replay)
            shutil.rmtree(self.SPOOL)

    def test_signal_while_the_spool_is_looked_at_ends_at_once(self):
        write_file("a.log", log_of(1))
        self.settings_for("tcp://127.0.0.1:9")
        os.mkdir(self.SPOOL)
        records = 1 << 20  # without a byte; looking at them takes seconds
        with open(self.SPOOL + "/queue.dat", "wb") as file:
            file.write(b"ZMQF" + struct.pack("<II", 12 + 4 * records, records))
            file.truncate(12 + 4 * records)
        if not os.path.exists("/proc/self/fd"):
            self.skipTest("needs /proc")

        def looks():
            """Later, the plug-in opens the file."""
            caught = re.search(r"SigCgt:\s+(\w+)", read_file("/proc/%d/status" % replay.popen.pid))
            return os.path.abspath(self.SPOOL + "/queue.dat") in open_files(replay.popen.pid) and \
                not int(caught.group(1), 16) >> signal.SIGTERM - 1 & 1

        def is_stopped_in_the_look():
            nonlocal replay
            replay = self.start_replay("a.log")
            wait_for(looks, "the look")
            replay.popen.send_signal(signal.SIGSTOP)
            return looks() or replay.stop()
        replay = None
        wait_for(is_stopped_in_the_look, "a stop in time")
        replay.popen.send_signal(signal.SIGTERM)
        replay.popen.send_signal(signal.SIGCONT)
        self.assertEqual(replay.wait(), -signal.SIGTERM)

    def test_second_signal_closes_the_spool_and_ends_at_once(self):
        replay = self.start_without_server("--drain", "600")
        replay.popen.send_signal(signal.SIGINT)
        wait_for(lambda: "at most 600 seconds, and a second signal" in replay.stderr, "an answer")
        replay.popen.send_signal(signal.SIGTERM)
        self.assertEqual(replay.wait(), 1)  # in less than DEADLINE
        self.assertIn("\nclosing the spool\n", replay.stderr)
        on_disk = self.assert_spool_is_closed(replay)

        collector = self.collect("--quiet")
        self.settings_for(collector.endpoint)
        write_file("b.log", log_of(5).replace("\tC", "\tD"))
        replay = self.replay("b.log")
        self.assertEqual(replay.status, 0, replay.stderr)
        self.assertIn("more was sent than read", replay.stderr)
        self.assertEqual(set(self.uids(collector, on_disk + 5).values()), {1})
        self.assertEqual(os.listdir(self.SPOOL), [])

    def test_records_that_a_full_disk_did_not_take_are_told(self):
        write_file("a.log", log_of(self.COUNT))
        collector = self.collect("--quiet")
        self.settings_for(collector.endpoint)
        collector.popen.send_signal(signal.SIGSTOP)
        limit = 100000
        replay = self.start_replay("--no-pace", "a.log", preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_FSIZE, (limit, limit)))
        queue = self.SPOOL + "/queue.dat"
        wait_for(lambda: os.path.exists(queue) and os.path.getsize(queue) == limit, "a full disk")
        collector.popen.send_signal(signal.SIGCONT)
        self.assertEqual(replay.wait(), 1)
        lost = int(re.search(r"\nlost: (\d+) records, neither", replay.stderr).group(1))
        self.assertGreater(lost, 500)
        self.assertIn("\nof these, the spool had taken %d records: " % lost, replay.stderr)
        self.assertEqual(sum(self.uids(collector, self.COUNT - lost).values()), self.COUNT - lost)


class SpoolBeforeAStartTest(SpoolTestCase):
    """What check and replay say of a spool that a start must not meet, and what they advise."""

    def fail_to_start(self):
        """Leaves the records 500 to 1999 in the spool of a plug-in that could not start."""
        write_file("a.log", log_of(2000))
        self.settings_for("foo://bar")
        replay = self.replay("--no-pace", "a.log")
        self.assertEqual(replay.status, 1)
        return replay

    def run_well(self, *options):
        """Starts with a server and one record more."""
        collector = self.collect("--format", "json")
        self.settings_for(collector.endpoint)
        write_file("b.log", log_of(1))
        replay = self.replay(*options, "b.log")
        self.assertEqual(replay.status, 0, replay.stderr)
        return collector

    REPAIR = "run 'zmqwriter spool repair orvik-spool/work'"

    def assert_all_arrive(self, collector):
        self.assertEqual(self.uids(collector, 1501),
                         collections.Counter(["C0"] + ["C%d" % n for n in range(500, 2000)]))
        self.assertNotIn("queue.dat", os.listdir(self.SPOOL))

    def test_spool_that_a_start_does_not_find_is_refused_until_it_is_repaired(self):
        replay = self.fail_to_start()
        self.assertIn("left on disk: events in orvik-spool/work, which the next run finds only "
                      "after 'zmqwriter spool repair'", replay.stderr)
        self.assertIn("\nlost: 500 records, neither sent nor on disk\n", replay.stderr)
        self.assert_refused("spool-damaged", "1500 records that the header does not count",
                            "the next start finds 0 of 1500 records", self.REPAIR)
        self.assertEqual(self.spool("repair")[0], 0)
        # The same records where no start finds them.
        for name, why in (("queue.dat.1", "after a gap in the numbers"),
                          ("queue.dat.unopened", "set aside because it could not be opened")):
            os.rename(self.SPOOL + "/queue.dat", os.path.join(self.SPOOL, name))
            self.assert_refused("spool-damaged", name, why, self.REPAIR)
            self.assertEqual(self.spool("repair")[0], 0)
        self.assertIn("the next start of the plug-in finds 1500", self.spool("list")[1])
        self.assert_all_arrive(self.run_well())

    def test_spool_that_another_process_uses_is_refused_by_its_number(self):
        replay = self.start_without_server("--drain", "600")
        self.assert_refused("spool-in-use", "in use by process %d" % replay.popen.pid)
        self.assertIn("\nin use by process %d: what it has stored" % replay.popen.pid,
                      self.spool("list")[1])

    @staticmethod
    def open_if_read(fifo):
        with contextlib.suppress(OSError):
            descriptor = os.open(fifo, os.O_WRONLY | os.O_NONBLOCK)
            os.set_blocking(descriptor, True)
            return os.fdopen(descriptor, "w")

    def test_process_that_came_to_the_spool_at_the_same_time_is_told_at_the_end(self):
        self.settings_for("tcp://127.0.0.1:9")
        replays = []
        for name in ("a.fifo", "b.fifo"):
            os.mkfifo(name)
            replays.append(self.start_replay("--no-pace", "--drain", "600", name))
        # Both have looked at the spool once they open their logs.
        fifos = [wait_for(lambda: self.open_if_read(name), name) for name in ("a.fifo", "b.fifo")]
        for fifo in fifos:
            with fifo:
                fifo.write(log_of(self.COUNT))
        first, second = replays
        pids = sorted(replay.popen.pid for replay in replays)
        wait_for(lambda: "in use by process %d, %d:" % tuple(pids) in
                 self.findings().get("spool-in-use", {"text": ""})["text"], "both to use the spool")
        for _ in range(2):
            first.popen.send_signal(signal.SIGINT)
            wait_for(lambda: "stopping: " in first.stderr, "an answer")
        self.assertEqual(first.wait(), 1)
        self.assertIn("warning: orvik-spool/work: in use by process %d, and two processes" %
                      second.popen.pid, first.stderr)

    def put_damaged_files_before_the_good_one(self):
        self.fail_to_start()
        self.assertEqual(self.spool("repair")[0], 0)
        os.rename(self.SPOOL + "/queue.dat", self.SPOOL + "/queue.dat.2")
        write_file(self.SPOOL + "/queue.dat.1", "this is no queue at all")
        write_file(self.SPOOL + "/queue.dat", "oh!")

    def test_files_that_repair_leaves_are_moved_away_and_the_others_sent(self):
        self.put_damaged_files_before_the_good_one()
        self.assert_refused("spool-damaged", self.REPAIR + ", and move away the files")
        status, said = self.spool("repair")
        self.assertEqual(status, 1, said)
        self.assertEqual(said.count("left as it is"), 2, said)
        for name in ("queue.dat", "queue.dat.1"):
            os.rename(os.path.join(self.SPOOL, name), name)
        status, said = self.spool("repair")
        self.assertEqual(status, 0, said)
        self.assert_all_arrive(self.run_well())

    def test_start_with_damaged_files_sends_what_is_no_event_and_deletes_them(self):
        self.put_damaged_files_before_the_good_one()
        collector = self.run_well("--ignore-spool")
        self.end(collector)
        self.assertGreater(totals(collector)["malformed messages"], 0, collector.stderr)
        self.assertEqual(os.listdir(self.SPOOL), ["queue.dat.before-repair"])


class WrongKeyTest(ReplayTestCase):
    """The right key in a wrong form: nothing may reach the server, least of all unencrypted."""

    def test_nothing_comes(self):
        collector = self.collect()
        key = read_file("server.public").strip()
        write_file("a.log", log_of(1))
        # A key without letters would be the same in either case; there is one in 10^13. Missing
        # bytes are 0, as the last one of 1 key in 128 is, so the first is left out.
        for wrong in (key.lower(), key[2:], ""):
            write_file("settings", "zmq.server = %s\nzmq.public_key = %s\n" %
                       (collector.endpoint, wrong))
            replay = self.replay("--drain", "1", "a.log")
            self.assertEqual(replay.status, 1, replay.stderr)
            self.assertIn("warning: settings: zmq.public_key ", replay.stderr)
            self.assertIn("gave up: no record was sent for 1 seconds\n", replay.stderr)
            self.assertIn("\nsent so far: 0 messages", replay.stderr)
            self.assertIn("\nlost: at most 1 record,", replay.stderr)
        self.end(collector)
        end = totals(collector)
        self.assertEqual((end["events"], end["empty messages"], end["malformed messages"],
                          end["multi-part messages"]), (0, 0, 0, 0))


class SettingsTest(ReplayTestCase):
    def test_agent_identifier_is_made_when_none_is_given(self):
        collector = self.collect("--count", "1")
        self.settings_for(collector.endpoint)
        write_file("a.log", log_of(1))
        result = self.run_tool("replay", "--settings", "settings", "--plugin", PLUGIN, "a.log")
        self.assertEqual(result.returncode, 0, result.stderr)
        agent_id = read_file("orvik/agent.id")
        self.assertRegex(agent_id, r"\A[0-9a-zA-Z]{2,22}\Z")
        self.assertEqual(self.events(collector, 1)[0]["agent_id"], agent_id)

    def test_script_constants_will_do(self):
        collector = self.collect("--count", "1")
        write_file("settings", "")
        write_file("a.log", log_of(1))
        replay = self.replay("--set", "LogZMQ::zmq_primary_server=" + collector.endpoint, "--set",
                             "LogZMQ::zmq_public_key=" + read_file("server.public").strip(),
                             "a.log")
        self.assertEqual(replay.status, 0, replay.stderr)
        self.assertNotIn("warning: ", replay.stderr)

    def test_settings_without_which_nothing_is_sent_are_warned_about(self):
        server, key = "zmq.server = tcp://127.0.0.1:9\n", "zmq.public_key = %s\n" % ("0A" * 32)
        write_file("a.log", log_of(0))
        for settings, option, warnings in (
                ("", [], ["no primary server: neither zmq.server in settings",
                         "no server key: neither zmq.public_key in settings"]),
                ("zmq.server =\n" + key, [], ["settings: zmq.server is empty; the plug-in will try "
                                              "tcp://:5555"]),
                (server + key + "LogZMQ::server = a\nzmq.secondary_servers = a # b\n", [],
                 ["secondary server 1 'tcp://a # b:5555' has blanks",
                  "settings: 'LogZMQ::server' is not read",
                  "settings: zmq.secondary_servers: '# b'"]),
                (server, ["--set", "LogZMQ::zmq_public_key=" + "0a" * 32],
                 ["LogZMQ::zmq_public_key has lower-case digits"])):
            write_file("settings", settings)
            replay = self.replay(*option, "a.log")
            self.assertEqual(replay.status, 0, replay.stderr)
            self.assertIn("read: 0 records from 1 log", replay.stderr)
            self.assertEqual(replay.stderr.count("warning: "), len(warnings), replay.stderr)
            for warning in warnings:
                self.assertIn("warning: " + warning, replay.stderr)

    def test_start_that_fails_says_where(self):
        write_file("a.log", log_of(1))
        write_file("broken", "zmq.server = x\nnonsense\n")
        write_file("settings", "")
        log = ["--plugin", PLUGIN, "a.log"]
        for arguments, said in (
                (["--settings", "missing"] + log, "missing"),
                (["--settings", "broken"] + log, "broken:2: expected 'key = value'"),
                (["--settings", "settings", "--set", "LogZMQ::no_such_option=1"] + log,
                 "LogZMQ::no_such_option"),
                (["-N", "--plugin", "orvik-spool"], "orvik-spool")):
            result = self.run_tool("replay", *arguments)
            self.assertEqual(result.returncode, 1)
            self.assertIn(said, result.stderr)

    def test_description_of_the_plug_in(self):
        brief = "Dravenholt::ZMQWriter - ZeroMQ log writer (dynamic, no version information)\n"
        details = "".join("    %s\n" % line for line in (
            "[Writer] ZMQ (Log::WRITER_ZMQ)", "[Type] system_stats",
            "[Constant] LogZMQ::zmq_primary_server", "[Constant] LogZMQ::zmq_secondary_server",
            "[Constant] LogZMQ::zmq_public_key", "[Constant] LogZMQ::zmq_agent_id",
            "[Constant] LogZMQ::set_separator", "[Constant] LogZMQ::empty_field",
            "[Constant] LogZMQ::unset_field", "[Function] LogZMQ::__detect_user",
            "[Function] LogZMQ::__get_system_stats"))
        for option, text in (("-N", brief), ("-NN", brief + details + "\n")):
            result = self.run_tool("replay", option, "--plugin", PLUGIN)
            self.assertEqual((result.returncode, result.stdout.decode()), (0, text))
        self.assertEqual(os.listdir("orvik-spool"), [], "nothing is written for a description")


if __name__ == "__main__":
    unittest.main()
