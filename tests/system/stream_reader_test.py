"""zmqwriter decode --from and check --to, with real servers of NATS JetStream."""

import array
import fcntl
import json
import os
import random
import signal
import termios
import time
import unittest

from cli_support import CliTest, framed, make_event, needs_zmq, read_file, wait_for, write_file
from nats_support import NatsCluster, NatsServer, needs_nats


def uids(text):
    """Of whole lines; a killed reader may leave a part of one."""
    return [json.loads(line)["uid"] for line in text.split("\n")[:-1]]


@needs_zmq
@needs_nats
class StreamTestCase(CliTest):
    def serve(self, server=None, user=None, **stream):
        self.server = (server or NatsServer(".")).start()
        self.addCleanup(self.server.kill)
        self.client = self.connect(**user or {})
        if user is None:
            self.make_stream(**stream)

    def connect(self, **options):
        """To any server of a cluster that runs."""
        for server in getattr(self.server, "servers", [self.server]):
            if server.process:
                client = server.client(**options)
                self.addCleanup(client.close)
                return client

    def make_stream(self, **stream):
        self.client.make_stream("events", **{"subjects": ["zmqwriter.>"], **stream})

    def publish(self, *numbers, kind="Tn5250Data"):
        """Events that have the numbers as uid."""
        for number in numbers:
            self.client.request("zmqwriter.%s.a%d" % (kind, number % 3),
                                make_event(uid=b"%d" % number, agent=b"a"))
        return wait_for(lambda: self.client.stream("events"), "the stream")["state"]["last_seq"]

    def decode(self, *arguments):
        return self.run_tool("decode", "--from", self.server.url, *arguments)

    def follow(self, *arguments, file=None):
        with open(file or os.devnull, "ab") as out:
            return self.start("decode", "--from", self.server.url, "--follow", *arguments,
                              **({"stdout": out} if file else {}))

    def make_durable(self, name, **config):
        self.client.request("$JS.API.CONSUMER.DURABLE.CREATE.events.%s" % name, {
            "stream_name": "events", "config": {
                "durable_name": name, "ack_policy": "explicit", "deliver_policy": "all",
                "filter_subject": "zmqwriter.>", "max_deliver": -1, "replay_policy": "instant",
                **config}})

    def durable(self, name):
        return self.client.request("$JS.API.CONSUMER.INFO.events." + name)


