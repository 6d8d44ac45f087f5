"""zmqwriter replay --follow: a growing log arrives once, through rotation, restarts and SIGKILL."""

import collections
import glob
import gzip
import itertools
import json
import os
import random
import re
import signal
import threading
import time
import unittest

from cli_support import Port, open_files, read_file, wait_for, write_file
from replay_test import HEADER, ReplayTestCase, log_of

RECORD = "%d.5\tC%d\t%d\n"


class FollowTestCase(ReplayTestCase):
    LOG = "things.log"

    def follow(self, *logs, **options):
        return self.start_replay("--follow", "--state", "state", *(logs or [self.LOG]), **options)

    def stop_follow(self, replay, status=0):
        replay.popen.send_signal(signal.SIGTERM)
        self.assertEqual(replay.wait(), status, replay.stderr)
        return replay.stderr

    def append(self, text):
        with open(self.LOG, "a") as log:
            log.write(text)

    def numbers(self, *numbers):
        return "".join(RECORD % (n, n, n) for n in numbers)

    def wait_for_uids(self, collector, *uids):
        wait_for(lambda: len(collector.lines()) >= len(uids), "%d events" % len(uids))
        self.assertEqual([event["uid"] for event in self.events(collector, len(uids))], list(uids))

    @staticmethod
    def positions():
        """Of the only log's files, as the state has them: inode, and where reading goes on."""
        return [tuple(map(int, found)) for found in
                re.findall(r'"inode":(\d+),"offset":(\d+)', read_file("state"))]

    def collect_for_follow(self):
        collector = self.collect("--quiet")
        self.settings_for(collector.endpoint)
        return collector


class Writer(threading.Thread):
    """Appends records at random to a log in pieces that cut lines, and rotates it as the host does."""

    def __init__(self, log, rotations, chance):
        super().__init__()
        self.log, self.rotations, self.random = log, rotations, chance
        self.written, self.stopping = 0, False

    def run(self):
        for rotation in range(self.rotations + 1):
            # Both ends of a rotation are atomic for nobody: a reader may come in between.
            with open(self.log, "ab", buffering=0) as file:
                file.write((HEADER % "things").encode())
                for _ in range(self.random.randrange(40, 400)):
                    line = (RECORD % ((self.written,) * 3)).encode()
                    cut = self.random.randrange(len(line))
                    file.write(line[:cut])
                    file.write(line[cut:])
                    self.written += 1
                    if self.random.random() < 0.05:
                        time.sleep(self.random.random() / 10)
                file.write(b"#close\tnow\n")
            if rotation < self.rotations:
                os.rename(self.log, "%s.2024-01-01-00-00-%02d.log" % (self.log[:-4], rotation))


class RotationTest(FollowTestCase):
    """A writer appends and rotates at random while the replay is stopped and started at random."""

    def covered(self):
        """How many records the state takes for handed over; they have ascending numbers."""
        while True:
            try:
                logs = {os.stat(name).st_ino: name for name in glob.glob(self.LOG[:-4] + "*")}
                numbers = [re.findall(rb"\tC(\d+)", read_file(logs[inode], "rb")[:offset])
                           for inode, offset in self.positions()]
                return max((int(found[-1]) + 1 for found in numbers if found), default=0)
            except (FileNotFoundError, KeyError):
                pass  # rotated meanwhile

    def run_writer(self, number, pauses):
        """Returns how often each record arrived, and how many the restarts may repeat."""
        seed = int(os.environ.get("ZMQWRITER_SEED") or time.time())
        print("seed", seed)
        chance = random.Random(seed)
        collector = self.collect_for_follow()
        writer = Writer(self.LOG, 20, random.Random(seed + 1))
        replay = self.follow()
        wait_for(lambda: "waiting for it" in replay.stderr, "the start")
        writer.start()
        self.addCleanup(writer.join)
        restarts, in_work, said = 0, 0, []
        while writer.is_alive() or restarts < 2:
            time.sleep(chance.uniform(*pauses))
            replay.popen.send_signal(number)
            status = replay.wait()
            # SIGTERM too ends a process that has not begun.
            self.assertIn(status, (0, -number) if number == signal.SIGTERM else (-number,),
                          replay.stderr)
            self.assertNotIn("not in the folder any more", replay.stderr)
            restarts += 1
            in_work += min(2000, writer.written - self.covered())
            said.append(replay.stderr)
            replay = self.follow()
        expected = ["C%d" % n for n in range(writer.written)]
        arrived = lambda: collections.Counter(json.loads(line)["uid"] for line in collector.lines())
        try:
            wait_for(lambda: len(arrived()) == len(expected), "every record")
        except AssertionError:
            self.fail("missing of %d: %s\n%s\n%s" % (len(expected), sorted(set(expected) - set(
                arrived()), key=lambda uid: int(uid[1:]))[:50], "\n".join(said), replay.stderr))
        replay.popen.send_signal(signal.SIGTERM)
        self.assertIn(replay.wait(), (0, -signal.SIGTERM), replay.stderr)
        return arrived(), in_work

    def test_each_record_arrives_once_through_rotations_and_restarts(self):
        arrived, _ = self.run_writer(signal.SIGTERM, (0.0, 1.0))
        self.assertEqual(set(arrived.values()), {1}, arrived.most_common(5))

    def test_sigkill_loses_none_and_repeats_only_what_was_in_work(self):
        arrived, in_work = self.run_writer(signal.SIGKILL, (0.3, 1.5))
        repeated = sum(arrived.values()) - len(arrived)
        print("repeated", repeated, "of", len(arrived), "with", in_work, "in work")
        self.assertLessEqual(repeated, in_work)


