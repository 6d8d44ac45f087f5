"""zmqwriter check, end to end: what it finds, what it says of real servers, and no trace left."""

import contextlib
import json
import os
import shutil
import socket
import subprocess
import threading
import unittest

from cli_support import (CliTest, DEADLINE, PLUGIN, ZMQWRITER, needs_zmq, read_file, totals, write_file)

try:
    import zmq
    import zmq.utils.z85
except ImportError:
    zmq = None

KEY = "0F1E2D3C4B5A69788796A5B4C3D2E1F0" * 2
NOBODY = 65534


class CheckTestCase(CliTest):
    def setUp(self):
        super().setUp()
        os.mkdir("orvik-spool")

    def settings(self, server="127.0.0.1:9", key=KEY, more=""):
        write_file("settings", "zmq.server = %s\nzmq.public_key = %s\n%s" % (server, key, more))

    def check(self, *arguments, plugin=PLUGIN):
        return self.run_tool("check", "--settings", "settings", "--plugin", plugin, *arguments)

    def report(self, *arguments, **options):
        """The JSON form as a dictionary; the exit status agrees with it."""
        result = self.check("--json", *arguments, **options)
        report = json.loads(result.stdout)
        self.assertEqual(report["ok"], result.returncode == 0, result.stdout)
        return report

    def found(self, report, notes=False):
        """The findings' ids, but for the room on this machine's disk."""
        return [finding["id"] for finding in report["findings"]
                if (notes or finding["severity"] != "note") and
                finding["id"] not in ("spool-disk-space", "spool-disk-full")]


