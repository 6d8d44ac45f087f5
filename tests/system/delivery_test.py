"""Delivery with the real libzmq, CURVE on the loopback, and servers that are killed and frozen.

The worker runs in the process delivery_writer, each server in a delivery_collector. Every case ends
with an account that must come out to the record:

    written  = received + dropped by the flush + left on disk + given up + lost
    accepted = received (empty messages and all) + lost

where "accepted" are the successful sends that the worker counted, "given up" is what was in work
when Stop came and could not be sent, and "lost" is what libzmq had accepted and a server took down
with it.

A failed send takes about 7 seconds, so these tests mostly wait. ZMQWRITER_SOAK_SECONDS=600 makes the
soak run for that long; without it the soak is skipped. ZMQWRITER_SEED repeats its kills.
"""

import collections
import os
import random
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

from cli_support import BUILD_DIR, CliTest, DEADLINE, Port, Process, wait_for

PROGRAMS = os.path.join(BUILD_DIR, "tests")

NOT_RESPONDING = "is not responding, 5 minutes timeout..."
BACK_ONLINE = "is back online"
SWITCHED = "Switched to secondary server"
SECONDARY_GONE = "warning: Secondary server"
NOBODY = "Could not connect to any of secondary servers!"


class Program(Process):
    def __init__(self, name, *arguments, folder="."):
        super().__init__(list(arguments), program=os.path.join(PROGRAMS, name), cwd=folder,
                         stdin=subprocess.PIPE, stderr=None)

    def text_lines(self):
        return [line.decode() for line in self.lines()]

    def count(self, part):
        return sum(part in line for line in self.text_lines())

    def wait_for(self, part, times=1, start=0):
        """Waits until `part` stands in so many lines from `start` on; gives the last of them."""
        def found():
            ended = self.popen.poll() is not None
            if ended:
                self.wait()  # until all is read
            lines = [line for line in self.text_lines()[start:] if part in line]
            assert len(lines) >= times or not ended, "ended without %r: %r" % (part, self.text_lines())
            return lines[times - 1] if len(lines) >= times else None
        return wait_for(found, "%r %d times" % (part, times))

    def stop(self):
        super().stop()
        self.popen.stdin.close()


class Collector(Program):
    """A server that can be started again. What it received stands in a file, so that it outlives
    being killed."""

    def __init__(self, name, secret="new", port=None):
        self.name, self.port, self.file = name, port or Port(), name + ".received"
        self.endpoint = self.port.endpoint
        super().__init__("delivery_collector", self.endpoint, self.file, secret)
        if secret != "null":
            _, self.public_key, self.secret = self.wait_for("key ").split()
        self.wait_for("bound ")

    def received(self):
        try:
            with open(self.file, encoding="ascii") as lines:
                return [line.strip() for line in lines if line.endswith("\n")]
        except FileNotFoundError:
            return []

    def end(self):
        """Lets it take what is on its way."""
        if self.popen.poll() is None:
            self.popen.send_signal(signal.SIGTERM)
            self.wait()
        self.stop()


class Writer(Program):
    Status = collections.namedtuple("Status", "queued in_work spooled accepted failed")
    total = 0

    def __init__(self, server, key, secondaries="", folder="."):
        os.makedirs(os.path.join(folder, "orvik-spool"))
        super().__init__("delivery_writer", server, key, secondaries, folder=folder)

    def command(self, text, reply):
        start = len(self.lines())
        self.popen.stdin.write(text.encode() + b"\n")
        self.popen.stdin.flush()
        return self.wait_for(reply, start=start)

    def write(self, count, size=100):
        self.total = int(self.command("write %d %d" % (count, size), "written ").split()[1])

    def flow(self, threads, rate, size=100):
        self.command("flow %d %d %d" % (threads, rate, size), "flowing")

    def halt(self):
        self.total = int(self.command("halt", "written ").split()[1])

    def status(self):
        return self.Status(*map(int, self.command("status", "status ").split()[1:]))

    def drain(self, deadline=DEADLINE):
        """Waits until everything that was written has been handed over."""
        def drained():
            status = self.status()
            return not (status.queued or status.in_work or status.spooled)
        wait_for(drained, "everything to be handed over", deadline)

    def end(self):
        """Stop; gives what the flush dropped and the two counts."""
        self.dropped, self.accepted, self.failed = map(
            int, self.command("stop", "stopped ").split()[1:])
        return self.wait()

    def rss_kb(self):
        return int(subprocess.check_output(["ps", "-o", "rss=", "-p", str(self.popen.pid)]))


