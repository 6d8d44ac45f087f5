#!/usr/bin/env python3
"""The plug-in beside a general log shipper: the same records to the same receiving end.

    shipper_bench.py BUILD_FOLDER --benchmark_out=FILE [--benchmark_repetitions=N] [--quick]

Ours    zmqwriter replay, which reads Bro's ASCII log and feeds the plug-in record by record, as
        fast as they come, like a host: what finds no room in memory goes by the spool.
Peer    rsyslogd with its czmq module: reads a file of JSON lines and sends each as a message, as
        CURVE client over a PUSH socket with its own high-water mark of 1000. It runs from a
        configuration, in a folder and as a process of its own; nothing of the system's is touched.

Both send to the program Sink, in turn, on the loopback. The records are the rows of
samples/conn.log and samples/http.log over and over. A JSON line is an object with the log's path as
_path and a member for each column: numbers as numbers, T and F as true and false, sets and vectors
as arrays, everything else as text with escapes undone; unset columns are left out. "all columns" is
that. "the event's contents" has exactly what our event carries: only the columns that it has a place
for, and the agent identifier and time zone of its envelope.

Events per second are the receiver's, from the 1000th event to the last. Processor time is that of
the whole sending process. Bytes on the wire are those of the TCP connection, as the receiver's
system counts them. Without rsyslog or its module there are no rows, and standard error says so.
"""

import argparse
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WARM_UP = 1000

# What an event has no place for (docs/wire-format.md).
NOT_IN_EVENT = {
    "conn": {"tunnel_parents"},
    "http": {"id.orig_h", "id.orig_p", "id.resp_h", "id.resp_p", "trans_depth", "referrer",
             "user_agent", "status_msg", "info_code", "info_msg", "filename", "tags", "password",
             "proxied", "orig_fuids", "orig_mime_types", "resp_fuids", "resp_mime_types"},
}


# What an event carries beside its columns.
AGENT = "agent-7"
ENVELOPE = {"agent_id": AGENT, "tz_minutes_west": 0}


class Failed(Exception):
    """One of the two could not be measured; says why."""


class Broken(Exception):
    """Nothing can be measured, as something of ours does not work; says what."""


# -- Records --------------------------------------------------------------------------------------


class Log:
    """The rows of one of Bro's ASCII logs."""

    def __init__(self, name):
        self.header, self.rows = [], []
        with open(name, encoding="utf-8") as file:
            for line in file.read().splitlines():
                (self.header if line.startswith("#") else self.rows).append(line)
        head = dict(line[1:].split("\t", 1) for line in self.header if "\t" in line)
        self.path = head["path"]
        self.columns = head["fields"].split("\t")
        self.types = head["types"].split("\t")

    def write(self, name, count):
        """A log of so many records."""
        with open(name, "w", encoding="utf-8") as file:
            head = [line for line in self.header if not line.startswith("#close")]
            file.write("".join(line + "\n" for line in head))
            for i in range(count):
                file.write(self.rows[i % len(self.rows)] + "\n")

    def write_json(self, name, count, without=(), envelope=None):
        """The same records as JSON lines. The bytes of all lines, without their ends."""
        lines = [json.dumps(dict(self.object_of(row, without), **(envelope or {})),
                            ensure_ascii=False, separators=(",", ":")) for row in self.rows]
        with open(name, "w", encoding="utf-8", errors="surrogateescape") as file:
            for i in range(count):
                file.write(lines[i % len(lines)] + "\n")
        lengths = [len(line.encode("utf-8", "surrogateescape")) for line in lines]
        return sum(lengths[i % len(lines)] for i in range(count))

    def object_of(self, row, without=()):
        members = {"_path": self.path}
        for column, kind, text in zip(self.columns, self.types, row.split("\t")):
            if text != "-" and column not in without:
                members[column] = value_of(text, kind)
        return members


def value_of(text, kind):
    """What JSON has for a value of a log."""
    container = re.fullmatch(r"(?:set|vector)\[(\w+)\]", kind)
    if container:
        elements = [] if text == "(empty)" else text.split(",")
        return [value_of(element, container.group(1)) for element in elements]
    if kind in ("time", "interval", "double"):
        return float(text)
    if kind in ("count", "int", "port"):
        return int(text)
    if kind == "bool":
        return text == "T"
    if text == "(empty)":
        return ""
    return unescape(text)