class ConfigurationTest(CheckTestCase):
    def test_good_configuration_is_all_well(self):
        self.settings()
        result = self.check()
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertIn(b"All well: 0 errors, 0 warnings", result.stdout)
        self.assertEqual(self.found(self.report()), [])

    def test_nothing_is_created_or_changed(self):
        def tree():
            return sorted((folder, name, os.stat(os.path.join(folder, name)).st_mtime_ns)
                          for folder, folders, files in os.walk(".") for name in folders + files)
        self.settings(more="zmq.secondary_servers = ipc://x\n")
        before = tree()
        self.check()
        self.check("--connect")
        self.assertEqual(tree(), before)

    def test_every_setting_is_shown_with_its_origin(self):
        self.settings(more="disk.usage.absolute = 70\n")
        report = self.report("--set", "LogZMQ::zmq_secondary_server=a",
                             "--set", "LogZMQ::zmq_primary_server=unused",
                             "--set", 'LogZMQ::set_separator=a\\"b')
        self.assertEqual([(one["name"], one["value"], one["source"]) for one in report["settings"]],
                         [("zmq.server", "127.0.0.1:9", "settings file"),
                          ("zmq.public_key", KEY, "settings file"),
                          ("zmq.secondary_servers", "a", "script constant"),
                          ("disk.usage.relative", 10, "default"),
                          ("disk.usage.absolute", 70, "settings file"),
                          ("pqueue.chunk.size", 10, "default"),
                          ("LogZMQ::zmq_agent_id", "", "default"),
                          ("LogZMQ::set_separator", 'a"b', "script constant"),
                          ("LogZMQ::empty_field", "(empty)", "default"),
                          ("LogZMQ::unset_field", "-", "default")])
        self.assertEqual([one["uri"] for one in report["endpoints"]],
                         ["tcp://127.0.0.1:9", "tcp://a:5555"])

    def test_findings_of_every_kind_come_together(self):
        self.settings("ipc:///tmp/x", KEY.lower(), "zmq.secondary_servers = [::1]\n"
                      "disk.usage.absolute = 4096\npqueue.chunk.size = many\nzmq.typo = b\n")
        os.rmdir("orvik-spool")
        os.mkdir("orvik")
        write_file("orvik/agent.id", "agent\n")
        report = self.report()
        self.assertEqual(sorted(self.found(report)),
                         ["agent-id-line-end", "disk-limit-wraps", "endpoint-no-port",
                          "endpoint-port-appended", "key-lower-case", "setting-not-a-number",
                          "setting-unknown", "spool-parent-missing"])
        self.assertEqual(report["disk"]["limit_bytes"], 0)
        self.assertEqual(report["agent_id"]["value"], "agent\n")
        self.assertEqual(report["agent_id"]["path"], "orvik/agent.id")
        self.assertEqual(report["plugin"]["folder"], PLUGIN)
        self.assertEqual((report["spool"]["state"], report["spool"]["folder"]),
                         ("disabled", "orvik-spool/work"))
        write_file("settings", "")
        self.assertEqual(self.found(self.report())[:2], ["server-missing", "key-missing"])

    def test_rotation_is_noted_where_it_is_on(self):
        self.settings()
        for interval, noted in ((None, False), ("1hr", True), ("0secs", False), ("0.5 days", True),
                                ("", False)):
            more = [] if interval is None else ["--set", "Log::default_rotation_interval=" + interval]
            self.assertEqual("rotation" in self.found(self.report(*more), notes=True), noted, interval)

    def test_settings_that_cannot_be_read_are_found(self):
        os.mkdir("folder")
        write_file("settings", "zmq.server = x\nnonsense\n")
        # Reading from the memory file of a process at its start is an error of the system.
        for name in (["settings", "missing", "folder"] +
                     ["/proc/self/mem"] * os.path.exists("/proc/self/mem")):
            with self.subTest(name):
                report = json.loads(self.run_tool("check", "--settings", name, "--plugin", PLUGIN,
                                                  "--json").stdout)
                self.assertEqual(self.found(report), ["settings-unreadable"])
                self.assertIsNone(report["settings"])
                self.assertIn(name + (":2:" if name == "settings" else ""),
                              report["findings"][0]["text"])

    def test_plug_in_that_cannot_be_loaded_is_found(self):
        self.settings()
        self.assertEqual(self.found(self.report(plugin=".")), ["plugin-not-loaded"])
        report = self.report("--set", "LogZMQ::no_such_option=1")
        self.assertEqual(self.found(report), ["plugin-not-loaded"])
        self.assertIn("LogZMQ::no_such_option", report["findings"][0]["text"])

    def test_report_that_cannot_be_written_is_a_failure(self):
        self.settings()
        with open("/dev/full", "w") as full:
            result = subprocess.run([ZMQWRITER, "check", "--settings", "settings", "--plugin",
                                     PLUGIN], stdout=full, stderr=subprocess.PIPE, timeout=DEADLINE)
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"No space left", result.stderr)

    def installed(self, plugin, **options):
        """The report of a copy of the program, which finds a copy of the plug-in by itself."""
        os.mkdir("bin")
        shutil.copy(ZMQWRITER, "bin/zmqwriter")
        shutil.copytree(PLUGIN, plugin)
        self.settings()
        os.chmod("orvik-spool", 0o555)
        self.addCleanup(os.chmod, os.path.abspath("orvik-spool"), 0o755)
        os.chmod(".", 0o555)
        self.addCleanup(os.chmod, os.getcwd(), 0o755)
        result = subprocess.run(["bin/zmqwriter", "check", "--settings", "settings", "--json"],
                                capture_output=True, timeout=DEADLINE, **options)
        return json.loads(result.stdout)

    def test_write_access_is_that_of_the_user_who_asks(self):
        # A user who may neither read the build folder nor the temporary one gets copies.
        options = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.geteuid() == 0 else {}
        self.assertEqual(self.found(self.installed("plugin", **options), notes=True),
                         ["spool-parent-not-writable", "agent-id-not-kept"])

    def test_installed_program_finds_the_plugin_installed_with_it(self):
        report = self.installed("lib/zmqwriter/plugin")
        self.assertEqual(report["plugin"]["folder"], os.getcwd() + "/lib/zmqwriter/plugin")


