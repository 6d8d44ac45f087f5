"""setup/examples/zmqwriter-start: it repairs the spool, and the host starts in any case."""

import os
import plistlib
import re
import shutil
import struct
import subprocess
import unittest

from cli_support import CliTest, DEADLINE, SOURCE_DIR, ZMQWRITER, read_file, write_file

EXAMPLES = os.path.join(SOURCE_DIR, "setup", "examples")
INSTALLED = "/opt/zmqwriter/bin/zmqwriter-start"
SPOOL = "a spool"


def chunk(counted, payloads):
    """A file of the spool whose header counts so many of its records."""
    records, last = [], 0
    for payload in payloads:
        records.append(struct.pack("<HH", len(payload), last) + payload)
        last = len(payload)
    used = 12 + sum(map(len, records[:counted])) if counted else 0
    return b"ZMQF" + struct.pack("<II", used, counted) + b"".join(records)


class StartTest(CliTest):
    def setUp(self):
        super().setUp()
        os.mkdir("bin")
        shutil.copy(os.path.join(EXAMPLES, "zmqwriter-start"), "bin")
        os.symlink(ZMQWRITER, "bin/zmqwriter")

    def start_host(self, *host, **environment):
        return subprocess.run(["bin/zmqwriter-start", *host], timeout=DEADLINE, text=True,
                              capture_output=True,
                              env=dict(os.environ, ZMQWRITER_SPOOL=SPOOL, **environment))

    def test_spool_in_any_state_is_repaired_as_far_as_possible_before_the_host_starts(self):
        unclean = {"queue.dat": chunk(0, [b"one", b"two"])}
        for name, files, found, said in (
                ("missing", None, None, "there is no folder a spool, so nothing to repair; ZMQWRITER_SPOOL"),
                ("empty", {}, 0, "nothing to repair in 0 files"),
                ("sound", {"queue.dat": chunk(1, [b"one"])}, 1, "nothing to repair in 1 file"),
                ("unclean", unclean, 2, "header set to 2 records"),
                ("just created", {"queue.dat": b""}, 0, "header set to 0 records"),
                ("gap", {"queue.dat.1": chunk(1, [b"one"])}, 1, "renamed to a spool/queue.dat"),
                ("in use", unclean, 0, "in use by process %d" % os.getpid()),
                ("damaged", {"queue.dat": b"ZMQF"}, 0, "left as it is: queue.dat"),
                ("no room", unclean, 0, "nowhere/queue.dat.before-repair: cannot be written")):
            with self.subTest(name):
                shutil.rmtree(SPOOL, ignore_errors=True)
                if files is not None:
                    os.mkdir(SPOOL)
                for file, content in (files or {}).items():
                    write_file(os.path.join(SPOOL, file), content)
                used = open(os.path.join(SPOOL, "queue.dat")) if name == "in use" else None
                # The stand-in for the host says what a start finds.
                host = self.start_host(
                    "bin/zmqwriter", "spool", "list", SPOOL,
                    **({"ZMQWRITER_COPIES": "nowhere"} if name == "no room" else {}))
                if used:
                    used.close()
                self.assertIn(said, host.stderr)
                self.assertEqual("may be lost" in host.stderr,
                                 name in ("in use", "damaged", "no room"), host.stderr)
                if found is None:
                    self.assertIn("a spool: cannot be read", host.stderr)
                else:
                    self.assertTrue(host.stdout.startswith("file "), host.stdout)
                    self.assertIn("the next start of the plug-in finds %d\n" % found, host.stderr)

    def test_host_takes_the_place_of_the_script_with_its_arguments_and_status(self):
        host = subprocess.Popen(
            ["bin/zmqwriter-start", "sh", "-c", 'echo "$$:$1"; exit 7', "sh", "two words"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
            env=dict(os.environ, ZMQWRITER_SPOOL=SPOOL))
        self.assertEqual(host.communicate(timeout=DEADLINE)[0], "%d:two words\n" % host.pid)
        self.assertEqual(host.returncode, 7)
        self.assertEqual(self.start_host().returncode, 0)

    def test_last_ten_copies_stay(self):
        os.mkdir(SPOOL)
        os.mkdir("copies")
        write_file("copies/agent.log", "")
        for number in range(1, 13):
            name = "copies/queue.dat.before-repair" + (".%d" % number if number > 1 else "")
            write_file(name, "")
            os.utime(name, (number, number))
        write_file(os.path.join(SPOOL, "queue.dat"), chunk(0, [b"one"]))
        host = self.start_host(ZMQWRITER_COPIES="copies")
        self.assertIn("kept as it was in copies/queue.dat.before-repair.13\n", host.stderr)
        self.assertEqual(sorted(os.listdir("copies")), sorted(
            ["agent.log"] + ["queue.dat.before-repair.%d" % number for number in range(4, 14)]))

    def test_examples_for_services_run_it_before_the_host(self):
        with open(os.path.join(EXAMPLES, "org.example.zmqwriter-host.plist"), "rb") as file:
            command = plistlib.load(file)["ProgramArguments"]
        self.assertEqual((command[0], os.path.basename(command[1])), (INSTALLED, "bro"))
        drop_in = os.path.join(EXAMPLES, "zmqwriter-repair.conf")
        before = re.search(r"(?m)^ExecStartPre=-(.*)$", read_file(drop_in)).group(1).split()
        self.assertEqual(before[-1], INSTALLED)
        if not shutil.which("systemd-analyze"):
            return
        os.mkdir("bro.service.d")
        shutil.copy(drop_in, "bro.service.d")
        write_file("bro.service", "[Service]\nExecStart=%s\n" % ZMQWRITER)
        verified = subprocess.run(["systemd-analyze", "verify", os.path.abspath("bro.service")],
                                  capture_output=True, text=True, timeout=DEADLINE)
        self.assertNotRegex(verified.stderr, r"bro\.service|zmqwriter-repair")


if __name__ == "__main__":
    unittest.main()