class Case(CliTest):
    """Processes that end with the test, and the account."""

    def keep(self, process):
        self.addCleanup(process.stop)
        return process

    def collector(self, name, **options):
        return self.keep(Collector(name, **options))

    def dead_collector(self, name, **options):
        """A server whose place is known and that is not there yet."""
        collector = self.collector(name, **options)
        collector.stop()
        return collector

    def again(self, collector):
        """The same server, after it was killed."""
        return self.collector(collector.name, secret=collector.secret, port=collector.port)

    def writer(self, primary, *secondaries):
        return self.keep(Writer(primary.endpoint, primary.public_key,
                                ",".join(s.endpoint for s in secondaries)))

    @staticmethod
    def left_on_disk():
        return subprocess.check_output([os.path.join(PROGRAMS, "delivery_writer"), "spool"],
                                       text=True).split()

    def account(self, writer, collectors, ids=None, may_lose=0, lost_empty=0, given_up=0):
        """Ends the servers and checks that every record is accounted for. Gives the lost ones."""
        for collector in collectors:
            collector.end()
        received = [line for c in {c.file: c for c in collectors}.values() for line in c.received()]
        self.assertNotIn("(multipart)", received)
        bodies = collections.Counter(line for line in received if line != "(empty)")
        empty = received.count("(empty)")
        left = self.left_on_disk()
        if ids is None:
            ids = ["0.%08d" % i for i in range(writer.total)]
        self.assertEqual(len(ids), writer.total)
        twice = sum(n > 1 for n in bodies.values())
        missing = [i for i in ids if i not in bodies and i not in set(left)]
        lost = len(missing) - writer.dropped - given_up
        print("%s: written %d, received %d, received twice %d, left on disk %d, dropped by the "
              "flush %d, given up %d, lost with a server %d; empty messages %d, accepted %d, "
              "failed %d" %
              (self.id().split(".")[-1], writer.total, len(bodies), twice, len(left),
               writer.dropped, given_up, lost, empty, writer.accepted, writer.failed), file=sys.stderr)
        self.assertEqual(set(bodies) - set(ids), set(), "something that was never written")
        self.assertEqual(twice, 0)
        self.assertEqual(len(left), len(set(left)))
        self.assertEqual(set(left) - set(ids), set(), "left on disk but never written")
        self.assertEqual(set(left) & set(bodies), set(), "both received and still on disk")
        self.assertEqual(writer.total,
                         len(bodies) + len(left) + writer.dropped + given_up + lost)
        self.assertEqual(writer.accepted, len(received) + lost + lost_empty)
        self.assertGreaterEqual(lost, 0, "received although it was dropped or given up")
        self.assertLessEqual(lost, may_lose)
        return missing


