"""What the tests of the command line share: the program, a collector, an agent, logs as lists.

Where the programs are comes from the environment: ZMQWRITER_BUILD_DIR, ZMQWRITER_SOURCE_DIR and
ZMQWRITER_FLATC. Every test works in a temporary folder of its own and lets the system choose ports.
"""

import contextlib
import ctypes
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.request

BUILD_DIR = os.environ["ZMQWRITER_BUILD_DIR"]
SOURCE_DIR = os.environ["ZMQWRITER_SOURCE_DIR"]
ZMQWRITER = os.path.join(BUILD_DIR, "bin", "zmqwriter")
PLUGIN = os.path.join(BUILD_DIR, "plugin-sandbox")
DEADLINE = 120  # seconds; only ever reached by a failure

try:
    import flatbuffers
    import zmq
except ImportError:
    flatbuffers = zmq = None

needs_zmq = unittest.skipUnless(zmq, "needs the Python packages zmq and flatbuffers")


def wait_for(condition, what, seconds=None):
    """Polls until the condition gives something true, and returns that."""
    end = time.monotonic() + (seconds or DEADLINE)
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError("waited in vain for " + what)
        time.sleep(0.01)


def read_file(name, mode="r"):
    with open(name, mode) as file:
        return file.read()


def write_file(name, content):
    with open(name, "wb" if isinstance(content, bytes) else "w") as file:
        file.write(content)


def open_files(pid):
    """Where the descriptors of a process lead to, on Linux."""
    found = []
    for descriptor in os.listdir("/proc/%d/fd" % pid):
        with contextlib.suppress(FileNotFoundError):  # closed meanwhile
            found.append(os.readlink("/proc/%d/fd/%s" % (pid, descriptor)))
    return found


class Port:
    """A free port. Linux gives it to nobody else while a socket of this process is bound to it."""

    def __init__(self, host="127.0.0.1"):
        bound = socket.socket()
        bound.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        bound.bind((host, 0))
        self.number = bound.getsockname()[1]
        self.endpoint = "tcp://%s:%d" % (host, self.number)
        if sys.platform == "linux":
            self.descriptor = bound.detach()
        else:
            bound.close()


class Process:
    """A running zmqwriter; its output is collected on the side, so that it never blocks."""

    def __init__(self, arguments, program=ZMQWRITER, stdout=subprocess.PIPE,
                 stderr=subprocess.PIPE, **options):
        self.popen = subprocess.Popen([program] + arguments, stdout=stdout, stderr=stderr, **options)
        self.out, self.err = bytearray(), bytearray()
        self.readers = [threading.Thread(target=self._read, args=pair, daemon=True)
                        for pair in ((self.popen.stdout, self.out), (self.popen.stderr, self.err))
                        if pair[0]]
        for reader in self.readers:
            reader.start()

    @staticmethod
    def _read(stream, target):
        while True:
            try:
                data = os.read(stream.fileno(), 65536)
            except (OSError, ValueError):  # closed by a test
                return
            if not data:
                return
            target += data

    @property
    def stderr(self):
        return self.err.decode("utf-8", "replace")

    @property
    def stdout(self):
        return self.out.decode("utf-8", "replace")

    def lines(self):
        """The whole lines of standard output so far."""
        return bytes(self.out).split(b"\n")[:-1]

    def wait(self):
        """The exit status, once everything is read."""
        status = self.popen.wait(DEADLINE)
        for reader in self.readers:
            reader.join(DEADLINE)
        return status

    def signal(self, number):
        """Sends a signal and waits until it is taken: two of a kind at once count as one."""
        self.popen.send_signal(number)
        status = "/proc/%d/status" % self.popen.pid
        if os.path.exists(status):
            wait_for(lambda: not any(int(pending, 16) >> number - 1 & 1 for pending in
                                     re.findall(r"Pnd:\s+(\w+)", read_file(status))), "the signal")
        else:
            time.sleep(1)

    def stop(self):
        if self.popen.poll() is None:
            self.popen.kill()
            self.popen.wait()
        for stream in (self.popen.stdout, self.popen.stderr):
            if stream and not stream.closed:
                stream.close()


class CliTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zmqwriter-test-")
        self.addCleanup(folder.cleanup)
        previous = os.getcwd()
        os.chdir(folder.name)
        self.addCleanup(os.chdir, previous)

    def run_tool(self, *arguments, stdin=b"", **options):
        """Runs to the end; the result has bytes as stdout and text as stderr."""
        result = subprocess.run([ZMQWRITER] + list(arguments), input=stdin, capture_output=True,
                                timeout=DEADLINE, **options)
        result.stderr = result.stderr.decode("utf-8", "replace")
        return result

    def mount_disk(self, megabytes):
        """A small disk in the folder "disk", which only this process and its children see."""
        new_mounts = 0x20000
        libc = ctypes.CDLL(None, use_errno=True)
        if not hasattr(libc, "unshare") or libc.unshare(new_mounts) != 0:
            self.skipTest("needs a mount namespace of its own: " + os.strerror(ctypes.get_errno()))
        os.mkdir("disk")
        for command in (["mount", "--make-rprivate", "/"],
                        ["mount", "-t", "tmpfs", "-o", "size=%dm" % megabytes, "tmpfs", "disk"]):
            result = subprocess.run(command, capture_output=True, text=True)
            if result.returncode != 0:
                self.skipTest("cannot mount a small disk: " + result.stderr)
        self.addCleanup(subprocess.run, ["umount", "-l", os.path.abspath("disk")], check=True)

    def start(self, *arguments, **options):
        process = Process(list(arguments), **options)
        self.addCleanup(process.stop)
        return process

    def keygen(self):
        if not os.path.exists("server.secret"):
            self.assertEqual(self.run_tool("keygen").returncode, 0)

    BIND = ("collect", "--secret-key", "server.secret", "--bind")

    def collect(self, *arguments, endpoint="tcp://127.0.0.1:*", **options):
        """A running collector with a new key pair. Its endpoint is in .endpoint, and in .url where
        it shows itself over HTTP if --metrics is given."""
        self.keygen()
        collector = self.start(*self.BIND, endpoint, *arguments, **options)
        collector.endpoint = wait_for(
            lambda: re.search(r"listening on (tcp://127\.0\.0\.1:[1-9]\d*)\n", collector.stderr),
            "the collector's endpoint").group(1)
        if "--metrics" in arguments:
            collector.url = re.search(r"status on (http://127\.0\.0\.1:[1-9]\d*/)\n",
                                      collector.stderr).group(1)
        return collector

    def run_collect(self, *arguments, **options):
        """A collector that ends by itself."""
        self.keygen()
        return self.run_tool(*self.BIND, "tcp://127.0.0.1:*", *arguments, **options)

    def end(self, process, status=0, words=""):
        process.popen.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(), status, process.stderr)
        self.assertIn(words, process.stderr)

    @staticmethod
    def get(collector, path):
        """The status and the text of a page of the collector's."""
        try:
            with urllib.request.urlopen(collector.url + path, timeout=DEADLINE) as page:
                return page.status, page.read().decode()
        except urllib.error.HTTPError as error:
            return error.code, error.read().decode()

    def collect_into_pipe(self, *arguments):
        """A collector, and the end of its standard output to read from, which nobody reads yet."""
        read_end, write_end = os.pipe()
        reader = os.fdopen(read_end, "rb")
        self.addCleanup(reader.close)
        collector = self.collect(*arguments, stdout=write_end)
        os.close(write_end)
        return collector, reader

    def agent(self, endpoint, server_key=None, keys=None, **options):
        """A PUSH socket that is a CURVE client of the collector."""
        context = zmq.Context()
        self.addCleanup(context.term)
        socket = context.socket(zmq.PUSH)
        socket.linger = 0
        socket.sndtimeo = DEADLINE * 1000
        self.addCleanup(socket.close)
        for name, value in options.items():
            setattr(socket, name, value)
        socket.curve_publickey, socket.curve_secretkey = keys or zmq.curve_keypair()
        socket.curve_serverkey = server_key or bytes.fromhex(read_file("server.public"))
        socket.connect(endpoint)
        return socket

    @staticmethod
    def send_until_it_blocks(agent, messages, blocked):
        """Sends until nothing is taken any more and `blocked` is true; how many were taken."""
        agent.sndtimeo = 500
        end = time.monotonic() + DEADLINE
        for sent, message in enumerate(messages):
            taken = False
            while not taken:
                try:
                    agent.send(message)
                    taken = True
                except zmq.Again:
                    if blocked():
                        agent.sndtimeo = DEADLINE * 1000
                        return sent
                    assert time.monotonic() < end, "waited in vain for it to block"
        raise AssertionError("everything was taken")


def totals(process):
    """The collector's closing lines as a dictionary."""
    return {name: int(number)
            for name, number in re.findall(r"^ *([A-Za-z0-9 -]+): (\d+)", process.stderr, re.M)}


# ---- events by means of the schema's Python code ----

_schema = None


def schema():
    """The modules that flatc makes out of our schema, by name."""
    global _schema
    if _schema is None:
        folder = tempfile.mkdtemp(prefix="zmqwriter-schema-")
        try:
            subprocess.run([os.environ["ZMQWRITER_FLATC"], "--python", "-o", folder,
                            os.path.join(SOURCE_DIR, "src", "aggregator.fbs")], check=True)
            sys.path.insert(0, folder)
            package = os.path.join(folder, "Dravenholt")
            names = [name[:-3] for name in os.listdir(package) if not name.startswith("__")]
            _schema = {name: __import__("Dravenholt." + name, fromlist=[name]) for name in names}
            sys.path.remove(folder)
        finally:
            shutil.rmtree(folder)
    return _schema


def make_event(uid=b"C1", details=b"details", ts=1.5, agent=None):
    """A Tn5250 event; texts are bytes, valid UTF-8 or not."""
    event, data = schema()["NetworkEvent"], schema()["Tn5250Data"]
    builder = flatbuffers.Builder(256)
    uid_at, details_at = builder.CreateString(uid), builder.CreateString(details)
    agent_at = None if agent is None else builder.CreateString(agent)
    data.Tn5250DataStart(builder)
    data.Tn5250DataAddDetails(builder, details_at)
    payload = data.Tn5250DataEnd(builder)
    event.NetworkEventStart(builder)
    event.NetworkEventAddUid(builder, uid_at)
    event.NetworkEventAddTs(builder, ts)
    if agent_at is not None:
        event.NetworkEventAddAgentId(builder, agent_at)
    event.NetworkEventAddDataType(builder, schema()["Data"].Data.Tn5250Data)
    event.NetworkEventAddData(builder, payload)
    builder.Finish(event.NetworkEventEnd(builder))
    return bytes(builder.Output())


def framed(*messages):
    """Messages as `collect --format raw` writes them."""
    return b"".join(struct.pack("<I", len(message)) + message for message in messages)