class FollowTest(FollowTestCase):
    def test_record_arrives_within_a_second_of_its_line_end(self):
        collector = self.collect_for_follow()
        for _ in range(2):
            replay = self.follow()
            wait_for(lambda: "things.log: is not there yet: waiting for it\n" in replay.stderr, "word")
            self.stop_follow(replay)
        replay = self.follow()
        wait_for(lambda: "waiting for it\n" in replay.stderr, "word")
        time.sleep(6)  # without a writer the plug-in does not run: no reason to give up
        header = HEADER % "things"
        for n, text in enumerate((header[:30], header[30:] + "0.5\tC", "0\t0", "\n1.5\tC1\t1\n",
                                  "#close\tnow\n#fields\tuid\n", "#types\tstring\n", "C2\n",
                                  "#separator ;\n#fields;ts;uid\n#types;time;string\n3;C3\n",
                                  "4;C4\n", "5;C5\n")):
            self.append(text)
            arrived = [0, 0, 0, 2, 2, 2, 3, 4, 5, 6][n]
            wait_for(lambda: len(collector.lines()) >= arrived, "the record")
            time.sleep(0.12)  # the reader looks at what is there
        for n in itertools.count(6):  # a busy machine may delay some
            begin = time.monotonic()
            self.append("%d;C%d\n" % (n, n))
            wait_for(lambda: len(collector.lines()) > n, "the record")
            if time.monotonic() - begin < 1:
                break
            self.assertLess(n, 50)
        self.wait_for_uids(collector, *["C%d" % number for number in range(n + 1)])
        self.assertEqual(replay.stderr.count("waiting for it"), 1)
        said = self.stop_follow(replay)
        self.assertIn("things.log: %d records\n" % (n + 1), said)
        self.assertIn("\nleft: nothing\n", said)
        self.assertIs(json.loads(read_file("state"))["exact"], True)

    def test_file_that_came_and_was_rotated_before_a_look_is_read(self):
        for stop, go_on in ((lambda replay: replay.popen.send_signal(signal.SIGSTOP),
                             lambda replay: replay.popen.send_signal(signal.SIGCONT) or replay),
                            (self.stop_follow, lambda _: self.follow())):
            with self.subTest(stop=stop):
                collector = self.collect_for_follow()
                write_file("things-1.log", log_of(1).replace("C", "OLD"))
                os.utime("things-1.log", (time.time() - 60,) * 2)
                replay = self.follow()
                wait_for(lambda: "waiting for it\n" in replay.stderr, "word")
                stop(replay)
                self.append(log_of(1))
                os.rename(self.LOG, "things-2.log")
                self.append(HEADER % "things" + self.numbers(1))
                replay = go_on(replay)
                self.wait_for_uids(collector, "C0", "C1")
                self.stop_follow(replay)
                for file in ("things-1.log", "things-2.log", self.LOG, "state"):
                    os.remove(file)

    def test_file_of_a_log_that_was_left_out_of_a_run_is_found(self):
        collector = self.collect_for_follow()
        self.append(log_of(1))
        replay = self.follow(self.LOG, "other.log")
        wait_for(lambda: len(collector.lines()) >= 1, "the first record")
        self.stop_follow(replay)
        write_file("other-1.log", log_of(1, "other").replace("\tC", "\tD"))
        time.sleep(1.1)  # the state keeps whole seconds
        self.append(self.numbers(1))
        replay = self.follow(self.LOG)
        wait_for(lambda: len(collector.lines()) >= 2, "the log that is followed alone")
        self.stop_follow(replay)
        replay = self.follow(self.LOG, "other.log")
        wait_for(lambda: len(collector.lines()) >= 3, "the file that was rotated meanwhile")
        self.stop_follow(replay)
        self.assertEqual(sorted(event["uid"] for event in self.events(collector, 3)),
                         ["C0", "C1", "D0"])

    def test_rotated_cut_and_other_files_are_read_as_they_come(self):
        collector = self.collect_for_follow()
        self.append(log_of(2))
        replay = self.follow()
        self.wait_for_uids(collector, "C0", "C1")
        old = open(self.LOG, "a")
        self.addCleanup(old.close)
        os.rename(self.LOG, "things-2024.log")
        write_file(self.LOG, '{"uid":"C2"}\n')
        self.wait_for_uids(collector, "C0", "C1", "C2")
        old.write(self.numbers(3) + "4.5\tC")  # its writer had not closed it
        old.flush()
        self.wait_for_uids(collector, "C0", "C1", "C2", "C3")
        with open(self.LOG, "r+") as log:
            log.truncate(0)
            wait_for(lambda: "got shorter: it is read from its start" in replay.stderr, "word")
            log.write('{"uid":"C5"}\n{"uid":\n{"uid":"C6"}\n')
        self.wait_for_uids(collector, "C0", "C1", "C2", "C3", "C5", "C6")
        wait_for(lambda: "things.log:8: the last line has no line end" in replay.stderr, "word")
        os.rename(self.LOG, "things-2025.log")
        write_file(self.LOG, "no log at all\n")
        wait_for(lambda: "things.log:1: file without header" in replay.stderr, "word")
        os.rename(self.LOG, "rubbish")
        write_file(self.LOG, '{"uid":"C7"}\n')
        self.wait_for_uids(collector, "C0", "C1", "C2", "C3", "C5", "C6", "C7")
        said = self.stop_follow(replay, 1)
        self.assertIn("things.log: 7 records, 2 broken lines, could not be read to its end", said)
        self.assertNotIn("gave up", said)

    def test_files_rotated_while_nobody_reads_are_found_where_the_last_one_has_gone(self):
        collector = self.collect_for_follow()
        self.append(log_of(2))
        replay = self.follow()
        self.wait_for_uids(collector, "C0", "C1")
        self.stop_follow(replay)
        self.append(self.numbers(2))
        with open("things.log.2.gz", "wb") as zipped:
            zipped.write(gzip.compress(read_file(self.LOG, "rb")))
        os.mkdir("archive")
        os.rename(self.LOG, "archive/things.log")
        write_file("things.log.1", HEADER % "things" + self.numbers(3, 4))
        replay = self.follow()
        self.wait_for_uids(collector, "C0", "C1", "C3", "C4")
        self.append(HEADER % "things" + self.numbers(5))
        self.wait_for_uids(collector, "C0", "C1", "C3", "C4", "C5")
        said = self.stop_follow(replay)
        self.assertIn("is newer than what was read, but compressed: replay it", said)
        self.assertIn("the file that was read up to byte 89 ", said)

    def test_file_with_the_inode_of_one_that_was_read_hides_no_other(self):
        collector = self.collect_for_follow()
        self.append(log_of(2))
        replay = self.follow()
        self.wait_for_uids(collector, "C0", "C1")
        os.rename(self.LOG, "things.log.1")
        self.append(HEADER % "things" + self.numbers(2))
        wait_for(lambda: '"done":true' in read_file("state"), "the end of the first file")
        self.stop_follow(replay)
        os.rename(self.LOG, "things.log.2")
        os.rename("things.log.1", self.LOG)
        write_file("things.log.1", HEADER % "things" + self.numbers(3))
        write_file(self.LOG, HEADER % "things" + self.numbers(*range(4, 9)))
        replay = self.follow()
        self.wait_for_uids(collector, *["C%d" % n for n in range(9)])
        self.assertNotIn("is not the file that was read", self.stop_follow(replay))

    def test_server_that_is_away_is_waited_for_and_nothing_is_sent_twice(self):
        port = Port()
        self.settings_for(port.endpoint)
        self.append(log_of(5))
        replay = self.follow("--drain", "1", self.LOG)
        wait_for(lambda: "is not responding" in replay.stderr, "the attempt")
        said = self.stop_follow(replay, 1)
        self.assertRegex(said, "to be read again: (at most )?5 records, neither sent nor on disk")
        self.assertIn("the next start sends again what was read last: at most 5 records\n", said)
        self.assertIs(json.loads(read_file("state"))["exact"], False)
        replay = self.follow("--drain", "1", self.LOG)
        wait_for(lambda: "is not responding" in replay.stderr, "the attempt")
        # Far more than is in work, in files that are gone before they are read.
        self.append(self.numbers(*range(5, 1000)))
        for number in range(1, 4):
            os.rename(self.LOG, "things.log.1")
            self.append(HEADER % "things" + self.numbers(*range(number * 1000, number * 1000 + 1000)))
            if os.path.exists("/proc/self/fd"):
                wait_for(lambda: os.path.abspath(self.LOG) in open_files(replay.popen.pid), "a look")
            else:
                time.sleep(2)
            os.remove("things.log.1")
        collector = self.collect(endpoint=port.endpoint)
        self.assert_each_once(collector, 4000)
        self.assertNotIn("gave up", self.stop_follow(replay))

    def test_reading_pauses_while_positions_cannot_be_written(self):
        collector = self.collect_for_follow()
        self.append(log_of(1))
        replay = self.follow()
        self.assert_each_once(collector, 1)
        wait_for(lambda: self.positions()[0][1] == os.path.getsize(self.LOG), "positions that stay")
        os.mkdir("state.new")
        self.append(self.numbers(*range(1, 6000)))
        wait_for(lambda: "state.new: cannot write the state: Is a directory; reading pauses" in
                 replay.stderr, "word")
        wait_for(lambda: len(collector.lines()) >= 1900, "the records before the pause")
        time.sleep(1)
        self.assertLess(len(collector.lines()), 2100)
        os.rmdir("state.new")
        self.assert_each_once(collector, 6000)
        self.stop_follow(replay)

    def test_wrong_use_is_refused(self):
        self.settings_for("tcp://127.0.0.1:9")
        self.append("")
        write_file("zipped", gzip.compress(b"x"))
        os.mkfifo("pipe")
        follow = ["--follow", "--state", "state"]
        for arguments, reason in ((["--follow", self.LOG], "--follow requires --state"),
                                  (["--state", "state", self.LOG], "--state requires --follow"),
                                  (follow + ["--no-pace", self.LOG], "--no-pace excludes --follow"),
                                  (follow + ["-"], "standard input cannot be followed"),
                                  (follow + [self.LOG, "./" + self.LOG], "things.log: given twice"),
                                  (follow + ["zipped"], "zipped: a compressed log does not grow"),
                                  (follow + ["pipe"], "pipe: is not a regular file"),
                                  (follow + [b"th\xffings"], "its name is not UTF-8"),
                                  (follow + ["."], ".: this is a folder, not a log")):
            replay = self.replay(*arguments)
            self.assertEqual(replay.status, 2, replay.stderr)
            self.assertIn(reason, replay.stderr)
        self.assertFalse(os.path.exists("state"))

    def test_state_that_does_not_fit_is_refused_with_what_to_do(self):
        collector = self.collect_for_follow()
        self.append(log_of(2))
        replay = self.follow()
        self.assert_each_once(collector, 2)
        second = self.replay("--follow", "--state", "state", self.LOG)
        self.assertEqual(second.status, 1)
        self.assertIn("state: in use by another 'replay --follow'", second.stderr)
        self.stop_follow(replay)
        good = read_file("state")
        for content, log, reason in (
                (good[:-20], self.LOG, "state: damaged, or no state of 'replay --follow'"),
                ("", self.LOG, "state: damaged"), ("[]", self.LOG, "state: damaged"),
                (good, "other.log", "state: holds positions of other logs (")):
            write_file("state", content)
            replay = self.replay("--follow", "--state", "state", log)
            self.assertEqual(replay.status, 1)
            self.assertIn(reason, replay.stderr)
            self.assertIn("; to send the logs from their start (again), remove it", replay.stderr)
            self.assertEqual(read_file("state"), content)
        # A further log is new. A file that was replaced by a longer one is another file.
        write_file("state", good)
        write_file("new.log", log_of(4, "new").replace("\tC", "\tD"))
        write_file(self.LOG, log_of(9).replace("\tC", "\tE"))
        replay = self.follow(self.LOG, "new.log")
        wait_for(lambda: len(collector.lines()) >= 15, "the others")
        said = self.stop_follow(replay)
        self.assertIn("new.log: not in state yet: it is read from its start\n", said)
        self.assertIn("things.log: is not the file that was read before", said)
        self.assertEqual(self.uids(collector, 15), collections.Counter(
            ["C0", "C1"] + ["D%d" % n for n in range(4)] + ["E%d" % n for n in range(9)]))


if __name__ == "__main__":
    unittest.main()