class Outages(Case):
    def test_everything_arrives_once_at_a_healthy_primary(self):
        primary = self.collector("primary")
        writer = self.writer(primary)
        # Standard output is a pipe here, and the lines come at once all the same.
        writer.wait_for("Connecting to " + primary.endpoint)
        writer.wait_for("Using zmq server " + primary.endpoint)
        writer.wait_for("Using zmq public key " + primary.public_key)
        writer.write(5000)
        writer.drain()
        self.assertEqual(writer.end(), 0)
        self.account(writer, [primary])
        self.assertEqual(writer.failed, 0)
        self.assertIn("ZMQ worker finished, sent 5000 messages, failed 0 times",
                      writer.text_lines())

    def test_stop_flushes_what_waits_in_memory_and_leaves_the_rest_on_disk(self):
        primary = self.collector("primary")
        primary.popen.send_signal(signal.SIGSTOP)
        writer = self.writer(primary)
        writer.write(3000, 3000)
        primary.popen.send_signal(signal.SIGCONT)
        self.assertEqual(writer.end(), 0)
        # Closing a socket, libzmq waits for its queue, but not for the system to take the batch of
        # 8192 bytes that it has made of the last messages: when the buffers are full just then,
        # up to three of these are lost.
        missing = self.account(writer, [primary], may_lose=3)
        # They are the last: the first 497 were sent before any three others.
        self.assertEqual([i for i in missing if i < "0.00000497"], [])

    def test_primary_killed_and_restarted_while_records_flow(self):
        primary = self.collector("primary")
        writer = self.writer(primary)
        writer.flow(1, 500)
        wait_for(lambda: len(primary.received()) > 300, "the messages")
        primary.stop()
        writer.wait_for(NOT_RESPONDING)
        primary = self.again(primary)
        before = len(primary.received())
        wait_for(lambda: len(primary.received()) > before + 300, "the messages")
        writer.halt()
        writer.drain()
        self.assertEqual(writer.end(), 0)
        ids = ["1.%08d" % i for i in range(writer.total)]
        # The design's own loss: what libzmq had accepted when the server died. It can be what one
        # batch, the sockets' buffers and the server's own queue of 1000 messages hold.
        missing = self.account(writer, [primary], ids, may_lose=1500)
        # It is one gap: the last that were accepted before the outage, and nothing else.
        if missing:
            first = ids.index(missing[0])
            self.assertEqual(ids[first:first + len(missing)], missing)
            self.assertGreater(first, 300)

    def test_all_down_then_everything_arrives_from_memory_and_disk(self):
        primary = self.dead_collector("primary")
        secondary = self.dead_collector("secondary", secret=primary.secret)
        writer = self.writer(primary, secondary)
        writer.write(2000)
        status = writer.status()
        self.assertTrue(status.spooled)
        self.assertGreaterEqual(status.queued, 499)
        writer.wait_for(NOBODY)
        primary = self.again(primary)
        writer.wait_for(BACK_ONLINE)
        writer.drain()
        self.assertEqual(writer.end(), 0)
        self.account(writer, [primary])
        self.assertEqual(len(primary.received()), 2000)

    def test_secondary_killed_while_in_use(self):
        primary = self.dead_collector("primary")
        secondary = self.collector("secondary", secret=primary.secret)
        writer = self.writer(primary, secondary)
        writer.write(1)
        writer.wait_for(SWITCHED)
        wait_for(lambda: len(secondary.received()) == 2, "the messages")
        secondary.stop()
        writer.write(4)
        writer.wait_for(SECONDARY_GONE)
        secondary = self.again(secondary)
        writer.wait_for(SWITCHED, times=2)
        primary = self.again(primary)
        writer.drain()
        self.assertEqual(writer.end(), 0)
        # The secondary had taken everything that it was given before it was killed.
        self.account(writer, [primary, secondary])

    def test_server_frozen_and_continued(self):
        primary = self.collector("primary")
        writer = self.writer(primary)
        writer.write(100)
        writer.drain()
        primary.popen.send_signal(signal.SIGSTOP)
        # More than the buffers of the sockets take.
        writer.write(2500, 8000)
        writer.wait_for(NOT_RESPONDING)
        primary.popen.send_signal(signal.SIGCONT)
        writer.drain()
        self.assertEqual(writer.end(), 0)
        self.account(writer, [primary])

    def test_frozen_server_killed_takes_what_was_on_its_way_with_it(self):
        primary = self.collector("primary")
        writer = self.writer(primary)
        writer.write(100)
        writer.drain()
        wait_for(lambda: len(primary.received()) == 100, "the messages")
        primary.popen.send_signal(signal.SIGSTOP)
        size = 8000
        writer.write(2500, size)
        writer.wait_for(NOT_RESPONDING)
        accepted = writer.status().accepted
        primary.stop()
        primary = self.again(primary)
        writer.drain()
        self.assertEqual(writer.end(), 0)
        # The design's own loss: "sent" means accepted by libzmq. All of it was accepted while the
        # server stood still, and it can be no more than the buffers of the two sockets hold.
        missing = self.account(writer, [primary], may_lose=accepted - 100)
        self.assertGreater(len(missing), 0)
        self.assertLess(len(missing) * size, 32 << 20)

    def test_two_outages_with_the_spool_in_use_both_times(self):
        primary = self.collector("primary")
        secondary = self.dead_collector("secondary", secret=primary.secret)
        writer = self.writer(primary, secondary)
        for outage in (1, 2):
            writer.write(50)
            writer.drain()
            wait_for(lambda: len(primary.received()) == writer.total, "the messages")
            primary.stop()
            writer.write(1200)
            self.assertTrue(writer.status().spooled)
            writer.wait_for(NOT_RESPONDING, times=outage)
            primary = self.again(primary)
            writer.drain()
        self.assertEqual(writer.end(), 0)
        # The first message after a kill may be accepted before libzmq knows of it.
        self.account(writer, [primary], may_lose=2 * 2)
        self.assertEqual(writer.count("finished, sent"), 1)

    def test_two_outages_with_a_secondary_each_and_a_stop_that_ends(self):
        primary = self.dead_collector("primary")
        secondary = self.collector("secondary", secret=primary.secret)
        writer = self.writer(primary, secondary)
        may_lose = 0
        for outage in (1, 2):
            may_lose += self.write_until_not_responding(writer, outage)
            writer.wait_for(SWITCHED, times=outage)
            primary = self.again(primary)
            writer.write(20)
            writer.wait_for(BACK_ONLINE, times=outage)
            writer.drain()
            wait_for(lambda: len(primary.received()) + len(secondary.received()) >=
                     writer.total + outage - may_lose, "everything")
            primary.stop()
        self.assertEqual(writer.end(), 0)
        self.account(writer, [primary, secondary], may_lose=may_lose)
        self.assertEqual(secondary.received().count("(empty)"), 2)
        self.assertEqual((writer.count(SWITCHED), writer.count(SECONDARY_GONE)), (2, 0))

    def test_record_in_work_at_stop_is_given_up_and_not_counted_as_dropped(self):
        primary = self.dead_collector("primary")
        secondary = self.collector("secondary", secret=primary.secret)
        writer = self.writer(primary, secondary)
        writer.write(1)
        writer.wait_for(SWITCHED)
        writer.drain()
        failed = writer.status().failed
        writer.write(1)
        wait_for(lambda: writer.status().in_work, "the attempt")
        # Comes within the 7 seconds that the primary is tried.
        self.assertEqual(writer.end(), 0)
        self.assertEqual(writer.dropped, 0)
        self.assertEqual(writer.failed, failed + 1)
        missing = self.account(writer, [primary, secondary], given_up=1)
        self.assertEqual(missing, ["0.00000001"])
        self.assertEqual(secondary.received(), ["0.00000000", "(empty)"])

    def write_until_not_responding(self, writer, outages):
        """Writes to a primary that is gone. Until libzmq has seen that it may still accept records:
        gives their number, for they may be lost."""
        def over():
            status = writer.status()
            return not (status.queued or status.in_work)

        accepted = 0
        while True:
            writer.write(1)
            wait_for(lambda: writer.count(NOT_RESPONDING) == outages or over(), "an end of the attempt")
            if writer.count(NOT_RESPONDING) == outages:
                return accepted
            accepted += 1
            self.assertLess(accepted, 100, "a server that is gone takes everything")

    def test_stop_while_nobody_answers_drops_what_waits_in_memory(self):
        primary = self.dead_collector("primary")
        writer = self.writer(primary)
        writer.write(4)
        writer.wait_for(NOT_RESPONDING)
        self.assertEqual(writer.end(), 0)
        self.account(writer, [primary])
        self.assertEqual(writer.dropped, 4)
        self.assertEqual(writer.accepted, 0)