class StreamReadTest(StreamTestCase):
    def test_what_is_in_the_stream_is_printed_as_from_a_file(self):
        self.serve()
        big = [make_event(uid=b"big", details=b"x" * 1000000)] * 20
        events = [make_event(uid=b"%d" % n, details=b"\xff \n") for n in range(1000)]
        for event in events + big:
            self.client.publish("zmqwriter.Tn5250Data._", event)
        self.publish()
        raw = self.decode("--format", "raw")
        self.assertEqual((raw.returncode, raw.stderr, raw.stdout),
                         (0, "", framed(*events, *big)))
        for options in ((), ("--json-bytes", "base64")):
            self.assertEqual(self.decode(*options).stdout,
                             self.run_tool("decode", *options, stdin=raw.stdout).stdout)
        text = self.decode("--format", "text").stdout
        self.assertEqual(text.count(b"\n"), 1020)
        self.assertIn(b'details="', text)

    def test_subject_and_time_choose_events(self):
        self.serve()
        self.publish(1, 2)
        between = int(time.time()) + 1  # a time is given in whole seconds
        wait_for(lambda: time.time() > between + 0.25, "the next second")
        self.publish(3, 4, kind="HttpData")

        def iso(seconds, form="%Y-%m-%dT%H:%M:%SZ"):
            return time.strftime(form, time.gmtime(between + seconds))
        environment = dict(os.environ, TZ="Etc/GMT-5")  # 5 hours ahead
        for arguments, expected in (
                (["--subject", "zmqwriter.HttpData.>"], "34"), (["--subject", "zmqwriter.*.a1"], "14"),
                (["--since", "1h"], "1234"), (["--since", "2d"], "1234"),
                (["--since", iso(0)], "34"), (["--since", iso(3600)], ""),
                (["--since", iso(7200, "%Y-%m-%dT%H:%M:%S.25+02:00")], "34"),
                (["--since", iso(5 * 3600 - 3600, "%Y-%m-%dT%H:%M")], "1234"),
                (["--since", iso(5 * 3600 + 3600, "%Y-%m-%dT%H:%M")], ""),
                (["--since", iso(-86400, "%Y-%m-%d")], "1234")):
            result = self.run_tool("decode", "--from", self.server.url, *arguments, env=environment)
            self.assertEqual(("".join(uids(result.stdout.decode())), result.stderr), (expected, ""),
                             arguments)
        for wrong in ("", "7", "-1h", "2h3", "2026", "2026-02-30", "2026-01-01T25:00", "2026-01-01Z1",
                      "2026-01-01T10:00:99", "1900-01-01", "2h "):
            result = self.decode("--since", wrong)
            self.assertEqual(result.returncode, 2, wrong)
            self.assertIn("must be a time", result.stderr)

    def test_no_event_is_reported_with_its_number_and_never_comes_again(self):
        self.serve()
        self.publish(1)
        self.client.publish("zmqwriter.X.y", b"no event")
        self.client.publish("zmqwriter.X.y", b'{"uid":"2",')
        self.publish(3)
        result = self.decode("--durable", "d")
        self.assertEqual((result.returncode, uids(result.stdout.decode())), (1, ["1", "3"]))
        self.assertRegex(result.stderr, r"^stream events: sequence 2: .*\n"
                         r"stream events: sequence 3: .*\nstream events: 2 messages are no event\n$")
        result = self.decode("--durable", "d")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", ""))

    def test_events_published_as_json_are_printed_as_they_are_or_stay(self):
        self.serve()
        line = b'{"uid":"1","ts":1.0,"data":null}'
        self.client.publish("zmqwriter.X.y", line)
        self.publish()
        for form in ("raw", "text"):
            result = self.decode("--durable", "d", "--format", form)
            self.assertEqual((result.returncode, result.stdout), (1, b""))
            self.assertIn("sequence 1: was published as JSON, which only --format json can print",
                          result.stderr)
        result = self.decode("--durable", "d")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, line + b"\n", ""))

    def test_mistakes_are_named(self):
        account = ('{user: r, password: s, permissions: {publish: ["$JS.API.STREAM.>", '
                   '"$JS.API.CONSUMER.INFO.>", "zmqwriter.>"], subscribe: ">"}}')
        self.serve(NatsServer(".", "authorization { users: [{user: a, password: b}, %s] }\n" % account),
                   {"user": "a", "pass": "b"})
        for name, secret in (("admin", "a\nb\n"), ("reader", "r\ns\n"), ("wrong", "r\nx\n")):
            write_file(name, secret)
        self.client = self.connect(**{"user": "a", "pass": "b"})

        def failed(user, *arguments, status=1):
            result = self.decode("--nats-user", user, *arguments)
            self.assertEqual((result.returncode, result.stdout), (status, b""), result.stderr)
            return result.stderr
        self.assertIn("no stream takes the subjects 'zmqwriter.>'; 'collect --to", failed("admin"))
        self.make_stream()
        self.make_durable("other", filter_subject="zmqwriter.HttpData.>")
        self.make_durable("push", deliver_subject="x")
        self.client.make_stream("x", subjects=["second.>"], retention="workqueue")
        self.assertIn("workqueue): it needs --durable", failed("admin", "--subject", "second.>"))
        self.assertIn("the subjects '>' are in several streams (events, x); name",
                      failed("admin", "--subject", ">"))
        self.assertIn("has the filter 'zmqwriter.HttpData.>', not 'zmqwriter.>'; name another",
                      failed("admin", "--durable", "other"))
        self.assertIn("is not one that gives events on demand", failed("admin", "--durable", "push"))
        self.assertRegex(failed("reader"), "(?i)permissions violation")
        self.assertIn("look at --nats-user", failed("wrong"))
        for arguments in (["--durable", "a.b"], ["file"], ["--format", "xml"]):
            failed("admin", *arguments, status=2)
        self.server.kill()
        self.assertIn("cannot connect to " + self.server.url, failed("admin"))


