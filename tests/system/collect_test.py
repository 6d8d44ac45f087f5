"""zmqwriter collect as the reference receiver: files that rotate, rates, metrics, allowed clients, bad
input, slow outputs."""

import fcntl
import glob
import itertools
import json
import os
import pty
import random
import re
import resource
import shutil
import signal
import socket
import struct
import termios
import threading
import time
import unittest

import curve_client
from cli_support import (CliTest, DEADLINE, Process, ZMQWRITER, framed, make_event, needs_zmq,
                         read_file, totals, wait_for, write_file, zmq)


def unframed(content):
    """The messages of a file that `collect --format raw` has written; it must end with a whole one."""
    messages, at = [], 0
    while at < len(content):
        size, = struct.unpack_from("<I", content, at)
        messages.append(content[at + 4:at + 4 + size])
        assert len(messages[-1]) == size, "the file ends inside a message"
        at += 4 + size
    return messages


def hex_of(keys):
    """The public key as a list of allowed clients has it."""
    from zmq.utils import z85
    return z85.decode(keys[0]).hex()


def can_measure_memory():
    """Sanitizers keep shadows of memory, and freed memory."""
    program = read_file(ZMQWRITER, "rb")
    return os.path.exists("/proc/self/status") and \
        not any(name in program for name in (b"__asan_init", b"__tsan_init"))


def memory_kb(process, figure="VmRSS"):
    status = read_file("/proc/%d/status" % process.pid)
    return int(re.search(figure + r":\s+(\d+) kB", status).group(1))