NULL_GREETING = b"\xff" + bytes(8) + b"\x7f\x03\x00" + b"NULL".ljust(20, b"\0") + bytes(32)


def ready(socket_type):
    return b"\x04\x1a\x05READY\x0bSocket-Type\x00\x00\x00\x04" + socket_type.encode()


def send_in_the_clear(endpoint, body):
    """One message as a client without security sends it; gives the connection."""
    host, port = endpoint[len("tcp://"):].split(":")
    connection = socket.create_connection((host, int(port)), timeout=20)
    connection.sendall(NULL_GREETING + ready("PUSH"))
    answer = b""
    while b"READY" not in answer:
        part = connection.recv(4096)
        assert part, "the server ended the handshake"
        answer += part
    connection.sendall(bytes([0, len(body)]) + body)
    return connection


class ClearTextSink:
    """A peer that speaks just enough of the protocol to invite a client to go on without security,
    and keeps every byte that it gets."""

    def __init__(self):
        self.bytes = b""
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.endpoint = "tcp://127.0.0.1:%d" % self._listener.getsockname()[1]
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._take, args=(connection,), daemon=True).start()

    def _take(self, connection):
        try:
            # The mechanism only once the client has named its own: it leaves at once when it sees
            # another.
            connection.sendall(NULL_GREETING[:12])
            mine, invited = b"", False
            while True:
                part = connection.recv(65536)
                if not part:
                    return
                mine += part
                self.bytes += part
                if len(mine) >= 32 and not invited:
                    invited = True
                    connection.sendall(NULL_GREETING[12:] + ready("PULL"))
        except OSError:
            pass
        finally:
            connection.close()

    def close(self):
        self._listener.close()