class StreamDurableTest(StreamTestCase):
    def test_killed_readers_lose_nothing_and_share_the_work(self):
        self.serve()
        # Long enough for a slow reader, whose events must not go to another one.
        self.make_durable("d", ack_wait=8 * 10**9, max_ack_pending=10000)
        names, readers, kills = [], [], 0
        seed = random.randrange(1 << 32)
        print("seed", seed)
        chance = random.Random(seed)

        def start():
            names.append("out%d" % len(names))
            readers.append(self.follow("--durable", "d", file=names[-1]))
        for _ in range(3):
            start()
        sent = 0
        while kills < 12 or sent < 30000:
            self.publish(*range(sent, sent + 1000))
            sent += 1000
            victim = readers.pop(chance.randrange(3))
            time.sleep(chance.random() / 20)
            victim.popen.kill()
            victim.wait()
            kills += 1
            start()
        rest = self.decode("--durable", "d")  # ends when the others have acknowledged, too
        self.assertEqual((rest.returncode, rest.stderr), (0, ""))
        state = self.durable("d")
        self.assertEqual((state["num_pending"], state["num_ack_pending"]), (0, 0))
        for reader in readers:
            reader.popen.terminate()
            self.assertEqual((reader.wait(), reader.stderr), (0, ""))
        got = [uids(read_file(name)) for name in names] + [uids(rest.stdout.decode())]
        numbers = sorted(int(uid) for part in got for uid in part)
        self.assertEqual(sorted(set(numbers)), list(range(sent)))
        self.assertLessEqual(len(numbers) - sent, kills * 256)
        self.assertGreaterEqual(sum(1 for part in got if part), 3)

    def test_nothing_is_acknowledged_before_it_is_written(self):
        self.serve()
        self.publish(*range(5000))
        self.make_durable("d", ack_wait=1500000000)
        arguments = ["decode", "--from", self.server.url, "--durable", "d"]
        read_end, write_end = os.pipe()
        reader = self.start(*arguments, stdout=write_end)
        os.close(write_end)
        # Nobody reads the pipe, so the reader writes no more when it is full.
        in_pipe = array.array("i", [0])
        wait_for(lambda: fcntl.ioctl(read_end, termios.FIONREAD, in_pipe) == 0 and
                 in_pipe[0] > 60000, "a full pipe")
        acknowledged = wait_for(lambda: self.durable("d")["ack_floor"]["stream_seq"], "the first")
        reader.popen.kill()
        with os.fdopen(read_end) as pipe:
            written = uids(pipe.read())
        self.assertLessEqual(acknowledged, len(written))
        # What finds nobody who reads is given back at once.
        read_end, write_end = os.pipe()
        os.close(read_end)
        reader = self.start(*arguments, stdout=write_end)
        os.close(write_end)
        self.assertEqual(reader.wait(), 1)
        self.assertIn("cannot write the output: Broken pipe", reader.stderr)
        rest = uids(self.decode("--durable", "d").stdout.decode())
        self.assertEqual(sorted({int(uid) for uid in written + rest}), list(range(5000)))

    def test_the_next_run_goes_on(self):
        self.serve()
        self.publish(*range(600))
        self.assertEqual(len(uids(self.decode("--durable", "d").stdout.decode())), 600)
        self.publish(600)
        again = self.decode("--durable", "d", "--since", "1s")
        self.assertEqual(uids(again.stdout.decode()), ["600"])
        self.assertIn("goes on where it was: --since has no effect", again.stderr)
        self.assertEqual(self.durable("d")["config"]["ack_wait"], 30 * 10**9)


class StreamFollowTest(StreamTestCase):
    def test_reading_goes_on_when_the_server_comes_back(self):
        self.serve()
        plain, durable = readers = [self.follow(), self.follow("--durable", "d")]
        sent = 0

        def await_events(numbers):
            for reader in readers:
                wait_for(lambda: set(numbers) <= {int(uid) for uid in uids(reader.stdout)}, "the events")

        def await_words(words):
            for reader in readers:
                wait_for(lambda: words in reader.stderr, words)
        for end in (self.server.kill, self.server.stop, None):
            self.publish(*range(sent, sent + 1000))
            sent += 1000
            await_events(range(sent))
            if end:
                end()
                await_words("warning: reading pauses: ")
                self.server.start()
                self.client = self.connect()
                await_words("reading again\n")
        self.assertEqual(uids(plain.stdout), [str(n) for n in range(sent)])
        self.client.request("$JS.API.CONSUMER.DELETE.events.d")
        wait_for(lambda: "the durable consumer d was removed" in durable.stderr, "the warning")
        self.decode("--durable", "d")  # makes it again
        wait_for(lambda: durable.stderr.count("reading again") == 3, "the consumer")
        self.client.delete_stream("events")
        await_words("no stream takes")
        self.make_stream()
        self.publish(sent)
        await_events(range(sent + 1))
        for reader in readers:
            reader.popen.send_signal(signal.SIGINT)
            self.assertEqual(reader.wait(), 0)

    def test_the_leader_is_killed_while_readers_follow(self):
        self.serve(NatsCluster("."), num_replicas=3)
        self.make_durable("d", ack_wait=2 * 10**9)  # what a dead leader had under way comes again
        readers = [self.follow(), self.follow("--durable", "d")]
        sent = 0
        for _ in range(2):
            self.publish(*range(sent, sent + 1000))
            sent += 1000
            leader = self.server.leader("events")
            leader.kill()
            self.client = self.connect()
            self.server.leader("events")
            wait_for(lambda: len(readers[0].lines()) >= sent, "the events")
            self.server.start()
        wait_for(lambda: len(set(uids(readers[1].stdout))) >= sent, "the events")
        self.assertEqual(uids(readers[0].stdout), [str(n) for n in range(sent)])
        self.assertEqual({int(uid) for uid in uids(readers[1].stdout)}, set(range(sent)))


