#!/usr/bin/env python3
"""The plug-in beside a general log shipper: the same records to the same receiving end.

    shipper_bench.py BUILD_FOLDER --benchmark_out=FILE [--benchmark_repetitions=N] [--quick]

Ours    zmqwriter replay, which reads Bro's ASCII log and feeds the plug-in record by record, as
        fast as they come, like a host: what finds no room in memory goes by the spool.
Peer    rsyslogd with its czmq module: reads a file of JSON lines and sends each as a message, as
        CURVE client over a PUSH socket with its own high-water mark of 1000. It runs from a
        configuration, in a folder and as a process of its own; nothing of the system's is touched.

Both send to the program Sink, in turn, on the loopback. The records are the rows of
samples/conn.log and samples/http.log over and over. A JSON line is what `zmqwriter collect` prints
of the event of such a row.

Events per second are the receiver's, from the 1000th event to the last. Processor time is that of
the whole sending process. Bytes on the wire are those of the TCP connection, as the receiver's
system counts them. Without rsyslog or its module there are no rows, and standard error says so.
"""

import itertools
import os
import shutil
import signal
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
from processes import SOURCE, Collector, Failed, Process, in_turns, main  # noqa: E402

WARM_UP = 1000


# -- Records --------------------------------------------------------------------------------------


def write_log(name, path, count):
    """Bro's log of so many records."""
    with open(os.path.join(SOURCE, "samples", path + ".log"), encoding="utf-8") as file:
        lines = [line for line in file if not line.startswith("#close")]
    with open(name, "w", encoding="utf-8") as file:
        file.writelines(line for line in lines if line.startswith("#"))
        write_over_and_over([line for line in lines if not line.startswith("#")], file, count)


def write_over_and_over(lines, file, count):
    file.writelines(itertools.islice(itertools.cycle(lines), count))


def json_lines(build, path):
    """The sample log's events as JSON."""
    log = os.path.join(SOURCE, "samples", path + ".log")
    with open(log, encoding="utf-8") as file:
        count = sum(not line.startswith("#") for line in file)
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder:
        output = os.path.join(folder, "events.json")
        with Collector(build, folder, "--count", str(count), "--output", output) as collector, \
                Process(*replay(build, folder, collector.endpoint, collector.key, log), cwd=folder,
                        stderr=subprocess.DEVNULL):
            collector.finish()
        with open(output, encoding="utf-8") as file:
            return file.readlines()


# -- The senders ----------------------------------------------------------------------------------


def ship(build, count, prepare, size=None):
    """The figures of one process that sends to a fresh Sink. `prepare` gets a folder and the sink's
    words, and gives the command. The process is ended once everything has arrived. Other events
    than those of `size` bytes altogether, where that is known, are a failure."""
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder, \
            Process(os.path.join(build, "bench", "Sink")) as sink:
        command = prepare(folder, *sink.words())
        sink.tell("expect %d %d" % (WARM_UP, count - WARM_UP))
        with Process(*command, cwd=folder, stderr=subprocess.DEVNULL) as sender:
            _, received, all_bytes, wire, seconds = sink.words()
            sender.end(signal.SIGTERM)
            if size not in (None, int(all_bytes)):
                raise Failed("%s bytes arrived instead of %d" % (all_bytes, size))
            return {"[events/s]": int(received) / float(seconds),
                    "processor time [us/event]": sender.cpu() * 1e6 / count,
                    "bytes on the wire [B/event]": int(wire) / count}


def replay(build, folder, endpoint, key, log):
    """The command, once the folder has what it needs."""
    os.mkdir(os.path.join(folder, "orvik-spool"))
    with open(os.path.join(folder, "settings"), "w") as file:
        file.write("zmq.server = %s\nzmq.public_key = %s\n" % (endpoint, key))
    return [os.path.join(build, "bin", "zmqwriter"), "replay", "--settings", "settings",
            "--no-pace", "--set", "LogZMQ::zmq_agent_id=agent-7",
            "--plugin", os.path.join(build, "plugin-sandbox"), log]


def run_ours(build, log, count):
    return ship(build, count, lambda folder, endpoint, key, _: replay(build, folder, endpoint, key,
                                                                      log))


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
    """Ships the lines, of so many bytes altogether."""
    def prepare(folder, endpoint, _, server_key):
        with open(os.path.join(folder, "server.cert"), "w") as file:
            file.write(CERTIFICATE % server_key)
        with open(os.path.join(folder, "client.cert"), "w") as file:
            file.write(CERTIFICATE % CLIENT_KEYS[0] +
                       "    secret-key = \"%s\"\n" % CLIENT_KEYS[1])
        with open(os.path.join(folder, "rsyslog.conf"), "w") as file:
            file.write(CONFIGURATION % {"folder": folder, "lines": lines, "endpoint": endpoint})
        return [find_rsyslogd(), "-n", "-f", "rsyslog.conf", "-i",
                os.path.join(folder, "rsyslog.pid")]
    return ship(build, count, prepare, size)


# -- The comparison -------------------------------------------------------------------------------


def write_json(build, name, path, count):
    """So many JSON lines. The bytes of all, without their ends."""
    with open(name, "w", encoding="utf-8") as file:
        write_over_and_over(json_lines(build, path), file, count)
    return os.path.getsize(name) - count


def rsyslog_problem(build, folder):
    """Why it does not deliver here, or None."""
    if not find_rsyslogd():
        return ("rsyslogd is not installed (setup/packages bench installs it where it can be had)")
    lines = os.path.join(folder, "probe.json")
    size = write_json(build, lines, "conn", 2 * WARM_UP)
    try:
        run_rsyslog(build, lines, 2 * WARM_UP, size)
    except (Failed, OSError) as error:
        return "rsyslog with its czmq module does not deliver here: %s" % error
    return None


def sides(build, folder, path, kind, count):
    log, lines = (os.path.join(folder, path + end) for end in (".log", ".json"))
    write_log(log, path, count)
    size = write_json(build, lines, path, count)
    return [("shipped", kind, "ours", lambda: run_ours(build, log, count)),
            ("shipped", kind, "rsyslog, JSON lines of the events",
             lambda: run_rsyslog(build, lines, count, size))]


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
