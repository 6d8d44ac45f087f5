"""docs/wire-format.md: its tables against the schema, its example byte by byte, its programs run.

That the example is what its record becomes, and what feeds which field, is for
tests/unit/WireFormatDocumentTest.cc.
"""

import os
import subprocess
import sys
import unittest

try:
    from zmq.utils.monitor import recv_monitor_message
except ImportError:
    recv_monitor_message = None  # and zmq is None, too: see needs_zmq

import wire_format_document as document
from cli_support import CliTest, SOURCE_DIR, needs_zmq, read_file, schema, wait_for, write_file, zmq


class WireFormatTest(CliTest):
    def test_tables_are_those_of_the_schema_field_by_field(self):
        self.assertEqual(document.documented_tables(), document.schema_tables())

    def test_payload_types_and_transports_are_those_of_the_schema(self):
        text = document.read_source("docs", "wire-format.md")
        for number, name in document.schema_values("union", "Data").items():
            self.assertIn("\n| %d | `%s` | " % (number, name), text)
        for number, name in document.schema_values("enum", "Transport").items():
            self.assertIn("%d `%s`" % (number, name), text)

    def test_each_byte_of_the_example_is_explained_as_it_is(self):
        message = document.example_message()
        rows = document.example_rows()
        self.assertEqual(rows, document.Annotator(message).rows)
        self.assertEqual(b"".join(content for _, content, _, _ in rows), message)
        self.assertIn("this message of %d bytes" % len(message),
                      document.read_source("docs", "wire-format.md"))

    @needs_zmq
    def test_the_example_decodes_to_its_record(self):
        record = {name: value for name, _, value in
                  (line.split() for line in document.block("record").splitlines())}
        event = schema()["NetworkEvent"].NetworkEvent.GetRootAs(document.example_message(), 0)
        connection = schema()["GeneralData"].GeneralData()
        connection.Init(event.Data().Bytes, event.Data().Pos)
        address = [b".".join(b"%d" % (read(i) & 255) for i in range(4))
                   for read in (connection.OrigH, connection.RespH)]
        self.assertEqual(
            [event.Uid().decode(), repr(event.Ts()), address[0].decode(), address[1].decode(),
             str(connection.OrigP()), str(connection.RespP()), connection.ConnState().decode(),
             connection.Service().decode()],
            [record[name] for name in ("uid", "ts", "id.orig_h", "id.resp_h", "id.orig_p",
                                       "id.resp_p", "conn_state", "service")])
        self.assertEqual((event.AgentId(), event.TzMinutesWest(), event.DataType()),
                         (b"agent-7", -120, 1))
        self.assertEqual((connection.Proto(), connection.Duration(), connection.LocalOrig(),
                          connection.History(), connection.Username()), (1, 1234, 1, b"", None))
        self.assertEqual(connection.OrigBytes(), int(record["orig_bytes"]) % 2**32)


class PythonProgramsTest(CliTest):
    """The document's programs, run as they stand there."""

    def generate_code(self):
        """As the document's commands do, in a folder that has the sources in src."""
        os.symlink(os.path.join(SOURCE_DIR, "src"), "src")
        path = os.path.dirname(os.environ["ZMQWRITER_FLATC"]) + os.pathsep + os.environ["PATH"]
        commands = document.block("sh").splitlines()
        self.assertEqual(len(commands), 2)
        for command in commands:
            subprocess.run(command, shell=True, check=True, env=dict(os.environ, PATH=path))

    @needs_zmq
    def test_decoder_prints_the_example(self):
        self.generate_code()
        result = subprocess.run(
            [sys.executable, "-B", "-c", document.block("python")], capture_output=True,
            input=document.example_message(), env=dict(os.environ, PYTHONPATH="build/python"))
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertEqual(result.stdout.decode(),
                         "b'CwqM2s1lZ5OeXh4yQk' 1433419203.688105 b'agent-7' 1\n"
                         "4 51000 1234 b'ssl'\n")

    def start_collector(self):
        """The document's; returns its endpoint. What it prints is in the file out."""
        self.keygen()
        write_file("collector.py", document.block("python collector"))
        endpoint = "ipc://" + os.path.join(os.getcwd(), "server")
        with open("out", "wb") as out:
            collector = subprocess.Popen(
                [sys.executable, "-B", "collector.py", "server.secret", endpoint],
                stdout=out, stderr=subprocess.STDOUT)
        self.addCleanup(collector.wait)
        self.addCleanup(collector.kill)
        self.collector = collector
        return endpoint

    def expect_output(self, *lines):
        wait_for(lambda: read_file("out").count("\n") >= len(lines) or self.collector.poll() is not None,
                 "%d lines" % len(lines))
        self.assertEqual(read_file("out").splitlines(), list(lines))

    @needs_zmq
    def test_collector_receives_over_curve_and_skips_the_empty_message(self):
        agent = self.agent(self.start_collector())
        for message in (document.example_message(), b"", b"end"):
            agent.send(message)
        self.expect_output("%d bytes" % len(document.example_message()), "3 bytes")

    @needs_zmq
    def test_collector_takes_nothing_from_an_agent_with_another_server_key(self):
        endpoint = self.start_collector()
        stranger = self.agent(endpoint, zmq.curve_keypair()[0])
        events = stranger.get_monitor_socket()
        self.addCleanup(events.close)
        self.addCleanup(stranger.disable_monitor)
        stranger.send(b"strange")
        # Whether the handshake succeeds is known before anything else is sent.
        outcomes = (zmq.EVENT_HANDSHAKE_SUCCEEDED, zmq.EVENT_HANDSHAKE_FAILED_PROTOCOL,
                    zmq.EVENT_HANDSHAKE_FAILED_NO_DETAIL, zmq.EVENT_DISCONNECTED)
        wait_for(lambda: events.poll(0) and recv_monitor_message(events)["event"] in outcomes,
                 "the end of the handshake")
        self.agent(endpoint).send(b"end")
        self.expect_output("3 bytes")


if __name__ == "__main__":
    unittest.main()