class EngineCheckTest(StreamTestCase):
    def check(self, *arguments, to=None):
        """The JSON form as a dictionary; the exit status agrees with it."""
        result = self.run_tool("check", "--json", "--to", to or self.server.url, *arguments)
        report = json.loads(result.stdout)
        self.assertEqual((report["ok"], result.stderr), (result.returncode == 0, ""))
        found = [finding["id"] for finding in report["findings"] if finding["severity"] != "note"]
        return found, report["engine"], {one["id"]: one["text"] for one in report["findings"]}

    def test_a_good_stream_is_all_well_and_nothing_is_stored(self):
        self.serve(discard="new", max_bytes=10**7, max_age=10**9 * 86400)
        before = self.publish(1, 2)
        found, engine, texts = self.check()
        self.assertEqual((found, list(texts)), ([], ["large-events"]))
        state = self.client.stream("events")["state"]
        self.assertEqual(state["last_seq"], before)
        self.assertEqual(engine["servers"][0]["ok"], True)
        self.assertEqual(engine["stream"], {
            "name": "events", "replicas": 1, "leader": "", "messages": 2, "bytes": state["bytes"],
            "max_messages": 0, "max_bytes": 10**7, "max_age_s": 86400, "duplicates_s": 120,
            "ages_first": False, "full_in_s": None})
        self.assertEqual((engine["largest_message"], engine["may_publish"]), (1048576, True))
        text = self.run_tool("check", "--to", self.server.url).stdout.decode()
        self.assertIn("All well: 0 errors, 0 warnings, 1 note", text)
        self.assertRegex(text, r"bytes +%d +at most 10000000\n" % state["bytes"])
        self.assertRegex(text, r"may publish +yes\n")

    def test_what_is_wrong_with_the_stream_is_found(self):
        self.serve(None, {})
        self.assertEqual(self.check()[0], ["stream-missing"])
        for config, expected in (
                ({"discard": "old"}, ["stream-may-lose-events"]),
                ({"discard": "new", "storage": "memory", "retention": "workqueue"},
                 ["stream-may-lose-events"] * 2),
                ({"discard": "new", "duplicate_window": 10**9}, ["short-duplicate-window"]),
                ({"discard": "new", "max_msgs": 10}, ["stream-nearly-full"]),
                ({"discard": "new", "subjects": ["zmqwriter.Tn5250Data.>"]},
                 ["stream-takes-some", "publish-fails"]),
                ({"discard": "new", "subjects": ["other", "zmqwriter.*.*"]}, []),
                ({"discard": "new", "max_msgs": 12}, [])):
            self.make_stream(**config)
            self.publish(*range(10))
            self.assertEqual(self.check()[0], expected, config)
            self.client.delete_stream("events")

    def test_each_server_is_tried_and_a_lost_majority_is_named(self):
        self.serve(NatsCluster("."), num_replicas=3, discard="new")
        found, engine, _ = self.check()
        self.assertEqual((found, engine["may_publish"]), ([], True))
        self.assertEqual(engine["stream"]["leader"], self.server.leader("events").name)
        first, second, _ = self.server.servers
        first.kill()
        wait_for(lambda: {"server-not-connected", "replicas-behind"} <= set(self.check()[0]), "the findings")
        second.kill()

        def lost():
            found, engine, _ = self.check()
            named = {"stream-unknown", "stream-without-leader", "publish-fails"} & set(found)
            return engine if named and engine["may_publish"] is not True else None
        engine = wait_for(lost, "the engine to know that it has lost its majority")
        self.assertEqual([server["ok"] for server in engine["servers"]], [False, False, True])

    def test_missing_rights_are_named(self):
        users = ('authorization { users: [{user: a, password: b}, {user: n, password: b, permissions: '
                 '{publish: "$JS.API.>"}}, {user: p, password: b, permissions: '
                 '{publish: "zmqwriter.>"}}] }\n')
        self.serve(NatsServer(".", users), {"user": "a", "pass": "b"})
        self.make_stream(discard="new")
        for user, expected, may in (("a", [], True), ("n", ["publish-not-allowed"], False),
                                    ("p", ["stream-not-shown"], True),
                                    ("x", ["server-not-connected"], None)):
            write_file("user", user + "\nb\n")
            found, engine, texts = self.check("--nats-user", "user")
            self.assertEqual((found, engine["may_publish"]), (expected, may), texts)
        self.assertEqual(self.client.stream("events")["state"]["last_seq"], 0)


if __name__ == "__main__":
    unittest.main()
