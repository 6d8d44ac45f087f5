"""zmqwriter collect --to: events in a stream of NATS JetStream, and what keeps them from it."""

import json
import os
import re
import signal
import time
import unittest

from cli_support import CliTest, framed, make_event, needs_zmq, read_file, wait_for, write_file
from curve_client import sodium
from nats_support import (NatsCluster, NatsError, NatsServer, make_certificates, make_credentials,
                          needs_nats)

AGAIN = "the engine takes events again"


def users(subjects=None):
    """A configuration with the user root and, with the subjects that he may publish, the user me."""
    me = (f'{{ user: me, password: secret, permissions: {{ publish: {subjects}, subscribe: ">" }} }}, '
          if subjects else "")
    return f"authorization {{ users: [ {me}{{ user: root, password: secret }} ] }}\n"


def uid_of(payload):
    return re.search(rb"C\d+", payload).group()


class StreamCase(CliTest):
    def server(self, config="", **options):
        server = NatsServer(".", config, **options)
        self.addCleanup(server.kill)
        return server.start()

    def cluster(self):
        cluster = NatsCluster(".")
        self.addCleanup(cluster.kill)
        return cluster.start()

    def collect_to(self, url, *arguments, create="replicas=1"):
        """A collector that publishes, and shows itself over HTTP."""
        arguments += ("--create-stream", create) if create else ()
        return self.collect("--to", url, "--metrics", "127.0.0.1:0", *arguments)

    def figures(self, collector):
        return json.loads(self.get(collector, "status.json")[1])["stream"]

    def await_trouble(self, collector, trouble):
        wait_for(lambda: self.figures(collector)["trouble"] == trouble, f"trouble {trouble}")

    def send(self, collector, first, last, **event):
        """Events C<first> to C<last - 1>."""
        agent = self.agent(collector.endpoint)
        for number in range(first, last):
            agent.send(make_event(b"C%d" % number, **event))

    def await_stored(self, server, count, **login):
        """Waits until the events C0 to C<count - 1> are in the stream; gives its messages."""
        def stored():
            try:
                with server.client(**login) as client:
                    messages = list(client.messages("zmqwriter"))
                    return messages if len(messages) >= count else None
            except (TimeoutError, NatsError):  # a cluster has no leader
                return None
        messages = wait_for(stored, f"{count} events")
        uids = [uid_of(payload) for _, _, payload in messages]
        self.assertEqual(sorted(uids), sorted(b"C%d" % number for number in range(count)))
        return messages

    def warnings(self, collector):
        return collector.stderr.count("warning: the engine takes no events")