class Secrecy(Case):
    """Whatever is wrong with the key, nothing goes out in the clear."""

    def test_no_key_lets_a_message_out_in_the_clear(self):
        right = self.collector("right")
        key = right.public_key
        keys = {
            "right": key,
            "wrong": ("%X" % (int(key[0], 16) ^ 1)) + key[1:],
            # Not its beginning: missing bytes are 0, as the last one of 1 key in 128 is.
            "short": key[2:],
            "lower-case": key.lower() if key.lower() != key else "a" * 64,
            "empty": "",
        }
        cases = []
        for name, tried in keys.items():
            sink = ClearTextSink()
            open_server = self.collector("open-" + name, secret="null")
            for server in (sink, open_server) + (() if name == "right" else (right,)):
                writer = self.keep(Writer(server.endpoint, tried, folder=str(len(cases))))
                writer.write(3)
                cases.append((name, server, writer))
        # All of them at a time: each waits for its time-outs.
        for name, server, writer in cases:
            writer.wait_for(NOT_RESPONDING)
            self.assertEqual(writer.status().accepted, 0, name)
            if isinstance(server, ClearTextSink):
                self.assertIn(b"CURVE", server.bytes, name)
                self.assertNotIn(b"0.0000", server.bytes, name)
            else:
                self.assertEqual(server.received(), [], name)
        for _, server, writer in cases:
            writer.stop()
            if isinstance(server, ClearTextSink):
                server.close()

        # The test can tell: a client without security does reach such servers, and with the right
        # key and the right server the messages do arrive.
        sink, open_server = ClearTextSink(), self.collector("open", secret="null")
        for server in (sink, open_server):
            self.addCleanup(send_in_the_clear(server.endpoint, b"0.0000").close)
        wait_for(lambda: b"0.0000" in sink.bytes, "the messages")
        wait_for(lambda: open_server.received() == ["0.0000"], "the messages")
        writer = self.writer(right)
        writer.write(3)
        writer.drain()
        self.assertEqual(writer.end(), 0)
        self.account(writer, [right])


class Soak(Case):
    def test_soak(self):
        seconds = int(os.environ.get("ZMQWRITER_SOAK_SECONDS", "0"))
        if not seconds:
            self.skipTest("set ZMQWRITER_SOAK_SECONDS")
        seed = int(os.environ.get("ZMQWRITER_SEED", "0")) or random.randrange(1 << 31)
        print("soak for %d s, ZMQWRITER_SEED=%d" % (seconds, seed), file=sys.stderr)
        dice = random.Random(seed)
        primary = self.collector("primary")
        servers = {"primary": primary,
                   "secondary": self.collector("secondary", secret=primary.secret)}
        writer = self.writer(*servers.values())
        writer.flow(4, 250, 200)
        end = time.monotonic() + seconds
        memory = []
        kills = 0
        while time.monotonic() < end:
            time.sleep(dice.uniform(1, 6))
            memory.append(writer.rss_kb())
            name, frozen = dice.choice([("primary", False)] * 2 + [("secondary", False), ("primary", True)])
            kills += 1
            if frozen:
                servers[name].popen.send_signal(signal.SIGSTOP)
            else:
                servers[name].stop()
            time.sleep(dice.uniform(0.1, 20))
            if frozen:
                servers[name].popen.send_signal(signal.SIGCONT)
            else:
                servers[name] = self.again(servers[name])
        writer.halt()
        writer.drain(300)
        memory.append(writer.rss_kb())
        self.assertEqual(writer.end(), 0)
        for collector in servers.values():
            collector.end()
        received = [line for collector in servers.values() for line in collector.received()]
        bodies = collections.Counter(line for line in received if line != "(empty)")
        lost = writer.total - len(bodies) - writer.dropped
        print("soak: %d kills and freezes, written %d, received %d, lost with a server %d, empty "
              "messages %d, memory %d to %d kB (first quarter at most %d)" %
              (kills, writer.total, len(bodies), lost, received.count("(empty)"), min(memory),
               max(memory), max(memory[:len(memory) // 4 + 1])), file=sys.stderr)
        self.assertEqual(max(bodies.values()), 1, "something twice")
        self.assertEqual(self.left_on_disk(), [])
        self.assertEqual(writer.dropped, 0)
        # Empty messages may be lost with a server, too.
        lost_empty = writer.accepted - len(received) - lost
        self.assertGreaterEqual(lost_empty, 0)
        self.assertLessEqual(lost_empty, writer.count(SWITCHED))
        self.assertLessEqual(lost, 1500 * kills)
        # Flat: no more than the sockets and buffers of a few outages on top of the first quarter.
        self.assertLess(memory[-1], max(memory[:len(memory) // 4 + 1]) + 8 * 1024)


if __name__ == "__main__":
    unittest.main()