@needs_zmq
class ConnectTest(CheckTestCase):
    """Each test has a server of its own kind."""

    def setUp(self):
        super().setUp()
        self.context = zmq.Context()
        self.addCleanup(self.context.term)
        self.public, self.secret = zmq.curve_keypair()

    def hexadecimal(self, key):
        return zmq.utils.z85.decode(key).hex().upper()

    def server(self, kind=None, mechanism="CURVE"):
        """A bound socket that is a server; its address is kept."""
        bound = self.context.socket(zmq.PULL if kind is None else kind)
        self.addCleanup(bound.close, 0)
        if mechanism == "CURVE":
            bound.curve_server, bound.curve_secretkey = True, self.secret
        elif mechanism == "PLAIN":
            bound.plain_server = True
        self.address = "127.0.0.1:%d" % bound.bind_to_random_port("tcp://127.0.0.1")
        return bound

    def raw_server(self, talk=None):
        """A listening TCP socket; with `talk`, a thread does that with each connection."""
        listening = socket.socket()
        self.addCleanup(listening.close)
        listening.bind(("127.0.0.1", 0))
        listening.listen(5)
        self.address = "127.0.0.1:%d" % listening.getsockname()[1]

        def serve():
            with contextlib.suppress(OSError):
                while True:
                    connection, _ = listening.accept()
                    with connection:
                        talk(connection)
        if talk:
            threading.Thread(target=serve, daemon=True).start()
        return listening

    def zap(self, status):
        """Answers every question of a server with this status; None never answers."""
        handler = self.context.socket(zmq.REP)
        handler.bind("inproc://zeromq.zap.01")

        def answer():
            with handler, contextlib.suppress(zmq.ContextTerminated):
                while True:
                    question = handler.recv_multipart()
                    if status is None:
                        handler.poll()  # until the end
                    handler.send_multipart([question[0], question[1], status, b"", b"", b""])
        threading.Thread(target=answer, daemon=True).start()

    def connect(self, server=None, key=None, more="", timeout="60"):
        self.settings(server or self.address, key or self.hexadecimal(self.public), more)
        report = self.report("--connect", "--timeout", timeout)
        self.assertEqual(len(report["connect"]), len(report["endpoints"]))
        return report

    def outcome(self, *arguments, **options):
        """Of the only endpoint; it must be the only finding, too, if it failed."""
        report = self.connect(*arguments, **options)
        result = report["connect"][0]
        self.assertEqual(self.found(report), [] if result["ok"] else [result["outcome"]])
        self.assertNotEqual(result["text"], "")
        if not result["ok"]:
            self.assertNotEqual(result["what_to_do"], "")
        self.text = result["text"]
        return result["outcome"]

    def assert_times_out(self, expected, *arguments):
        """A slow machine needs longer to come so far."""
        if self.outcome(*arguments, timeout="0.5") != expected:
            self.assertEqual(self.outcome(*arguments, timeout="20"), expected)

    def test_collector_sees_no_message(self):
        collector = self.collect()
        self.settings(collector.endpoint, read_file("server.public").strip())
        for _ in range(5):
            self.assertEqual(self.check("--connect").returncode, 0)
        self.settings(collector.endpoint, KEY)
        self.assertEqual(self.check("--connect").returncode, 1)
        self.end(collector)
        end = totals(collector)
        self.assertEqual((end["events"], end["empty messages"], end["malformed messages"],
                          end["multi-part messages"]), (0, 0, 0, 0))
        self.assertEqual(collector.lines(), [])

    def test_time_of_any_size_is_a_time(self):
        self.server()
        self.assertEqual(self.outcome(timeout="1e300"), "connected")
        self.raw_server()
        report = self.connect(timeout="0.0001")
        self.assertFalse(report["connect"][0]["ok"])
        self.assertIn("within 0.001 s", report["connect"][0]["text"])

    def test_server_that_takes_no_connection(self):
        # A full queue of connections: the system drops further ones without a word.
        listening = socket.socket()
        self.addCleanup(listening.close)
        listening.bind(("127.0.0.1", 0))
        listening.listen(0)
        address = listening.getsockname()
        for _ in range(8):
            filler = socket.socket()
            self.addCleanup(filler.close)
            filler.setblocking(False)
            filler.connect_ex(address)
        probe = socket.socket()
        self.addCleanup(probe.close)
        probe.settimeout(0.5)
        with self.assertRaises(socket.timeout):
            probe.connect(address)
        self.assert_times_out("connect-timed-out", "127.0.0.1:%d" % address[1])

    def curve_impostor(self, answer):
        """Greets as a CURVE server and answers the first command with this one."""
        greeting = b"\xff" + bytes(8) + b"\x7f\x03\x00" + b"CURVE".ljust(52, b"\0")
        frame = bytes([4, len(answer)]) + answer

        def talk(connection):
            connection.sendall(greeting)
            received = b""
            while len(received) < 64 + 202:  # their greeting and HELLO
                data = connection.recv(1000)
                if not data:
                    return
                received += data
            connection.sendall(frame)
            while connection.recv(1000):
                pass
        self.raw_server(talk)

    def test_server_that_answers_something_else(self):
        self.curve_impostor(b"\x07WELCOME" + bytes(160))
        self.assertEqual(self.outcome(), "connect-wrong-key")
        self.curve_impostor(b"\x08NONSENSE")
        self.assertEqual(self.outcome(), "connect-protocol")
        self.assertRegex(self.text, "protocol error 0x[0-9a-f]{8}$")

    def test_key_of_another_form_connects_where_check_says_that_it_is_the_same(self):
        self.server()
        key = self.hexadecimal(self.public)
        # One without letters would be the same in either case; there is one in 10^13.
        for written, severity, found in (
                (key.lower(), "error", ["connect-wrong-key", "key-lower-case"]),
                (key + "0", "warning", ["key-too-long"]),
                (self.public.hex().upper(), "warning", ["key-too-long"])):  # the digits of Z85
            report = self.connect(key=written)
            self.assertEqual(sorted(self.found(report)), found)
            self.assertEqual(report["findings"][0]["severity"], severity)
            self.assertEqual("no event leaves" in report["findings"][0]["text"],
                             severity == "error")
            self.assertEqual(report["connect"][0]["ok"], severity == "warning")

    def test_server_of_another_mechanism(self):
        for mechanism in ("NULL", "PLAIN"):
            self.server(mechanism=mechanism)
            self.assertEqual(self.outcome(), "connect-mechanism")
            self.assertIn(mechanism, self.text)

    def test_server_that_denies(self):
        self.zap(b"400")
        self.server()
        self.assertEqual(self.outcome(), "connect-denied")
        self.assertIn("ZAP status 400", self.text)

    def test_server_whose_check_does_not_answer(self):
        self.zap(None)
        self.server()
        self.assert_times_out("connect-unfinished")

    def test_collector_that_denies(self):
        self.keygen()
        other, _ = zmq.curve_keypair()
        write_file("allowed", self.hexadecimal(other) + "\n")
        collector = self.collect("--allow", "allowed")
        self.assertEqual(self.outcome(collector.endpoint, read_file("server.public").strip()),
                         "connect-denied")

    def test_server_of_another_socket_type(self):
        # libzmq's server closes the connection as it does on a wrong key: the text names both.
        self.server(zmq.PUB)
        self.assertEqual(self.outcome(), "connect-wrong-key")
        self.assertIn("not a PULL socket", self.text)

    def test_program_of_another_protocol(self):
        self.raw_server(lambda connection: None)  # hangs up
        self.assertEqual(self.outcome(), "connect-not-zmq")
        answer = b"HTTP/1.1 400 Bad Request\r\n" * 9
        self.raw_server(lambda connection: (connection.recv(1), connection.sendall(answer)))
        self.assertEqual(self.outcome(), "connect-not-zmq")

    def test_unreachable_address(self):
        # The system's own answer to a broadcast address, without a packet on any network.
        self.assertEqual(self.outcome("255.255.255.255:5555"), "connect-unreachable")

    def test_endpoint_that_is_wrong_already_is_not_tried(self):
        report = self.connect("a b")
        self.assertEqual(self.found(report), ["endpoint-characters"])
        self.assertEqual(report["connect"][0]["outcome"], "not-tried")

    def test_each_endpoint_is_tried(self):
        self.server()
        closed = socket.socket()
        self.addCleanup(closed.close)
        closed.bind(("127.0.0.1", 0))
        report = self.connect(more="zmq.secondary_servers = 127.0.0.1:%d\n" %
                              closed.getsockname()[1])
        self.assertEqual([(one["role"], one["outcome"]) for one in report["connect"]],
                         [("primary server", "connected"),
                          ("secondary server 1", "connect-refused")])
        text = self.check("--connect").stdout.decode()
        self.assertRegex(text, r"primary server +tcp://\S+ +ok +[\d.]+ s +connected, handshake")
        self.assertRegex(text, r"secondary server 1 +tcp://\S+ +failed +[\d.]+ s +connect-refused")

    def test_nothing_is_connected_unless_asked(self):
        listening = self.raw_server()
        self.settings(self.address)
        self.assertIsNone(self.report()["connect"])
        listening.setblocking(False)
        with self.assertRaises(BlockingIOError):
            listening.accept()


if __name__ == "__main__":
    unittest.main()