@needs_zmq
class CollectOutputTest(CliTest):
    def collect_events(self, events, *arguments):
        """Runs a collector until it has written the events; returns it."""
        collector = self.collect("--output", "events", "--count", str(len(events)), *arguments)
        agent = self.agent(collector.endpoint)
        for event in events:
            agent.send(event)
        self.assertEqual(collector.wait(), 0)
        self.assertEqual(collector.stdout, "")
        return collector

    @staticmethod
    def files():
        """All files of the output, the oldest first."""
        return sorted(glob.glob("events.*")) + ["events"]

    def test_rotation_neither_loses_nor_splits_an_event_in_any_format(self):
        events = [make_event(uid=b"C%d" % number, details=b"x" * (number % 700))
                  for number in range(300)]
        for form in ("json", "text", "raw"):
            self.collect_events(events, "--format", form, "--rotate-size", "5K")
            names = self.files()
            self.assertGreater(len(names), 10)
            for name in names:
                self.assertLessEqual(os.path.getsize(name), 5120)
                self.assertEqual(os.stat(name).st_mode & 0o777, 0o600)
            self.assertGreater(max(map(os.path.getsize, names)), 4300)
            contents = [read_file(name, "rb") for name in names]
            if form == "raw":
                self.assertEqual([m for content in contents for m in unframed(content)], events)
            else:
                for content in contents:
                    self.assertTrue(content.endswith(b"\n"))
                uids = re.findall(r"\bC\d+\b", b"".join(contents).decode())
                self.assertEqual(uids, ["C%d" % number for number in range(300)])
            for name in names:
                os.remove(name)

    def test_event_longer_than_a_file_may_be_gets_a_file_of_its_own(self):
        events = [make_event(details=b"a"), make_event(details=b"b" * 3000),
                  make_event(details=b"c")]
        self.collect_events(events, "--format", "raw", "--rotate-size", "1000")
        self.assertEqual([unframed(read_file(name, "rb")) for name in self.files()],
                         [[event] for event in events])

    def test_only_the_newest_finished_files_are_kept(self):
        write_file("events.000007", "old")
        write_file("events.note", "not ours")
        self.collect_events([make_event(uid=b"C%d" % number, details=b"x" * 900)
                             for number in range(10)],
                            "--rotate-size", "1000", "--rotate-keep", "3")
        self.assertEqual(sorted(glob.glob("events*")),
                         ["events", "events.000014", "events.000015", "events.000016",
                          "events.note"])
        uids = [json.loads(read_file("events.0000%d" % number))["uid"] for number in (14, 15, 16)]
        self.assertEqual(uids, ["C6", "C7", "C8"])

    def test_file_of_a_former_run_is_moved_aside_and_never_appended_to(self):
        write_file("events", b"\x50\x00\x00\x00torn")
        self.collect_events([make_event()], "--format", "raw")
        self.assertEqual(read_file("events.000001", "rb"), b"\x50\x00\x00\x00torn")
        self.assertEqual(unframed(read_file("events", "rb")), [make_event()])
        self.collect_events([make_event()], "--format", "raw")
        self.assertEqual(unframed(read_file("events.000002", "rb")), [make_event()])

    def test_stop_signal_ends_the_wait_for_a_reader_of_a_pipe(self):
        self.keygen()
        os.mkfifo("pipe")
        collector = self.start(*self.BIND, "tcp://127.0.0.1:*", "--output", "pipe", "--metrics",
                               "127.0.0.1:0")
        # The last that is opened before the output.
        wait_for(lambda: "metrics on" in collector.stderr, "the metrics")
        if os.path.exists("/proc/self/stat"):
            wait_for(lambda: ") S " in read_file("/proc/%d/stat" % collector.popen.pid), "the wait")
        collector.popen.send_signal(signal.SIGINT)
        self.assertEqual(collector.wait(), 1)
        self.assertIn("pipe: cannot open the output: Interrupted", collector.stderr)

    def test_messages_on_closed_standard_error_do_not_land_in_the_output(self):
        self.keygen()
        collector = self.start(*self.BIND, "ipc://socket", "--output", "events", "--format", "raw",
                               "--count", "1", preexec_fn=lambda: os.close(2))
        wait_for(lambda: os.path.exists("socket"), "the collector")
        self.agent("ipc://socket").send(make_event())
        self.assertEqual(collector.wait(), 0)
        self.assertEqual(read_file("events", "rb"), framed(make_event()))

    def test_closed_standard_output_is_a_failure_and_no_other_file_takes_its_place(self):
        write_file("event.raw", framed(make_event()))
        for run, arguments, message in [
                (self.run_collect, [], "standard output is closed; name a file with --output"),
                (self.run_tool, ["decode", "event.raw"],
                 "cannot write the output: Bad file descriptor")]:
            result = run(*arguments, preexec_fn=lambda: os.close(1))
            self.assertEqual(result.returncode, 1)
            self.assertIn(message, result.stderr)
            self.assertNotIn("listening on", result.stderr)

    def test_file_that_cannot_be_moved_aside_goes_on_growing(self):
        os.mkdir("folder")
        collector = self.collect("--output", "folder/events", "--rotate-size", "1000", "--count",
                                 "60")
        agent = self.agent(collector.endpoint)
        agent.send(make_event(uid=b"C0"))
        wait_for(lambda: "C0" in read_file("folder/events"), "the first event")
        os.rename("folder", "elsewhere")
        for number in range(1, 20):
            agent.send(make_event(uid=b"C%d" % number))
        wait_for(lambda: read_file("elsewhere/events").count("\n") == 20, "all events")
        wait_for(lambda: "folder/events: cannot be moved aside" in collector.stderr, "the warning")
        os.rename("elsewhere", "folder")
        for number in range(20, 60):
            agent.send(make_event(uid=b"C%d" % number))
        self.assertEqual(collector.wait(), 0)
        names = sorted(glob.glob("folder/events.*")) + ["folder/events"]
        self.assertEqual(re.findall(r"C\d+", "".join(read_file(name) for name in names)),
                         ["C%d" % number for number in range(60)])
        self.assertGreater(len(names), 2)
        self.assertEqual(collector.stderr.count("the moved file stays in use"), 1)

    def test_file_that_was_moved_or_removed_is_opened_anew_at_once(self):
        collector = self.collect("--output", "events")
        agent = self.agent(collector.endpoint)

        def send(uid):
            agent.send(make_event(uid=uid))
            wait_for(lambda: os.path.exists("events") and uid.decode() in read_file("events"),
                     "the event in the new file")
        send(b"C0")
        os.rename("events", "shipped")
        wait_for(lambda: os.path.exists("events"), "the new file without an event")
        send(b"C1")
        os.remove("events")
        send(b"C2")
        os.rename("events", "shipped2")
        collector.popen.send_signal(signal.SIGHUP)
        wait_for(lambda: os.path.exists("events"), "the new file")
        write_file("another", "of somebody else")
        os.rename("another", "events")
        send(b"C3")
        self.assertIn("C0", read_file("shipped"))
        self.assertIn("C2", read_file("shipped2"))
        self.assertIn("of somebody else", [read_file(name) for name in glob.glob("events.*")])
        self.assertEqual(
            collector.stderr.count("events: was moved or removed, opened anew\n"), 4)
        self.end(collector)

    def test_hangup_signal_ends_a_collector_without_a_file_cleanly(self):
        collector = self.collect()
        self.agent(collector.endpoint).send(make_event())
        wait_for(collector.lines, "the event")
        collector.popen.send_signal(signal.SIGHUP)
        self.assertEqual(collector.wait(), 0)
        self.assertEqual(totals(collector)["events"], 1)

    def test_file_at_its_largest_size_is_left_when_it_is_moved(self):
        limit = 10000
        collector = self.collect(
            "--output", "events", "--format", "raw",
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
        events = [make_event(uid=b"C%d" % number, details=b"x" * 300) for number in range(40)]
        agent = self.agent(collector.endpoint)
        for event in events:
            agent.send(event)
        wait_for(lambda: "File too large; receiving pauses" in collector.stderr, "the stall")
        os.rename("events", "shipped")
        shipped = unframed(read_file("shipped", "rb"))
        wait_for(lambda: os.path.exists("events") and
                 shipped + unframed(read_file("events", "rb")) == events, "the other events")

    def test_events_wait_for_a_removed_folder(self):
        os.mkdir("folder")
        collector = self.collect("--output", "folder/events", "--metrics", "127.0.0.1:0")

        def await_stalled(figure):
            wait_for(lambda: "\nzmqwriter_collect_output_stalled %d\n" % figure in
                     self.get(collector, "metrics")[1], "the metric")
        shutil.rmtree("folder")
        agent = self.agent(collector.endpoint)
        agent.send(make_event(uid=b"C1"))
        await_stalled(1)
        os.mkdir("folder")
        wait_for(lambda: os.path.exists("folder/events") and "C1" in read_file("folder/events"),
                 "the event")
        await_stalled(0)
        for words in ("warning: cannot write the output: No such file or directory; receiving pauses",
                      "the output accepts events again"):
            self.assertEqual(collector.stderr.count(words), 1, collector.stderr)


class CollectUsageTest(CliTest):
    def test_start_that_fails_says_why_and_changes_nothing(self):
        self.keygen()
        kept = {name: read_file(name) for name in ("server.secret", "server.public")}
        for name, content in [("bad.secret", "no key"), ("allowed", "0" * 64),
                              ("events", "former run"), ("file.txt", "precious")]:
            write_file(name, content)
            kept[name] = content
        os.mkdir("folder")
        os.link("server.secret", "hard")
        os.symlink("allowed", "soft")
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            in_use = "127.0.0.1:%d" % taken.getsockname()[1]
            cases = [(["--bind", endpoint], "cannot listen on '%s': %s" % (endpoint, message))
                     for endpoint, message in [
                         ("tcp://" + in_use, "Address already in use"),
                         ("tcp://192.0.2.1:5555", "Cannot assign requested address"),
                         ("tcp://[::1]:*", "No such device; the host must be an IPv4 address of"),
                         ("tcp://no-such-interface:*", "No such device; the host must be an IPv4 address"),
                         ("ipc://file.txt", "there is a file of this name")]]
            cases += [(["--output", output], output + ": is a file of keys, so it cannot be")
                      for output in ("server.secret", "./hard", "allowed", "soft")]
            cases += [(["--output", output], output + ": cannot open the output: ")
                      for output in ("no/such/folder/events", ".")]
            cases += [(["--secret-key", "nowhere"], "nowhere: cannot be read: No such file or directory"),
                      (["--secret-key", "folder"], "folder: cannot be read: Is a directory"),
                      (["--secret-key", "bad.secret"], "bad.secret: "),
                      (["--allow", "nowhere"], "nowhere: "),
                      (["--metrics", in_use], "cannot serve metrics on '%s'" % in_use),
                      (["--output", "/dev/null", "--rotate-size", "10"],
                       "only a regular file can be rotated")]
            for arguments, message in cases:
                options = {"--bind": "tcp://127.0.0.1:*", "--secret-key": "server.secret",
                           "--allow": "allowed", "--output": "events"}
                options.update(zip(arguments[::2], arguments[1::2]))
                result = self.run_tool("collect", *sum(options.items(), ()))
                self.assertEqual((result.returncode, result.stdout), (1, b""), arguments)
                self.assertIn(message, result.stderr)
                self.assertNotIn("listening on tcp", result.stderr)
        self.assertEqual({name: read_file(name) for name in kept}, kept)
        self.assertEqual(glob.glob("*.0*"), [])


@needs_zmq
class CollectStatsTest(CliTest):
    def reports(self, collector):
        """Sums over all [stats] lines: name -> count."""
        sums = {}
        for line in re.findall(r"^\[stats\] (.*)$", collector.stderr, re.M):
            subject = re.match(r" +(.*): \d+ events \(", line)
            for count, name in re.findall(r"(\d+) ([a-z-]+) \(\d+(?:\.\d+)?/s\)", line):
                key = (subject.group(1), name) if subject else name
                sums[key] = sums.get(key, 0) + int(count)
        return sums

    def test_figures_of_all_reports_add_up_to_the_totals(self):
        collector = self.collect("--stats", "0.05")
        agent = self.agent(collector.endpoint)
        one, two = make_event(agent=b"agent-1"), make_event(agent=b"agent-2", details=b"xy" * 50)
        for number in range(40):
            agent.send(one)
            agent.send(two)
            agent.send(b"")
            agent.send(b"no event")
            agent.send_multipart([one, two])
            wait_for(lambda: len(collector.lines()) == 2 * (number + 1), "the events")
        self.end(collector)
        self.assertGreater(collector.stderr.count("[stats] "), 2)
        size = 40 * (len(one) + len(two))
        self.assertEqual(self.reports(collector), {
            "events": 80, "bytes": size, "empty": 40, "malformed": 40, "multi-part": 40,
            ("Tn5250Data", "events"): 80, ("Tn5250Data", "bytes"): size,
            ("agent agent-1", "events"): 40, ("agent agent-1", "bytes"): 40 * len(one),
            ("agent agent-2", "events"): 40, ("agent agent-2", "bytes"): 40 * len(two)})

    def test_reports_go_on_while_the_output_is_stalled(self):
        collector, _ = self.collect_into_pipe("--stats", "0.05")
        agent = self.agent(collector.endpoint)
        agent.send(make_event(details=b"x" * 1000000))
        wait_for(lambda: " 1 events" in collector.stderr, "the event's report")
        reports = collector.stderr.count("[stats]")
        wait_for(lambda: collector.stderr.count("[stats]") > reports + 3, "further reports")

    def on_terminal(self, terminal, output, rows=8, columns=80):
        """A collector whose standard output and error are a terminal, and what it has written."""
        self.keygen()
        main, side = pty.openpty()
        fcntl.ioctl(side, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        collector = self.start(*self.BIND, "tcp://127.0.0.1:*", "--stats", "0.05", *output,
                               stdout=side, stderr=side, env={**os.environ, "TERM": terminal})
        os.close(side)
        written = bytearray()
        reader = os.fdopen(main, "rb", 0)
        self.addCleanup(reader.close)
        threading.Thread(target=Process._read, args=(reader, written), daemon=True).start()
        collector.endpoint = wait_for(lambda: re.search(rb"listening on (\S+)\r\n", written),
                                      "the endpoint").group(1).decode()
        return collector, written

    @staticmethod
    def screen(written, rows=8):
        """The lines that a terminal shows after this, and those above that have left it."""
        lines, at, column = [""], 0, 0
        for text in re.findall(r"\x1b\[[?\d]*[A-Za-z]|[^\x1b]", written.decode()):
            if text == "\x1b[J":
                lines[at:] = [lines[at][:column]]
            elif text[0] == "\x1b" and text[-1] == "A":
                up = int(text[2:-1])
                assert up < rows, "the table is higher than the terminal"
                at -= up
            elif text == "\r":
                column = 0
            elif text == "\n":
                at += 1
                lines += [""] * (at + 1 - len(lines))
            elif text[0] != "\x1b":
                lines[at] = lines[at][:column].ljust(column) + text + lines[at][column + 1:]
                column += 1
        return lines

    def test_table_on_a_terminal_is_drawn_in_place_below_other_messages(self):
        collector, written = self.on_terminal("xterm", ["--output", "events"])
        agent = self.agent(collector.endpoint)
        for number in range(20):
            agent.send(make_event(agent=b"agent-%d-" % number + b"x" * 60))
        wait_for(lambda: b"all: 20 agents, 0 bad" in written, "the agents")
        agent.send(b"no event")
        wait_for(lambda: b"all: 20 agents, 1 bad" in written, "the bad message")
        drawn = written.count(b"events/s")
        wait_for(lambda: written.count(b"events/s") > drawn + 3, "further tables")
        self.end(collector)
        wait_for(lambda: b"multi-part messages: 0" in written, "the totals")
        lines = self.screen(written)
        self.assertNotIn("[stats]", "\n".join(lines))
        table = lines.index("    events/s       bytes/s         events  agent")
        self.assertIn("message 21 from 127.0.0.1 skipped: ", lines[table - 2])
        self.assertEqual(lines[table - 1], "")
        self.assertEqual(lines[table + 5], "and 17 agents more")
        self.assertEqual(lines[table + 6][:12], "events: 20 (")
        self.assertEqual(max(map(len, lines[table:table + 6])), 80)
        self.assertEqual("\n".join(lines).count("events/s"), 1)

    def test_lines_take_the_place_of_the_table_where_it_cannot_be_drawn(self):
        for terminal, output in [("dumb", ["--output", "events"]), ("", ["--output", "events"]),
                                 ("xterm", [])]:
            with self.subTest(terminal=terminal, output=output):
                collector, written = self.on_terminal(terminal, output)
                wait_for(lambda: written.count(b"[stats] ") > 2, "the reports")
                self.assertNotIn(b"\x1b", written)
                collector.stop()


@needs_zmq
class CollectMetricsTest(CliTest):
    def scrape(self, collector):
        """Name with labels -> value; every line must be well formed."""
        values = {}
        for line in self.get(collector, "metrics")[1].split("\n")[:-1]:
            if line.startswith("#"):
                continue
            name, labels, value = re.fullmatch(
                r'([a-z_]+)((?:\{[a-z]+="(?:[^"\\]|\\[\\"n])*"\})?) (\S+)', line).groups()
            if not name.startswith("zmqwriter_collect_"):
                continue
            assert name + labels not in values, "twice: " + line
            values[name[len("zmqwriter_collect_"):] + labels] = float(value)
        return values

    def test_limit_of_open_files_is_raised(self):
        collector = self.collect(
            "--metrics", "127.0.0.1:0",
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (100, 300)))
        self.assertIn("\nprocess_max_fds 300\n", self.get(collector, "metrics")[1])

    def test_connections_leave_open_files_for_the_output_and_for_scrapes(self):
        collector = self.collect(
            "--metrics", "127.0.0.1:0", "--output", "events", "--rotate-size", "300",
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (200, 200)))
        agent, event = self.agent(collector.endpoint), make_event()
        agent.send(event)
        wait_for(lambda: self.scrape(collector)['events_total{type="Tn5250Data"}'] == 1, "the event")
        address = ("127.0.0.1", int(collector.endpoint.split(":")[-1]))
        idle = [socket.create_connection(address, DEADLINE) for _ in range(250)]
        for client in idle:
            self.addCleanup(client.close)
        refused = 'handshakes_failed_total{reason="too_many"}'
        wait_for(lambda: self.scrape(collector)[refused] >= 80, "the refusals")
        for _ in range(5):
            agent.send(event)
        wait_for(lambda: self.scrape(collector)["output_files_finished_total"] >= 2, "the rotation")
        self.assertNotIn("warning", collector.stderr)
        self.assertIn("refused: there are too many connections", collector.stderr)
        for client in idle:
            client.close()
        another = self.agent(collector.endpoint)
        another.send(event)
        wait_for(lambda: self.scrape(collector)['events_total{type="Tn5250Data"}'] == 7, "the events")

    def test_scrape_has_the_counts_of_the_moment(self):
        collector = self.collect("--metrics", "127.0.0.1:0", "--most-agents", "1")
        self.assertEqual(json.loads(self.get(collector, "status.json")[1])["endpoints"],
                         [collector.endpoint])
        agent = self.agent(collector.endpoint)
        event = make_event(agent=b'a"b\\c\nd\xff')
        for message in (event, b"", b"no event", event):
            agent.send(message)
        agent.send_multipart([event, event])
        agent.send(event)
        wait_for(lambda: len(collector.lines()) == 3, "the events")
        printed = lambda: sum(len(line) + 1 for line in collector.lines())
        wait_for(lambda: self.scrape(collector)["output_bytes_total"] == printed(), "the output")
        found = {name: value for name, value in self.scrape(collector).items()
                 if value and not name.startswith(("agent_last", "build_info", "connections"))}
        self.assertEqual(found, {
            'events_total{type="Tn5250Data"}': 3,
            'event_bytes_total{type="Tn5250Data"}': 3 * len(event),
            r'agent_events_total{agent="a\"b\\x5cc\\x0ad\\xff"}': 3,
            r'agent_event_bytes_total{agent="a\"b\\x5cc\\x0ad\\xff"}': 3 * len(event),
            'bad_messages_total{reason="empty"}': 1,
            'bad_messages_total{reason="malformed"}': 1,
            'bad_messages_total{reason="multi_part"}': 1,
            'output_bytes_total': printed()})
        agent.send(make_event(agent=b"another"))
        wait_for(lambda: self.scrape(collector).get('agent_events_total{agent="(others)"}') == 3,
                 "the first agent to make room")
        self.end(collector)


