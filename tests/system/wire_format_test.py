"""The programs of docs/wire-format.md, run as they stand there.

That the page's example is what its record becomes, and which column fills which field, is tested by
tests/unit/WireFormatDocumentTest.cc.
"""

import os
import re
import subprocess
import sys
import unittest

from cli_support import CliTest, SOURCE_DIR, needs_zmq, read_file, wait_for, write_file
from nats_support import NatsServer, needs_nats

try:
    import nats
except ImportError:
    nats = None


def block(kind):
    """The lines of the document's block that begins with ```KIND."""
    page = read_file(os.path.join(SOURCE_DIR, "docs", "wire-format.md"))
    return re.search(r"^```%s\n(.*?)^```$" % re.escape(kind), page, re.M | re.S).group(1)


def example_message():
    return bytes.fromhex("".join(line[8:] for line in block("hex").splitlines()))


class PythonProgramsTest(CliTest):
    def generate_code(self):
        """As the document's commands do, in a folder that has the sources in src."""
        os.symlink(os.path.join(SOURCE_DIR, "src"), "src")
        path = os.path.dirname(os.environ["ZMQWRITER_FLATC"]) + os.pathsep + os.environ["PATH"]
        commands = block("sh").splitlines()
        self.assertEqual(len(commands), 2)
        for command in commands:
            subprocess.run(command, shell=True, check=True, env=dict(os.environ, PATH=path))

    @needs_zmq
    def test_decoder_prints_the_example(self):
        self.generate_code()
        result = subprocess.run(
            [sys.executable, "-B", "-c", block("python")], capture_output=True,
            input=example_message(), env=dict(os.environ, PYTHONPATH="build/python"))
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertEqual(result.stdout.decode(),
                         "b'CwqM2s1lZ5OeXh4yQk' 1433419203.688105 b'agent-7' 1\n"
                         "4 51000 1234 b'ssl'\n")

    @needs_zmq
    def test_collector_receives_over_curve_and_skips_the_empty_message(self):
        self.keygen()
        write_file("collector.py", block("python collector"))
        endpoint = "ipc://" + os.path.join(os.getcwd(), "server")
        with open("out", "wb") as out:
            collector = subprocess.Popen(
                [sys.executable, "-B", "collector.py", "server.secret", endpoint],
                stdout=out, stderr=subprocess.STDOUT)
        self.addCleanup(collector.wait)
        self.addCleanup(collector.kill)
        agent = self.agent(endpoint)
        for message in (example_message(), b"", b"end"):
            agent.send(message)
        wait_for(lambda: read_file("out").count("\n") >= 2 or collector.poll() is not None, "2 lines")
        self.assertEqual(read_file("out").splitlines(),
                         ["%d bytes" % len(example_message()), "3 bytes"])

    @needs_nats
    @unittest.skipUnless(nats, "needs the Python package nats-py")
    def test_consumer_reads_the_stream_and_acknowledges(self):
        server = NatsServer(".").start()
        self.addCleanup(server.kill)
        with server.client() as client:
            client.make_stream("zmqwriter", subjects=["zmqwriter.>"])
            for _ in range(2):
                client.publish("zmqwriter.SslData.agent-7", example_message())
            with open("out", "wb") as out:
                consumer = subprocess.Popen([sys.executable, "-B", "-c", block("python consumer"),
                                             server.url], stdout=out, stderr=subprocess.STDOUT)
            self.addCleanup(consumer.wait)
            self.addCleanup(consumer.kill)
            wait_for(lambda: read_file("out").count("\n") >= 2 or consumer.poll() is not None,
                     "2 lines")
            line = "zmqwriter.SslData.agent-7 %d bytes" % len(example_message())
            self.assertEqual(read_file("out").splitlines(), [line] * 2)
            wait_for(lambda: client.request("$JS.API.CONSUMER.INFO.zmqwriter.example")
                     ["ack_floor"]["stream_seq"] == 2, "the acknowledgements")


if __name__ == "__main__":
    unittest.main()