def unescape(text):
    data = re.sub(rb"\\x([0-9a-fA-F]{2})", lambda match: bytes([int(match.group(1), 16)]),
                  text.encode("utf-8"))
    return data.decode("utf-8", "surrogateescape")


# -- The receiving end ----------------------------------------------------------------------------


class Sink:
    """The program Sink, for one sender."""

    def __init__(self, build):
        try:
            self.process = subprocess.Popen([os.path.join(build, "bench", "Sink")], text=True,
                                            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        except OSError as error:
            raise Broken("Sink cannot be run: %s" % error)
        words = self.process.stdout.readline().split()
        if len(words) != 3:
            self.process.communicate()
            raise Broken("Sink did not start")
        self.endpoint, self.key_hex, self.key_z85 = words

    def expect(self, count):
        self.process.stdin.write("expect %d %d\n" % (WARM_UP, count - WARM_UP))
        self.process.stdin.flush()

    def wait(self):
        """Events per second, bytes of all of them and those on the wire per event."""
        words = self.process.stdout.readline().split()
        if not words:
            raise Failed("not all events arrived")
        count, size, wire, seconds = int(words[1]), int(words[2]), int(words[3]), float(words[4])
        return count / seconds, size, wire / (count + WARM_UP)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()


# -- The senders ----------------------------------------------------------------------------------


def run_sender(command, folder, sink, count, size=None):
    """Events per second, processor time (us) and bytes on the wire per event of one process. A
    sender that does not end by itself is ended once everything has arrived. Other events than
    those of `size` bytes altogether, where that is known, are a failure."""
    sink.expect(count)
    with open(os.path.join(folder, "output"), "wb") as output:
        process = subprocess.Popen(command, cwd=folder, stdout=output, stderr=output,
                                   stdin=subprocess.DEVNULL)
    try:
        rate, received, wire = sink.wait()
    finally:
        # Not by send_signal, which would take the end of one that has ended, and its times with it.
        os.kill(process.pid, signal.SIGTERM)
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = status
    if size is not None and received != size:
        raise Failed("%d bytes arrived instead of %d" % (received, size))
    cpu = usage.ru_utime + usage.ru_stime
    return rate, cpu * 1e6 / count, wire


def run_ours(build, log, count):
    """Replays the log to a fresh sink."""
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder, Sink(build) as sink:
        os.mkdir(os.path.join(folder, "orvik-spool"))
        with open(os.path.join(folder, "settings"), "w") as file:
            file.write("zmq.server = %s\nzmq.public_key = %s\n" % (sink.endpoint, sink.key_hex))
        return run_sender(
            [os.path.join(build, "bin", "zmqwriter"), "replay", "--settings", "settings", "--no-pace",
             "--set", "LogZMQ::zmq_agent_id=" + AGENT,
             "--plugin", os.path.join(build, "plugin-sandbox"), log], folder, sink, count)


CONFIGURATION = """\
global(workDirectory="%(folder)s" maxMessageSize="64k")
module(load="imfile")
module(load="omczmq" authenticator="off" authtype="CURVECLIENT"
       servercertpath="%(folder)s/server.cert" clientcertpath="%(folder)s/client.cert")
template(name="line" type="string" string="%%msg%%")
input(type="imfile" file="%(lines)s" tag="bro" ruleset="out")
ruleset(name="out") {
  action(type="omczmq" endpoints="%(endpoint)s" socktype="PUSH" template="line")
}
"""

CERTIFICATE = "metadata\ncurve\n    public-key = \"%s\"\n"


def find_rsyslogd():
    path = os.environ.get("PATH", "") + os.pathsep + "/usr/sbin"
    return shutil.which("rsyslogd", path=path)


def client_keys(build, folder):
    """A key pair in Z85, made by our own keygen out of what it writes."""
    made = subprocess.run([os.path.join(build, "bin", "zmqwriter"), "keygen", "--dir", folder],
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if made.returncode != 0:
        raise Broken("zmqwriter keygen failed:\n" + made.stderr)
    keys = []
    for name in ("server.public", "server.secret"):
        with open(os.path.join(folder, name)) as file:
            keys.append(z85(bytes.fromhex(file.read().strip())))
    return keys


Z85_DIGITS = ("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
              ".-:+=^!/*?&<>()[]{}@%$#")


def z85(data):
    """Bytes as libzmq's texts: five digits for each four bytes."""
    text = ""
    for start in range(0, len(data), 4):
        number = int.from_bytes(data[start:start + 4], "big")
        text += "".join(Z85_DIGITS[number // 85 ** power % 85] for power in (4, 3, 2, 1, 0))
    return text


def run_rsyslog(build, keys, lines, count, size):
    """Ships the lines, of so many bytes altogether, to a fresh sink."""
    public, secret = keys
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder, Sink(build) as sink:
        with open(os.path.join(folder, "server.cert"), "w") as file:
            file.write(CERTIFICATE % sink.key_z85)
        with open(os.path.join(folder, "client.cert"), "w") as file:
            file.write(CERTIFICATE % public + "    secret-key = \"%s\"\n" % secret)
        with open(os.path.join(folder, "rsyslog.conf"), "w") as file:
            file.write(CONFIGURATION % {"folder": folder, "lines": lines,
                                        "endpoint": sink.endpoint})
        return run_sender([find_rsyslogd(), "-n", "-f", "rsyslog.conf", "-i",
                           os.path.join(folder, "rsyslog.pid")], folder, sink, count, size)


# -- The comparison -------------------------------------------------------------------------------


def rsyslog_problem(build, keys, folder):
    """Why it does not deliver here, or None."""
    lines = os.path.join(folder, "probe.json")
    size = Log(os.path.join(SOURCE, "samples", "conn.log")).write_json(lines, 2 * WARM_UP)
    try:
        run_rsyslog(build, keys, lines, 2 * WARM_UP, size)
    except (Failed, OSError) as error:
        return "rsyslog with its czmq module does not deliver here: %s" % error
    return None


def compare(build, keys, folder, path, kind, count, runs):
    """The runs of one kind of record, taking turns, as Google Benchmark writes its own."""
    log = Log(os.path.join(SOURCE, "samples", path + ".log"))
    names = [os.path.join(folder, name) for name in (path + ".log", "event.json", "all.json")]
    log.write(names[0], count)
    event_bytes = log.write_json(names[1], count, NOT_IN_EVENT[path], ENVELOPE)
    all_bytes = log.write_json(names[2], count)
    sides = [("ours", lambda: run_ours(build, names[0], count)),
             ("rsyslog, JSON lines of the event's contents",
              lambda: run_rsyslog(build, keys, names[1], count, event_bytes)),
             ("rsyslog, JSON lines of all columns",
              lambda: run_rsyslog(build, keys, names[2], count, all_bytes))]
    results = []
    for _ in range(runs):
        for side, run in random.sample(sides, len(sides)):
            rate, cpu, wire = run()
            results.append({"run_name": "shipped/%s/%s/manual_time" % (kind, side),
                            "run_type": "iteration", "family_index": sides.index((side, run)),
                            "[events/s]": rate,
                            "processor time [us/event]": cpu, "bytes on the wire [B/event]": wire})
    return results


def measure(build, count, runs):
    """All runs, or none where there is no shipper."""
    if not find_rsyslogd():
        print("left out: rsyslogd is not installed (setup/packages bench installs it where it can "
              "be had)", file=sys.stderr)
        return []
    results = []
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder:
        keys = client_keys(build, folder)
        problem = rsyslog_problem(build, keys, folder)
        if problem:
            print("left out: " + problem, file=sys.stderr)
            return []
        for path, kind in (("conn", "connection"), ("http", "http")):
            results += compare(build, keys, folder, path, kind, count, runs)
    return results


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("--benchmark_out", required=True, metavar="FILE")
    parser.add_argument("--benchmark_repetitions", type=int, default=5, metavar="N")
    parser.add_argument("--quick", action="store_true")
    options, _ = parser.parse_known_args()  # the others are Google Benchmark's
    try:
        results = measure(os.path.abspath(options.build), 10000 if options.quick else 100000,
                          options.benchmark_repetitions)
    except (Broken, Failed, OSError) as error:
        print("shipper_bench.py: %s" % error, file=sys.stderr)
        return 1
    with open(options.benchmark_out, "w") as file:
        json.dump({"benchmarks": results}, file, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
