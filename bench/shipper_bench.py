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

import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
from processes import SOURCE, Failed, Process, in_turns, main  # noqa: E402

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


# -- The senders ----------------------------------------------------------------------------------


def ship(build, folder, count, command, prepare, size=None):
    """The figures of one process that sends to a fresh Sink. `prepare` gets the sink's words and
    writes what the command reads from the folder. The process is ended once everything has arrived.
    Other events than those of `size` bytes altogether, where that is known, are a failure."""
    with Process(os.path.join(build, "bench", "Sink")) as sink:
        prepare(*sink.words())
        sink.tell("expect %d %d" % (WARM_UP, count - WARM_UP))
        with Process(*command, cwd=folder, stderr=subprocess.DEVNULL) as sender:
            _, received, all_bytes, wire, seconds = sink.words()
            sender.end(signal.SIGTERM)
            if size not in (None, int(all_bytes)):
                raise Failed("%s bytes arrived instead of %d" % (all_bytes, size))
            return {"[events/s]": int(received) / float(seconds),
                    "processor time [us/event]": sender.cpu() * 1e6 / count,
                    "bytes on the wire [B/event]": int(wire) / count}


def run_ours(build, log, count):
    """Replays the log to a fresh sink."""
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder:
        def prepare(endpoint, key_hex, _):
            os.mkdir(os.path.join(folder, "orvik-spool"))
            with open(os.path.join(folder, "settings"), "w") as file:
                file.write("zmq.server = %s\nzmq.public_key = %s\n" % (endpoint, key_hex))
        return ship(build, folder, count, [
            os.path.join(build, "bin", "zmqwriter"), "replay", "--settings", "settings", "--no-pace",
            "--set", "LogZMQ::zmq_agent_id=" + AGENT,
            "--plugin", os.path.join(build, "plugin-sandbox"), log], prepare)


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

# Of no secrecy.
CLIENT_KEYS = ("S-2%xkobaK()1bTAFO6Rh9#Ybu4qCL+I)p5h%nWl", "LRTPR*NQ1$5Ji5y>1!]Tm/bP+b+F(qEoba<XW]fJ")
CERTIFICATE = "metadata\ncurve\n    public-key = \"%s\"\n"


def find_rsyslogd():
    path = os.environ.get("PATH", "") + os.pathsep + "/usr/sbin"
    return shutil.which("rsyslogd", path=path)


def run_rsyslog(build, lines, count, size):
    """Ships the lines, of so many bytes altogether, to a fresh sink."""
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder:
        def prepare(endpoint, _, server_key):
            with open(os.path.join(folder, "server.cert"), "w") as file:
                file.write(CERTIFICATE % server_key)
            with open(os.path.join(folder, "client.cert"), "w") as file:
                file.write(CERTIFICATE % CLIENT_KEYS[0] +
                           "    secret-key = \"%s\"\n" % CLIENT_KEYS[1])
            with open(os.path.join(folder, "rsyslog.conf"), "w") as file:
                file.write(CONFIGURATION % {"folder": folder, "lines": lines,
                                            "endpoint": endpoint})
        return ship(build, folder, count,
                    [find_rsyslogd(), "-n", "-f", "rsyslog.conf", "-i",
                     os.path.join(folder, "rsyslog.pid")], prepare, size)


# -- The comparison -------------------------------------------------------------------------------


def rsyslog_problem(build, folder):
    """Why it does not deliver here, or None."""
    if not find_rsyslogd():
        return ("rsyslogd is not installed (setup/packages bench installs it where it can be had)")
    lines = os.path.join(folder, "probe.json")
    size = Log(os.path.join(SOURCE, "samples", "conn.log")).write_json(lines, 2 * WARM_UP)
    try:
        run_rsyslog(build, lines, 2 * WARM_UP, size)
    except (Failed, OSError) as error:
        return "rsyslog with its czmq module does not deliver here: %s" % error
    return None


def sides(build, folder, path, kind, count):
    log = Log(os.path.join(SOURCE, "samples", path + ".log"))
    names = [os.path.join(folder, path + end) for end in (".log", "-event.json", "-all.json")]
    log.write(names[0], count)
    event_bytes = log.write_json(names[1], count, NOT_IN_EVENT[path], ENVELOPE)
    all_bytes = log.write_json(names[2], count)
    return [("shipped", kind, "ours", lambda: run_ours(build, names[0], count)),
            ("shipped", kind, "rsyslog, JSON lines of the event's contents",
             lambda: run_rsyslog(build, names[1], count, event_bytes)),
            ("shipped", kind, "rsyslog, JSON lines of all columns",
             lambda: run_rsyslog(build, names[2], count, all_bytes))]


def measure(build, quick, runs, _):
    """All runs, or none where there is no shipper."""
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder:
        problem = rsyslog_problem(build, folder)
        if problem:
            print("left out: " + problem, file=sys.stderr)
            return []
        return [result for path, kind in (("conn", "connection"), ("http", "http"))
                for result in in_turns(sides(build, folder, path, kind,
                                             10000 if quick else 100000), runs)]


if __name__ == "__main__":
    sys.exit(main(measure, __doc__.splitlines()[0]))