@needs_zmq
class CollectRefusalsTest(CliTest):
    def test_refused_connections_are_told_by_reason_and_counted(self):
        collector = self.collect("--metrics", "127.0.0.1:0")
        address = ("127.0.0.1", int(collector.endpoint.split(":")[-1]))
        self.assertIn("zmq.public_key = " + read_file("server.public"), collector.stderr)

        def raw(text):
            client = socket.create_connection(address, DEADLINE)
            self.addCleanup(client.close)
            client.sendall(text)

        def refused(reason):
            return int(re.search(r'handshakes_failed_total\{reason="%s"\} (\d+)' % reason,
                                 self.get(collector, "metrics")[1]).group(1))

        idle = socket.create_connection(address, DEADLINE)
        self.addCleanup(idle.close)
        good = self.agent(collector.endpoint)
        good.send(make_event())
        wait_for(collector.lines, "the good agent's event")
        for reason, connect, told in (
                ("other_key", lambda: self.agent(collector.endpoint, zmq.curve_keypair()[0],
                                                 reconnect_ivl=-1).send(make_event()),
                 "another public key"),
                ("no_curve", lambda: raw(b"\xff" + bytes(8) + b"\x7f\x03\0NULL" + bytes(48)),
                 "does not use CURVE"),
                ("protocol", lambda: raw(b"GET / HTTP/1.1\r\nHost: x\r\n\r\n"), "is no sender of ZeroMQ"),
                ("timed_out", lambda: None, "did not finish the handshake")):
            connect()
            wait_for(lambda: refused(reason) == 1, reason)
            # The address of a client that was refused at once may be gone.
            wait_for(lambda: re.search(r"connection from (127\.0\.0\.1:\d+|a client that has gone) "
                                       "refused: it .*" + told, collector.stderr), reason)
        self.assertIn(":%d refused: it did not" % idle.getsockname()[1], collector.stderr)
        for _ in range(20):
            raw(b"x" * 100)
        wait_for(lambda: refused("protocol") == 21, "the others")
        self.assertEqual(collector.stderr.count(" refused: "), 10)
        self.assertIn("\nzmqwriter_collect_connections 1\n", self.get(collector, "metrics")[1])
        good.send(b"rubbish")
        wait_for(lambda: "message 2 from 127.0.0.1 skipped: " in collector.stderr, "the peer's name")
        self.end(collector)
        self.assertEqual(totals(collector)["events"], 1)