@needs_zmq
@needs_nats
class StreamTest(StreamCase):
    def test_each_event_is_one_message_with_an_id_of_its_own(self):
        tokens = {b"probe-1_x": "probe-1_x", b"": "_", b"_": "%5F", b"a.b *>": "a%2Eb%20%2A%3E",
                  "ö".encode(): "%C3%B6", b"x" * 300: "x" * 255, None: "_"}
        server, prefix, ids = self.server(), "one.two", set()
        for number, form in enumerate(("raw", "json")):
            events = [make_event(b"C%d" % n, agent=agent) for n, agent in enumerate(tokens)]
            collector = self.collect_to(server.url, "--prefix", prefix, "--format", form,
                                        "--output", "file", "--count", str(len(events)))
            agent = self.agent(collector.endpoint)
            for event in events:
                agent.send(event)
            self.assertEqual(collector.wait(), 0, collector.stderr)
            decoded = self.run_tool("decode", stdin=framed(*events)).stdout.splitlines()
            with server.client() as client:
                stored = list(client.messages("one-two", 1 + number * len(events)))
            self.assertEqual([subject for subject, _, _ in stored],
                             [f"{prefix}.Tn5250Data.{token}" for token in tokens.values()])
            self.assertEqual([payload for _, _, payload in stored],
                             events if form == "raw" else decoded)
            self.assertEqual(read_file("file", "rb"), framed(*events) if form == "raw"
                             else b"".join(line + b"\n" for line in decoded))
            ids |= {headers["Nats-Msg-Id"] for _, headers, _ in stored}
        self.assertEqual(len(ids), 2 * len(tokens))

    def test_a_stream_is_made_only_on_request_and_never_changed(self):
        server = self.server()

        def collect(*arguments):
            return self.run_collect("--to", server.url, "--timeout", "0.01", *arguments)
        missing = collect()
        self.assertEqual(missing.returncode, 1)
        self.assertIn("no stream takes the subjects 'zmqwriter.>'; make one with --create-stream",
                      missing.stderr)
        limits = "replicas=1,max-age=7d,max-bytes=10M,max-msgs=9"
        self.assertIn("cannot make the stream: replicas",
                      collect("--create-stream", "replicas=3").stderr)
        made = collect("--create-stream", limits)
        self.assertEqual((made.returncode, "made the stream zmqwriter" in made.stderr), (0, True))
        with server.client() as client:
            config = client.stream("zmqwriter")["config"]
            self.assertEqual(
                [config[name] for name in ("subjects", "retention", "discard", "storage", "max_age",
                                           "max_bytes", "max_msgs", "num_replicas")],
                [["zmqwriter.>"], "limits", "new", "file", 7 * 86400 * 10 ** 9, 10 << 20, 9, 1])
            for create, warned in ((limits, []), ("replicas=3", ["replicas=1, not 3", "max-age",
                                                                 "max-bytes", "max-msgs"])):
                again = collect("--create-stream", create)
                self.assertEqual(again.returncode, 0)
                self.assertEqual(again.stderr.count("warning: "), len(warned), again.stderr)
                for words in warned:
                    self.assertIn(words, again.stderr)
                self.assertEqual(client.stream("zmqwriter")["config"], config)
            client.delete_stream("zmqwriter")
            client.make_stream("other", subjects=["zmqwriter.>"], retention="interest",
                               storage="memory", discard="old", max_msgs=5)
            client.change_stream("other", subjects=["zmqwriter.HttpData.>"])
            for words in ("retention interest", "deletes its oldest", "not on disk",
                          "other takes only some of the subjects 'zmqwriter.>': events that no"):
                self.assertIn(words, collect("--create-stream").stderr)

    def test_what_keeps_it_from_connecting_is_named(self):
        make_certificates()
        write_file("user", "me\nsecret\n")
        write_file("wrong", "me\nother\n")
        write_file("token", "abc\n")
        for secret in ("user", "wrong", "token"):
            os.chmod(secret, 0o600)
        tls = ("tls {{ cert_file: server.pem, key_file: server.key, ca_file: ca.pem, verify: {}, "
               "timeout: 60 }}\n")
        login = 'authorization { user: me, password: secret }\n'
        ca, own = ["--nats-ca", "ca.pem"], ["--nats-cert", "client.pem", "--nats-key", "client.key"]
        other = ["--nats-cert", "other-client.pem", "--nats-key", "other-client.key"]
        mixed = ["--nats-cert", "client.pem", "--nats-key", "other-client.key"]
        servers = {
            "plain": self.server(name="plain"),
            "login": self.server(login, name="login"),
            "token": self.server('authorization { token: abc }\n', name="tokens"),
            "tls": self.server(tls.format("false"), name="tls"),
            "both": self.server(tls.format("true"), name="both"),
            "no-js": self.server(name="no-js", jetstream=False),
            "frozen": self.server(name="frozen"), "gone": self.server(name="gone")}
        servers["frozen"].freeze()
        servers["gone"].kill()
        for server, arguments, status, words in (
                ("login", [], 1, "look at --nats-user"),
                ("login", ["--nats-user", "wrong"], 1, "look at --nats-user"),
                ("login", ["--nats-user", "token"], 1, "token: must hold a user's name"),
                ("login", ["--nats-user", "user"], 0, ""),
                ("token", ["--nats-token", "token"], 0, ""),
                ("token", ["--nats-token", "none"], 1, "none"),
                ("token", ["--nats-creds", "token"], 1, "token"),
                ("plain", ca, 1, "the server has no TLS"),
                ("tls", ca, 0, ""),
                ("tls", ["--nats-ca", "other-ca.pem"], 1, "look at --nats-ca"),
                ("tls", ["--nats-ca", "none"], 1, "none: cannot be read: No such file"),
                ("tls", ["--nats-ca", "user"], 1, "user: "),
                ("both", ca + own, 0, ""),
                ("both", ca, 1, "it may want another certificate (--nats-cert)"),
                ("both", ca + other, 1, "it may want another certificate (--nats-cert)"),
                ("both", ca + mixed, 1, "key values mismatch"),
                ("no-js", [], 1, "start the servers with --jetstream"),
                ("frozen", [], 0, "warning: the engine takes no events: cannot connect to nats://127"),
                ("frozen", [], 0, "no answer within 2 s"),
                ("gone", [], 0, "does not answer; receiving pauses when")):
            with self.subTest(server=server, arguments=arguments):
                result = self.run_collect("--create-stream", "--timeout", "0.01", "--to",
                                          servers[server].url, *arguments)
                self.assertEqual((result.returncode, words in result.stderr), (status, True),
                                 result.stderr)
                for secret in ("secret", "other", "abc"):
                    self.assertNotRegex(result.stderr, rf"\b{secret}\b(?![-.])")

    @unittest.skipUnless(sodium, "needs libsodium")
    def test_a_file_of_credentials_lets_in_and_that_of_others_does_not(self):
        server = self.server(make_credentials("mine"))
        make_credentials("other")
        for arguments, status, words in (([], 1, "look at --nats-user"), (["--nats-creds", "mine"], 0, ""),
                                         (["--nats-creds", "other"], 1, "look at --nats-user")):
            result = self.run_collect("--create-stream", "--timeout", "0.01", "--to", server.url,
                                      *arguments)
            self.assertEqual((result.returncode, words in result.stderr), (status, True), result.stderr)

    def test_what_one_server_refuses_counts_more_than_that_others_are_away(self):
        write_file("wrong", "me\nother\n")
        os.chmod("wrong", 0o600)
        server = self.server(users(), name="there")
        gone = [self.server(name=f"gone{number}") for number in range(3)]
        for other in gone:
            other.kill()
        result = self.run_collect("--timeout", "0.01", "--nats-user", "wrong", "--to",
                                  ",".join(each.url for each in (*gone, server)))
        self.assertEqual((result.returncode, "look at --nats-user" in result.stderr), (1, True),
                         result.stderr)

    def test_it_starts_without_the_engine_and_goes_on_when_that_is_there(self):
        server = self.server()
        server.kill()
        collector = self.collect_to(server.url, "--window", "3")
        self.assertEqual(self.figures(collector)["trouble"], "connection_lost")
        self.assertEqual(self.get(collector, "healthz")[0], 503)
        self.send(collector, 0, 5)
        wait_for(lambda: self.figures(collector)["stalled_s"] > 1, "a full window")
        self.assertEqual(self.figures(collector)["window"]["events"], 3)
        self.assertEqual(self.warnings(collector), 1, collector.stderr)
        server.start()
        self.await_stored(server, 5)
        wait_for(lambda: self.figures(collector)["trouble"] is None, "the end of the trouble")
        self.assertEqual(self.get(collector, "healthz")[0], 200)
        self.assertEqual(self.figures(collector)["reconnections"], 0)
        self.assertIn("made the stream zmqwriter", collector.stderr)
        self.end(collector, 0, AGAIN)

    def test_it_starts_without_the_engine_and_reports_what_is_wrong_there_later(self):
        write_file("user", "me\nsecret\n")
        os.chmod("user", 0o600)
        server = self.server(users())
        server.kill()
        collector = self.collect_to(server.url, "--nats-user", "user", create=None)
        self.send(collector, 0, 5)
        server.start()
        self.await_trouble(collector, "not_authorised")
        server.reload(users('["$JS.API.>", "zmqwriter.>"]'))
        self.await_trouble(collector, "no_stream")
        root = {"user": "root", "pass": "secret"}
        with server.client(**root) as client:
            client.make_stream("zmqwriter", subjects=["zmqwriter.>"])
        self.await_stored(server, 5, **root)
        wait_for(lambda: self.figures(collector)["trouble"] is None, "the end of the trouble")
        self.end(collector, 0, AGAIN)

    def test_it_starts_while_a_cluster_has_no_majority(self):
        cluster = self.cluster()
        with cluster.servers[0].client() as client:
            client.make_stream("zmqwriter", subjects=["zmqwriter.>"], num_replicas=3)
        cluster.kill()
        cluster.servers[0].start()
        collector = self.collect_to(cluster.url, create="replicas=3")
        self.assertEqual(self.figures(collector)["trouble"], "no_quorum")
        self.send(collector, 0, 5)
        cluster.start()
        self.await_stored(cluster.servers[0], 5)
        wait_for(lambda: self.figures(collector)["trouble"] is None, "the end of the trouble")
        self.end(collector, 0, AGAIN)

    def test_it_ends_without_an_engine_that_never_was_there(self):
        server = self.server()
        server.kill()
        files = ["--drain", "0.2", "--unsent", "unsent"]
        collector = self.collect_to(server.url, *files)
        self.send(collector, 0, 2)
        wait_for(lambda: self.figures(collector)["window"]["events"] == 2, "the window")
        self.end(collector, 0, "2 events were not acknowledged: they are in unsent")
        # Also with more in the file than the window takes.
        again = self.collect_to(server.url, "--window", "1", *files)
        self.end(again, 0, "2 events were not acknowledged: they are in unsent")

    def test_the_engine_may_stop_and_come_back(self):
        server = self.server()
        collector = self.collect_to(server.url)
        server.kill()  # before there is anything to publish
        server.start()
        wait_for(lambda: self.figures(collector)["reconnections"] == 1, "the connection")
        self.send(collector, 0, 200)
        self.await_stored(server, 200)
        server.kill()
        self.send(collector, 200, 400)
        self.await_trouble(collector, "connection_lost")
        self.assertEqual(self.get(collector, "healthz")[0], 503)
        self.assertIn('zmqwriter_collect_stream_trouble{reason="connection_lost"} 1',
                      self.get(collector, "metrics")[1])
        wait_for(lambda: self.figures(collector)["window"]["events"] == 200, "the window")
        server.start()
        self.await_stored(server, 400)
        wait_for(lambda: self.figures(collector)["trouble"] is None, "the end of the trouble")
        figures = self.figures(collector)
        self.assertEqual((figures["acknowledged"], figures["window"]["events"],
                          figures["reconnections"], figures["oldest_s"]), (400, 0, 2, 0))
        self.assertEqual(figures["servers"], [{"url": server.url, "connected": True}])
        self.assertEqual(self.get(collector, "healthz")[0], 200)
        self.assertIn("zmqwriter_collect_stream_acknowledged_total 400",
                      self.get(collector, "metrics")[1])
        self.end(collector, 0, AGAIN)
        self.assertEqual(self.warnings(collector), 1, collector.stderr)

    def test_a_full_window_stops_receiving(self):
        server = self.server()
        for number, window in enumerate(("10", "1000,1M")):
            collector = self.collect_to(server.url, "--prefix", f"p{number}", "--window", window)
            server.kill()
            self.await_trouble(collector, "connection_lost")
            sent = self.send_until_it_blocks(
                self.agent(collector.endpoint, sndhwm=1),
                (make_event(b"C%d" % n, details=b"x" * 100000) for n in range(1000)),
                lambda: self.figures(collector)["window"]["events"] == 10 + number)
            wait_for(lambda: self.figures(collector)["stalled_s"] > 1, "the time of the stall")
            server.start()
            with server.client() as client:
                wait_for(lambda: client.stream(f"p{number}")["state"]["messages"] == sent,
                         "all events")
            self.end(collector)

    def full_window(self, server, *arguments):
        """A collector whose window is full, with two further events on the way to it."""
        collector = self.collect_to(server.url, "--window", "3", "--drain", "0.2", "--unsent", "unsent",
                                    *arguments)
        server.kill()
        self.send(collector, 0, 5)
        return collector

    def test_count_ends_it_when_the_window_is_full(self):
        collector = self.full_window(self.server(), "--count", "4")
        self.assertEqual(collector.wait(), 0, collector.stderr)
        self.assertIn("4 events were not acknowledged: they are in unsent", collector.stderr)

    def test_a_time_out_ends_it_when_the_window_is_full(self):
        collector = self.full_window(self.server(), "--timeout", "2")
        self.assertEqual(collector.wait(), 0, collector.stderr)
        self.assertIn("5 events were not acknowledged: they are in unsent", collector.stderr)

    def test_a_full_disk_ends_it_when_the_window_is_full(self):
        self.mount_disk(90)
        collector = self.full_window(self.server(), "--output", "disk/file", "--exit-on-full")
        wait_for(lambda: self.figures(collector)["stalled_s"] > 0, "the full window")
        write_file("disk/other", bytes(24 << 20))
        self.assertEqual(collector.wait(), 1, collector.stderr)
        self.assertIn("MiB are free", collector.stderr)
        self.assertIn("5 events were not acknowledged: they are in unsent", collector.stderr)

    def test_what_the_engine_did_not_take_is_published_first_by_the_next_run(self):
        server = self.server()
        files = ["--unsent", "unsent", "--drain", "0.2"]
        collector = self.collect_to(server.url, *files)
        server.kill()
        events = [make_event(b"C%d" % number) for number in range(50)]
        agent = self.agent(collector.endpoint)
        for event in events:
            agent.send(event)
        wait_for(lambda: self.figures(collector)["window"]["events"] == 50, "the window")
        self.end(collector, 0, "50 events were not acknowledged: they are in unsent")
        self.assertEqual(os.stat("unsent").st_mode & 0o777, 0o600)
        self.assertEqual(self.run_tool("decode", "unsent").stdout,
                         self.run_tool("decode", stdin=framed(*events)).stdout)
        kept = read_file("unsent", "rb")
        ids = [kept[at + 4 + len(event):][:33].decode() for at, event in zip(
            range(0, len(kept), 4 + len(events[0]) + 33), events)]
        os.mkdir("unsent.new")
        collector = self.collect_to(server.url, *files)
        self.send(collector, 50, 53)
        wait_for(lambda: self.figures(collector)["window"]["events"] == 53, "the window")
        self.end(collector, 1, "zmqwriter: 3 of the events received did not get out")
        self.assertEqual(read_file("unsent", "rb"), kept)
        os.rmdir("unsent.new")
        server.start()
        with server.client() as client:  # as if its acknowledgement had been lost
            client.request("zmqwriter.Tn5250Data._", events[7], headers={"Nats-Msg-Id": ids[7]})
        collector = self.collect_to(server.url, "--window", "7", *files)
        self.assertFalse(os.path.exists("unsent.new"))
        self.send(collector, 50, 60)
        messages = self.await_stored(server, 60)
        wait_for(lambda: not os.path.exists("unsent"), "the end of the file")
        stored = [headers["Nats-Msg-Id"] for _, headers, _ in messages]
        self.assertEqual(stored[:50], [ids[7]] + ids[:7] + ids[8:])
        wait_for(lambda: self.figures(collector)["acknowledged"] == 60, "all answers")
        self.assertEqual(self.figures(collector)["stored_before"], 1)
        self.end(collector, 0, "unsent: published and removed")

    def test_an_end_without_the_engine(self):
        server = self.server()
        os.mkdir("c.new")
        for prefix, files, kill, status, words in (
                ("a", ["--drain", "0.2"], True, 1, "with --unsent FILE they would have been kept"),
                ("b", ["--drain", "0.2"], False, 1, "3 of the events received did not get out"),
                ("c", ["--drain", "0.2", "--unsent", "c"], False, 1, "c.new: cannot be made"),
                ("d", ["--drain", "0.2", "--unsent", "d"], False, 0, "they are in d")):
            with self.subTest(prefix=prefix):
                collector = self.collect_to(server.url, "--prefix", prefix, *files)
                (server.kill if kill else server.freeze)()
                self.send(collector, 0, 3)
                wait_for(lambda: self.figures(collector)["window"]["events"] == 3, "the window")
                begin = time.monotonic()
                self.end(collector, status, words)
                self.assertLess(time.monotonic() - begin, 10, "as long as without --drain")
                (server.start if kill else server.thaw)()

    def test_a_stop_with_a_full_window_loses_nothing_and_waits_once(self):
        server = self.server()
        for drain, status in (("60", "events: 600 ("), ("0.5", "600 events were not acknowledged")):
            with self.subTest(drain=drain):
                collector = self.collect_to(server.url, "--prefix", "p" + drain[0], "--window", "5",
                                            "--drain", drain, "--unsent", "unsent")
                server.freeze()
                self.send(collector, 0, 600)
                wait_for(lambda: self.figures(collector)["window"]["events"] == 5, "the window")
                begin = time.monotonic()
                collector.popen.terminate()
                for cycle in range(1, 1000):
                    time.sleep(0.12)
                    if collector.popen.poll() is not None:
                        break
                    if drain == "60":  # a little room at many moments
                        server.thaw()
                        time.sleep(0.002 * cycle)
                        server.freeze()
                server.thaw()
                self.assertEqual(collector.wait(), 0, collector.stderr)
                self.assertIn(status, collector.stderr)
                self.assertLess(time.monotonic() - begin, 55, "as long as once for each window")

    def test_a_second_signal_ends_the_wait_and_keeps_the_events(self):
        server = self.server()
        collector = self.collect_to(server.url, "--drain", "1e300", "--unsent", "unsent")
        server.kill()
        self.send(collector, 0, 5)
        wait_for(lambda: self.figures(collector)["window"]["events"] == 5, "the window")
        for _ in range(2):  # as when a terminal is closed
            self.assertIsNone(collector.popen.poll(), collector.stderr)
            collector.signal(signal.SIGHUP)
        self.assertEqual(collector.wait(), 0, collector.stderr)
        self.assertIn("5 events were not acknowledged: they are in unsent", collector.stderr)

    def test_a_second_signal_ends_the_wait_for_a_file_and_the_stream_has_the_events(self):
        server = self.server()
        collector = self.collect_to(server.url, "--output", "/dev/full")
        self.send(collector, 0, 1)
        wait_for(lambda: self.get(collector, "healthz")[0] == 503, "the full disk")
        collector.popen.terminate()
        wait_for(lambda: "stopping: the output has 30 s more" in collector.stderr, "the wait")
        begin = time.monotonic()
        self.end(collector, 1, "1 of the events received did not get out this way")
        self.assertLess(time.monotonic() - begin, 30)
        self.await_stored(server, 1)

    def test_a_file_of_unsent_events_that_is_of_no_use_is_left_alone(self):
        """None of them, and one where those of another collector would be replaced."""
        server = self.server()
        write_file("unsent", framed(b"anything"))
        os.mkdir("folder")
        self.collect_to(server.url, "--unsent", "used")
        for file, words in (("unsent", "is not a file of unsent events"),
                            ("folder", "is not a file of unsent events"),
                            ("no/folder", "no/folder.lock: cannot be made"),
                            ("used", "used: in use by another collector")):
            result = self.run_collect("--to", server.url, "--unsent", file, "--timeout", "0.1")
            self.assertEqual((result.returncode, words in result.stderr), (1, True), result.stderr)
        self.assertEqual(read_file("unsent", "rb"), framed(b"anything"))
        write_file("user", "name\nsecret\n")
        result = self.run_collect("--to", server.url, "--nats-user", "user", "--output", "./user")
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("./user: is a file of keys, so it cannot be the output", result.stderr)

    def test_an_event_that_is_too_large_is_dropped_and_the_others_are_not(self):
        """Before and after the collector can know: by the server's limit, and by the stream's."""
        server = self.server("max_payload: 20000\n")
        collector = self.collect_to(server.url)
        with server.client() as client:
            client.change_stream("zmqwriter", max_msg_size=10000)
        agent = self.agent(collector.endpoint)
        for number, size in enumerate((1, 15000, 1, 30000, 1)):
            agent.send(make_event(b"D%d" % number if size > 1 else b"C%d" % (number // 2),
                                  details=b"x" * size))
        self.await_stored(server, 3)
        wait_for(lambda: self.figures(collector)["too_large"] == 2, "the large events")
        wait_for(lambda: self.figures(collector)["window"]["events"] == 0, "the others")
        self.end(collector, 1, "2 of the events received did not get out")

    def test_each_trouble_is_named_reported_once_and_over_when_its_cause_is(self):
        """The cause, what is reported, and the cure."""
        def permit(subjects):
            return users(f'["$JS.API.>", {subjects}]')
        write_file("user", "me\nsecret\n")
        os.chmod("user", 0o600)
        root = {"user": "root", "pass": "secret"}
        server = self.server(permit('"zmqwriter.>"'))

        def with_client(action, *arguments, **options):
            def act():
                with server.client(**root) as client:
                    getattr(client, action)(*arguments, **options)
            return act

        def start_again(jetstream):
            server.kill()
            server.configure(permit('"zmqwriter.>"'), jetstream)
            server.start()
        with server.client(**root) as client:
            client.make_stream("zmqwriter", subjects=["zmqwriter.>"], discard="new", max_msgs=20)
        collector = self.collect_to(server.url, "--nats-user", "user", create=None)
        for number, (trouble, cause, cure) in enumerate((
                (None, lambda: None, lambda: None),
                ("full", lambda: None,
                 with_client("change_stream", "zmqwriter", max_msgs=1000)),
                ("no_stream", with_client("change_stream", "zmqwriter", subjects=["elsewhere"]),
                 with_client("change_stream", "zmqwriter", subjects=["zmqwriter.>"])),
                ("not_authorised", lambda: server.reload(permit('"elsewhere"')),
                 lambda: server.reload(permit('"zmqwriter.>"'))),
                ("not_authorised",
                 lambda: server.reload(users()),
                 lambda: server.reload(permit('"zmqwriter.>"'))),
                ("other", lambda: start_again(False), lambda: start_again(True)),
                ("connection_lost", server.kill, server.start))):
            with self.subTest(number=number, trouble=trouble):
                cause()
                self.send(collector, 20 * number, 20 * number + 20)
                if trouble:
                    self.await_trouble(collector, trouble)
                cure()
                self.await_stored(server, 20 * number + 20, **root)
                wait_for(lambda: collector.stderr.count(AGAIN) == number, "the end of trouble")
                wait_for(lambda: self.figures(collector)["trouble"] is None, "its end in figures")
                # A server that starts anew may be missed meanwhile, too.
                warned = [line for line in collector.stderr.splitlines() if "warning: " in line and
                          "the connection is lost" not in line]
                self.assertEqual(len(warned), min(number, 5), collector.stderr)
        self.assertIn("warning: the engine takes no events: the connection is lost", collector.stderr)
        figures = self.figures(collector)
        for trouble in ("full", "no_stream", "not_authorised"):
            self.assertGreater(figures["refused"][trouble], 0, trouble)
        self.assertEqual((figures["acknowledged"], figures["window"]["events"]), (140, 0))
        self.end(collector)

    def test_a_cluster_without_its_majority(self):
        """Only in a cluster can the engine be there and not able to store."""
        cluster = self.cluster()
        collector = self.collect_to(cluster.url, create="replicas=3")
        self.send(collector, 0, 20)
        self.await_stored(cluster.servers[0], 20)
        connected = next(each["url"] for each in self.figures(collector)["servers"]
                         if each["connected"])
        for server in cluster.servers:
            if server.url != connected:
                server.kill()
        self.send(collector, 20, 40)
        self.await_trouble(collector, "no_quorum")
        cluster.start()
        self.await_stored(cluster.servers[0], 40)
        wait_for(lambda: self.figures(collector)["trouble"] is None, "the end of the trouble")
        self.assertEqual(self.warnings(collector), 1, collector.stderr)
        self.assertEqual(len(self.figures(collector)["servers"]), 3)
        self.end(collector)

    def test_a_subject_that_is_not_allowed_holds_no_other_up(self):
        server = self.server(users('["$JS.API.>", "zmqwriter.Tn5250Data._"]'))
        write_file("user", "me\nsecret\n")
        collector = self.collect_to(server.url, "--nats-user", "user", "--drain", "0.1", "--unsent",
                                    "unsent")
        login = {"user": "me", "pass": "secret"}
        agent = self.agent(collector.endpoint)
        agent.send(make_event(b"X1", agent=b"other"))
        self.await_trouble(collector, "not_authorised")
        agent.send(make_event(b"X2", agent=b"other"))
        self.send(collector, 0, 20)
        self.await_stored(server, 20, **login)
        self.assertEqual(self.figures(collector)["trouble"], "not_authorised")
        self.assertEqual(self.warnings(collector), 1, collector.stderr)
        with server.client(user="root", **{"pass": "secret"}) as client:  # then another trouble
            client.change_stream("zmqwriter", subjects=["elsewhere"])
        server.reload(users('["$JS.API.>", "zmqwriter.>"]'))
        self.await_trouble(collector, "no_stream")
        self.end(collector, 0, "2 events were not acknowledged: they are in unsent")


if __name__ == "__main__":
    unittest.main()