@needs_zmq
class CollectAllowTest(CliTest):
    def test_listed_clients_get_through_and_others_do_not(self):
        known, listed_upper, stranger = (zmq.curve_keypair() for _ in range(3))
        write_file("allowed", "# who may\n\n%s  # the first\r\n%s\n"
                   % (hex_of(known), hex_of(listed_upper).upper()))
        collector = self.collect("--allow", "allowed")
        denied = self.agent(collector.endpoint, keys=stranger)
        try:
            denied.send(make_event(uid=b"stranger"), zmq.NOBLOCK)
        except zmq.Again:
            pass  # turned away already, and so without a connection
        wait_for(lambda: hex_of(stranger).upper() in collector.stderr, "the denial")
        for keys in (known, listed_upper):
            self.agent(collector.endpoint, keys=keys).send(make_event(uid=b"known"))
        wait_for(lambda: len(collector.lines()) == 2, "the listed clients' events")
        self.end(collector)
        self.assertEqual([json.loads(line)["uid"] for line in collector.lines()], ["known"] * 2)
        self.assertEqual(totals(collector)["clients let in"], 2)
        self.assertGreaterEqual(totals(collector)["clients turned away"], 1)
        self.assertIn("client at 127.0.0.1 turned away", collector.stderr)
        self.assertIn("warning: only clients with one of 2 keys may connect", collector.stderr)

    def test_hangup_signal_reads_the_list_again(self):
        early, late = zmq.curve_keypair(), zmq.curve_keypair()
        write_file("allowed", hex_of(early))
        collector = self.collect("--allow", "allowed")
        client = self.agent(collector.endpoint, keys=early)
        client.send(make_event(uid=b"early"))
        wait_for(collector.lines, "the first event")
        for change, refusal in [
                (lambda: write_file("allowed", "nonsense"), "allowed:1: "),
                (lambda: os.remove("allowed"), "allowed: cannot be read: No such file"),
                (lambda: os.mkdir("allowed"), "allowed: cannot be read: Is a directory")]:
            change()
            collector.popen.send_signal(signal.SIGHUP)
            wait_for(lambda: "stay as they were: " + refusal in collector.stderr, "the refusal")
        self.agent(collector.endpoint, keys=early).send(make_event(uid=b"as before"))
        wait_for(lambda: len(collector.lines()) == 2, "the event of a key that stayed allowed")
        os.rmdir("allowed")
        write_file("allowed", hex_of(late))
        collector.popen.send_signal(signal.SIGHUP)
        wait_for(lambda: "allowed keys read again: 1" in collector.stderr, "the new list")
        self.agent(collector.endpoint, keys=late).send(make_event(uid=b"late"))
        wait_for(lambda: len(collector.lines()) == 3, "the late client's event")
        client.send(make_event(uid=b"still"))
        wait_for(lambda: len(collector.lines()) == 4, "the event of the old connection")


@needs_zmq
class CollectHostileTest(CliTest):
    def test_hundred_thousand_random_and_damaged_messages_are_counted_to_the_last(self):
        seed = random.randrange(2 ** 32)
        print("seed", seed)
        chance = random.Random(seed)
        collector = self.collect("--quiet", "--stats", "3600", "--format", "raw", "--output", "events")
        agent = self.agent(collector.endpoint)
        event, last = make_event(agent=b"agent", details=b"details " * 8), make_event(uid=b"last")
        sent = {event, last}
        for number in range(100000):
            agent.send(chance.randbytes(chance.randrange(1, 200)))
            if number % 10 == 0:
                damaged = bytearray(event)
                for bit in chance.sample(range(8 * len(event)), chance.randrange(1, 5)):
                    damaged[bit // 8] ^= 1 << bit % 8
                damaged = bytes(damaged[:chance.choice([chance.randrange(1, len(event)), None])])
                sent.add(damaged)
                agent.send(damaged)
            if number % 100 == 0:
                agent.send(b"")
                agent.send_multipart(chance.choice([[event, b""], [b"", event], [b""] * 3,
                                                    [event] * 200]))
                agent.send(event)
        agent.send(last)
        wait_for(lambda: read_file("events", "rb").endswith(last), "the last event")
        self.end(collector)

        report = re.search(r"s: (\d+) events .*, (\d+) empty .*, (\d+) malformed .*, "
                           r"(\d+) multi-part", collector.stderr)
        events, empty, malformed, multi_part = (int(group) for group in report.groups())
        self.assertEqual((empty, multi_part, events + malformed), (1000, 1000, 100000 + 10000 + 1001))
        # A damaged event may be an event still (and is written as it came), a random text of these
        # lengths is none.
        self.assertGreaterEqual(malformed, 100000)
        written = unframed(read_file("events", "rb"))
        self.assertEqual(len(written), events)
        self.assertLessEqual(set(written), sent)
        self.assertEqual(written.count(event), 1000)
        decoded = self.run_tool("decode", "events")
        self.assertEqual((decoded.returncode, decoded.stderr), (0, ""))
        self.assertEqual(decoded.stdout.count(b"\n"), events)


@needs_zmq
class CollectFullDiskTest(CliTest):
    def test_exit_on_full_ends_while_there_is_room_for_all_that_agents_have_sent(self):
        self.mount_disk(76)
        collector = self.collect("--output", "disk/events", "--exit-on-full")
        sent = self.send_until_it_blocks(
            self.agent(collector.endpoint, sndhwm=1, immediate=1),
            (make_event(uid=b"C%d" % n, details=b"x" * 10000) for n in itertools.count()),
            lambda: collector.popen.poll() is not None)
        self.assertEqual(collector.wait(), 1)
        self.assertIn("disk/events: less than 72 MiB are free", collector.stderr)
        # One in the agent's queue, one on its way to the socket.
        self.assertLessEqual(sent - read_file("disk/events").count("\n"), 2)
        write_file("disk/other", b"x" * (8 << 20))
        again = self.run_collect("--output", "disk/events", "--exit-on-full")
        self.assertEqual(again.returncode, 1)
        self.assertNotIn("listening on", again.stderr)

    def test_exit_on_full_after_a_failure_counts_what_did_not_get_out(self):
        limit = 10000
        collector = self.collect(
            "--output", "events", "--format", "raw", "--exit-on-full",
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
        event = make_event(details=b"x" * 333)
        sent = self.send_until_it_blocks(
            self.agent(collector.endpoint, sndhwm=1, immediate=1), itertools.repeat(event),
            lambda: collector.popen.poll() is not None)
        self.assertEqual(collector.wait(), 1)
        self.assertIn("cannot write the output: File too large", collector.stderr)
        written = unframed(read_file("events", "rb"))
        self.assertEqual(len(written), limit // (4 + len(event)))
        lost = int(re.search(r"(\d+) of the events received did not get out",
                             collector.stderr).group(1))
        self.assertEqual(totals(collector)["events"], len(written) + lost)
        # One in the agent's queue, one on its way to the socket.
        self.assertLessEqual(sent - len(written) - lost, 2)

    def test_stop_gives_a_full_disk_up_after_a_while_and_counts_what_did_not_get_out(self):
        if not os.path.exists("/dev/full"):
            self.skipTest("needs /dev/full")
        collector = self.collect("--output", "/dev/full")
        agent = self.agent(collector.endpoint)
        for _ in range(3):
            agent.send(make_event())
        wait_for(lambda: "warning: cannot write the output" in collector.stderr, "the stall")
        self.assertIsNone(collector.popen.poll())
        collector.popen.send_signal(signal.SIGTERM)
        self.assertEqual(collector.wait(), 1)
        self.assertIn("stopping: the output has 30 s more", collector.stderr)
        self.assertIn("3 of the events received did not get out", collector.stderr)


@needs_zmq
class CollectPressureTest(CliTest):
    def test_stalled_reader_costs_neither_memory_nor_events(self):
        # 160 MB are on offer, of which 64 events wait in libzmq; of the large ones, in the worst
        # case beside what they were decrypted from.
        for size, count, most_kb in [(8000, 20000, 40 * 1024), (1000000, 160, 200 * 1024)]:
            collector, reader = self.collect_into_pipe("--format", "raw")
            agent = self.agent(collector.endpoint, sndhwm=1)
            details = b"x" * size
            events = [make_event(uid=b"C%05d" % number, details=details)
                      for number in range(count)]
            before = memory_kb(collector.popen) if can_measure_memory() else None
            sent = self.send_until_it_blocks(
                agent, events, lambda: "warning: nobody reads the output" in collector.stderr)
            received = []
            thread = threading.Thread(
                target=lambda: received.append(reader.read(count * (4 + len(events[0])))))
            thread.start()
            for event in events[sent:]:
                agent.send(event)
            thread.join(DEADLINE)
            self.assertEqual(unframed(received[0]), events)
            if before is not None:
                self.assertLess(memory_kb(collector.popen, "VmHWM") - before, most_kb)

    @unittest.skipUnless(curve_client.sodium and can_measure_memory(), "needs libsodium and /proc")
    def test_endless_messages_end_their_connections_at_the_memory_limit_even_during_a_stall(self):
        collector, reader = self.collect_into_pipe("--max-memory", "100M", "--metrics",
                                                   "127.0.0.1:0")
        agent = self.agent(collector.endpoint, sndhwm=1)
        events = [make_event(uid=b"C%d" % number, details=b"x" * 3000)
                  for number in range(8000)]  # more than all buffers on the way hold
        sent = self.send_until_it_blocks(
            agent, events, lambda: "warning: nobody reads the output" in collector.stderr)
        key = bytes.fromhex(read_file("server.public"))

        def connect():  # refused until the collector has looked at its memory again
            try:
                return curve_client.CurveClient(int(collector.endpoint.split(":")[-1]), key)
            except ConnectionError:
                return None
        for part, most in [(bytes(100000), 4000), (b"", 2000000)]:
            client = wait_for(connect, "a connection")
            self.addCleanup(client.socket.close)
            with self.assertRaises(OSError):
                for _ in range(most // 100):
                    client.socket.sendall(b"".join(client.sealed(part, curve_client.MORE)
                                                   for _ in range(100)))
            wait_for(lambda: memory_kb(collector.popen) < 100 * 1024, "the memory to be free")
        self.assertLess(memory_kb(collector.popen, "VmHWM"), 160 * 1024)
        self.assertIn(" ended: more than --max-memory is in use", collector.stderr)
        memory = json.loads(self.get(collector, "status.json")[1])["memory"]
        self.assertGreaterEqual(memory["connections_ended"], 2)
        self.assertEqual(memory["limit"], 100 << 20)
        thread = threading.Thread(target=lambda: [agent.send(event) for event in events[sent:]])
        thread.start()
        lines = [json.loads(reader.readline())["uid"] for _ in events]
        thread.join(DEADLINE)
        self.assertEqual(lines, ["C%d" % number for number in range(len(events))])

    def test_stop_signal_during_a_stall_loses_nothing_that_was_received(self):
        collector, reader = self.collect_into_pipe()
        agent = self.agent(collector.endpoint)
        for number in range(200):
            agent.send(make_event(uid=b"C%d" % number, details=b"x" * 3000))
        # A full pipe: more than it holds is on its way, so the collector is in the middle of a write.
        wait_for(lambda: readable_bytes(reader) > 32768, "the full pipe")
        self.wait_until_handed_over(agent)
        collector.popen.send_signal(signal.SIGTERM)
        lines = reader.read().splitlines()
        self.assertEqual(collector.wait(), 0)
        self.assertEqual([json.loads(line)["uid"] for line in lines],
                         ["C%d" % number for number in range(200)])
        self.assertEqual(totals(collector)["events"], 200)

    @staticmethod
    def wait_until_handed_over(agent):
        """Closing lingers until everything has left the agent."""
        agent.linger = DEADLINE * 1000
        context = agent.context
        agent.close()
        context.term()

    def test_time_out_after_a_pause_takes_what_came_meanwhile(self):
        for time_out in (1, 20):  # a slow machine needs longer to connect
            collector = self.collect("--timeout", str(time_out))
            agent = self.agent(collector.endpoint)
            agent.send(make_event())
            wait_for(lambda: collector.lines() or collector.popen.poll() is not None, "an event")
            collector.popen.send_signal(signal.SIGSTOP)
            if collector.lines():
                break
        stopped = time.monotonic()
        for _ in range(50):
            agent.send(make_event())
        self.wait_until_handed_over(agent)
        wait_for(lambda: time.monotonic() - stopped > time_out, "the time-out to pass")
        collector.popen.send_signal(signal.SIGCONT)
        self.assertEqual(collector.wait(), 0)
        self.assertEqual(totals(collector)["events"], 51)

    def lost_at_a_stop(self, collector, details, output, signals=(signal.SIGTERM,)):
        """How many events that agents have sent are not in `output` after a stop under load."""
        agents = [self.agent(collector.endpoint, sndhwm=1, immediate=1, sndtimeo=3000)
                  for _ in range(3)]  # as the plug-in sends
        sent = [0] * len(agents)
        over = threading.Event()

        def send(number):
            while not over.is_set():
                try:
                    agents[number].send(make_event(b"<%d-%d>" % (number, sent[number]), details))
                    sent[number] += 1
                except zmq.Again:
                    pass
        threads = [threading.Thread(target=send, args=[number]) for number in range(len(agents))]
        for thread in threads:
            thread.start()
        try:
            wait_for(lambda: min(sent) > 100, "the load")
            for number in signals:
                collector.popen.send_signal(number)
            self.assertEqual(collector.wait(), 0)
        finally:
            over.set()
            for thread in threads:
                thread.join()
        written = unframed(output())
        self.assertEqual(totals(collector)["events"], len(written))
        return sum(sent) - len(set(re.findall(br"<[0-9]-[0-9]+>", b"".join(written))))

    def test_stop_under_load_loses_at_most_one_event_of_each_agent(self):
        for signals in ((signal.SIGTERM,), (signal.SIGINT, signal.SIGTERM)):
            collector = self.collect("--output", "events", "--format", "raw")
            self.assertLessEqual(self.lost_at_a_stop(
                collector, b"", lambda: read_file("events", "rb"), signals), 3)

    def test_stop_with_a_slow_reader_loses_at_most_what_an_agent_has_not_handed_over(self):
        # Of each agent, the event that its libzmq was sending and the next. Where other work takes
        # all processors, more can be lost, so the best of three stops counts.
        lost = []
        while len(lost) < 3 and not (lost and lost[-1] <= 6):
            lost.append(self.lost_with_a_slow_reader())
        self.assertLessEqual(lost[-1], 6, lost)

    def lost_with_a_slow_reader(self):
        collector, reader = self.collect_into_pipe("--format", "raw")
        output = bytearray()

        def read_slowly():
            while True:
                piece = os.read(reader.fileno(), 65536)
                if not piece:
                    return
                output.extend(piece)
                time.sleep(0.004)
        thread = threading.Thread(target=read_slowly)
        thread.start()

        def whole_output():
            thread.join(DEADLINE)
            return bytes(output)
        return self.lost_at_a_stop(collector, b"x" * 30000, whole_output)

    def test_no_agent_gets_in_while_a_stop_waits_for_a_frozen_client(self):
        keys = zmq.curve_keypair()
        write_file("allowed", hex_of(keys))
        for arguments in ([], ["--allow", "allowed"]):
            collector = self.collect(*arguments)
            port = int(collector.endpoint.rpartition(":")[2])
            with socket.create_connection(("127.0.0.1", port), DEADLINE) as frozen:
                collector.popen.send_signal(signal.SIGTERM)
                try:
                    while frozen.recv(4096):  # until the collector ends its side
                        pass
                except ConnectionResetError:
                    pass
                late = self.agent(collector.endpoint, keys=keys, immediate=1, sndtimeo=1000)
                with self.assertRaises(zmq.Again):
                    late.send(make_event())
                self.assertEqual(collector.wait(), 0)

    def test_second_signal_ends_a_stalled_collector_at_once(self):
        collector, reader = self.collect_into_pipe()
        agent = self.agent(collector.endpoint)
        for _ in range(200):
            agent.send(make_event(details=b"x" * 3000))
        wait_for(lambda: readable_bytes(reader) > 32768, "the full pipe")
        collector.signal(signal.SIGTERM)
        collector.popen.send_signal(signal.SIGTERM)
        self.assertEqual(collector.wait(), -signal.SIGTERM)

    def test_agents_of_several_endpoints_get_everything_through_at_a_stop(self):
        collector = self.collect("--bind", "tcp://127.0.0.1:*", "--output", "events", "--format",
                                 "raw")
        endpoints = wait_for(lambda: len(re.findall(r"listening on (\S+)\n", collector.stderr)) == 2
                             and re.findall(r"listening on (\S+)\n", collector.stderr),
                             "two endpoints")
        collector.popen.send_signal(signal.SIGSTOP)
        agents = [self.agent(endpoint) for endpoint in endpoints for _ in range(2)]
        collector.popen.send_signal(signal.SIGCONT)
        for agent in agents:
            agent.send(make_event(uid=b"first"))
        wait_for(lambda: len(unframed(read_file("events", "rb"))) == 4, "all connections")
        collector.popen.send_signal(signal.SIGSTOP)
        for index, agent in enumerate(agents):
            for number in range(500):
                agent.send(make_event(uid=b"%d-%d" % (index, number)))
        for agent in agents:
            self.wait_until_handed_over(agent)
        collector.popen.send_signal(signal.SIGINT)
        collector.popen.send_signal(signal.SIGCONT)
        self.assertEqual(collector.wait(), 0)
        self.assertEqual(totals(collector)["events"], 2004)
        self.assertEqual(len(unframed(read_file("events", "rb"))), 2004)


def readable_bytes(file):
    import array
    import termios
    waiting = array.array("i", [0])
    fcntl.ioctl(file.fileno(), termios.FIONREAD, waiting)
    return waiting[0]


if __name__ == "__main__":
    unittest.main()
