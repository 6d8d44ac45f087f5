"""The command line of zmqwriter: manners, keygen, collect, decode."""

import json
import os
import re
import resource
import shutil
import stat
import subprocess
import sys
import unittest

from cli_support import (CliTest, DEADLINE, SOURCE_DIR, ZMQWRITER, framed, make_event, needs_zmq,
                         read_file, totals, wait_for, write_file, zmq)
from nats_support import WITH_NATS

SUBCOMMANDS = ["keygen", "collect", "replay", "decode", "spool"]


class UsageTest(CliTest):
    def test_help_goes_to_standard_output(self):
        self.assertEqual(self.run_tool("help", "help").stdout, self.run_tool("help").stdout)
        for words in [[]] + [[name] for name in SUBCOMMANDS] + [["spool", "list"]]:
            result = self.run_tool(*words, "--help")
            self.assertEqual((result.returncode, result.stderr), (0, ""), words)
            self.assertIn(b"Usage: zmqwriter", result.stdout)
            self.assertLessEqual(max(map(len, result.stdout.splitlines())), 96, words)
            self.assertEqual(self.run_tool("help", *words).stdout, result.stdout)

    def test_version_is_the_projects(self):
        version = read_file(os.path.join(SOURCE_DIR, "VERSION")).split("\n")[0]
        for option in ("--version", "-V"):
            result = self.run_tool(option)
            self.assertEqual((result.returncode, result.stdout.decode()),
                             (0, "zmqwriter %s\n" % version))

    def test_wrong_usage_is_status_two_with_a_hint_and_no_output(self):
        collect = ["collect", "--bind", "tcp://127.0.0.1:*", "--secret-key", "x"]
        output = collect + ["--output", "o"]
        stream = collect + ["--to", "nats://h:1"]
        replay = ["replay", "--settings", "x", "x.log"]
        check = ["check", "--settings", "x"]
        for arguments, hint in [
                ([], "subcommand"),
                (["nonsense"], "unknown subcommand 'nonsense'\n"),
                (["spool", "nonsense"], "unknown subcommand 'nonsense'\n"),
                (["colect"], "unknown subcommand 'colect'; did you mean 'collect'?\n"),
                (["help", "spool", "lits"], "unknown subcommand 'lits'; did you mean 'list'?\n"),
                (["hlep"], "unknown subcommand 'hlep'; did you mean 'help'?\n"),
                (["--versoin"], "unknown option '--versoin'; did you mean '--version'?\n"),
                (["collect", "--bnd=x"], "unknown option '--bnd'; did you mean '--bind'?\n"),
                (["collect", "-q"], "unknown option '-q'\n"),
                (["keygen", "--dir", ""], "the folder's name is empty"),
                (["keygen", "--nonsense"], "--nonsense"),
                (["keygen", "--dir", "a", "--public", "b"], "excludes"),
                (["keygen", "extra"], "extra"),
                (["collect"], "--bind"),
                (["collect", "--bind", "tcp://127.0.0.1:*"], "--secret-key"),
                (collect + ["--format", "xml"], "xml"),
                (collect + ["--count", "0"], "positive number"),
                (collect + ["--count", "-3"], "'-3'"),
                (collect + ["--count", "0x2"], "'0x2'"),
                (collect + ["--count", "010"], "'010'"),
                (collect + ["--count", "2.0"], "'2.0'"),
                (collect + ["--count", "18446744073709551616"], "below 2^64"),
                (collect + ["--timeout", "inf"], "finite positive number"),
                (collect + ["--timeout", "soon"], "positive number"),
                (collect + ["--output", ""], "the name is empty"),
                (collect + ["--allow", ""], "the name is empty"),
                (collect + ["--rotate-size", "10"], "--output"),
                (collect + ["--output", "-", "--rotate-size", "10"],
                 "standard output takes neither"),
                (output + ["--rotate-keep", "2"], "--rotate-size"),
                (output + ["--rotate-size", "0"], "positive number"),
                (output + ["--rotate-size", "-1"], "'-1' must be a positive number"),
                (output + ["--rotate-size", "10X"], "like 5000000 or 10M"),
                (output + ["--rotate-size", "99999999999T"], "like 5000000 or 10M"),
                (output + ["--rotate-size", "1", "--rotate-keep", "0"], "positive number"),
                (collect + ["--stats", "inf"], "finite positive number"),
                (collect + ["--stats", "0.0099"], "must be 0.01 or more"),
                (collect + ["--bind", "tcp://127.0.0.1:99999"], "must be tcp://HOST:PORT"),
                (collect + ["--metrics", "127.0.0.1:65536"], "must be HOST:PORT"),
                (["replay"], "--settings"),
                (replay[:3], "LOG"),
                (["replay", "x.log"], "--settings"),
                (replay + ["--set", "nonsense"], "LogZMQ::NAME=VALUE"),
                (replay + ["--rate", "0"], "positive number"),
                (replay + ["--rate", "nan"], "finite"),
                (replay + ["--rate", "1e400"], "finite"),
                (replay + ["--drain", "-1"], "not negative"),
                (["check"], "--settings"),
                (["check", "--settings", ""], "must name a file"),
                (check + ["--timeout", "0"], "positive number"),
                (check + ["--timeout", "soon"], "positive number"),
                (check + ["--set", "nonsense"], "LogZMQ::NAME=VALUE"),
                (check + ["surplus"], "surplus"),
                (["completion", "tcsh"], "{bash,zsh,fish}")] + WITH_NATS * [
                (collect + ["--to", "nats://me:pass@h:1"], "no secret belongs on the command line"),
                (collect + ["--to", "http://h:1"], "must be nats://HOST:PORT or tls://HOST:PORT"),
                (stream + ["--create-stream", "replicas=9"], "replicas must be 1 to 5"),
                (stream + ["--window", "0"], "must be like 4096"),
                (stream + ["--window", "9,1G"], "takes more memory than --max-memory"),
                (stream + ["--prefix", "a.*"], "must be words with dots between"),
                (stream + ["--format", "text"], "published as raw or json"),
                (stream + ["--nats-key", "k"], "--nats-cert"),
                (stream + ["--output", "o", "--unsent", "./o"],
                 "--unsent: the events of --output go to this file"),
                (collect + ["--unsent", "file"], "--to"),
                (["check", "--to", "nats://h:1", "--settings", "x"], "--settings excludes --to"),
                (["check", "--to", "nats://h:1", "--connect"], "--connect excludes --to")]:
            result = self.run_tool(*arguments)
            self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)
            self.assertIn(hint, result.stderr)
            self.assertIn("--help", result.stderr)
            self.assertNotIn("pass@", result.stderr)


class KeygenTest(CliTest):
    def test_makes_a_pair_in_the_plugins_form_and_never_prints_the_secret(self):
        result = self.run_tool("keygen")
        self.assertEqual(result.returncode, 0)
        self.assertNotIn(read_file("server.secret").strip(), result.stderr)
        for name in ["server.public", "server.secret"]:
            self.assertRegex(read_file(name), r"\A[0-9A-F]{64}\n\Z")
        self.assertEqual(result.stdout.decode(), "zmq.public_key = " + read_file("server.public"))

    @needs_zmq
    def test_the_two_keys_belong_together(self):
        self.keygen()
        from zmq.utils import z85
        secret = z85.encode(bytes.fromhex(read_file("server.secret")))
        public = z85.encode(bytes.fromhex(read_file("server.public")))
        self.assertEqual(zmq.curve_public(secret), public)

    def test_two_runs_make_different_pairs(self):
        self.run_tool("keygen", "--dir", "a")
        self.run_tool("keygen", "--dir", "b")
        self.assertNotEqual(read_file("a/server.secret"), read_file("b/server.secret"))

    def test_public_key_is_derived_from_the_secret_one_and_not_from_itself(self):
        self.run_tool("keygen", "--dir", "keys")
        result = self.run_tool("keygen", "--public", "keys/server.secret")
        self.assertEqual((result.returncode, result.stdout.decode()),
                         (0, read_file("keys/server.public")))
        write_file("keys/copy", read_file("keys/server.public"))
        for public in ("keys/server.public", "keys/copy"):
            for arguments in (["keygen", "--public"],
                              ["collect", "--bind", "tcp://127.0.0.1:*", "--secret-key"]):
                result = self.run_tool(*arguments, public)
                self.assertEqual(result.returncode, 1)
                self.assertIn(public + ": this is the public key", result.stderr)
        write_file("keys/server.public", "zmq.public_key = " + read_file("keys/copy"))
        self.assertEqual(self.run_tool("keygen", "--public", "keys/server.secret").stdout.decode(),
                         read_file("keys/copy"))

    def test_secret_is_for_its_owner_only_whatever_the_umask(self):
        for umask in (0o000, 0o022, 0o077):
            folder = "keys-%o" % umask
            self.run_tool("keygen", "--dir", folder,
                          preexec_fn=lambda umask=umask: os.umask(umask) and None)
            mode = stat.S_IMODE(os.stat(folder + "/server.secret").st_mode)
            self.assertEqual(mode, 0o600)

    def test_refuses_to_overwrite_and_leaves_everything_as_it_was(self):
        for existing, other in [("server.public", "server.secret"),
                                ("server.secret", "server.public")]:
            write_file(existing, "precious\n")
            result = self.run_tool("keygen")
            self.assertEqual((result.returncode, result.stdout), (1, b""))
            self.assertIn(existing + ": exists already", result.stderr)
            self.assertEqual(read_file(existing), "precious\n")
            self.assertFalse(os.path.exists(other), "half a pair was left")
            os.remove(existing)

    def test_does_not_follow_a_link_in_the_secrets_place(self):
        os.symlink("elsewhere", "server.secret")
        self.assertEqual(self.run_tool("keygen").returncode, 1)
        self.assertFalse(os.path.exists("elsewhere"))

    def test_folder_that_cannot_be_made_is_a_failure_by_name(self):
        result = self.run_tool("keygen", "--dir", "no/such/folder")
        self.assertEqual(result.returncode, 1)
        self.assertIn("no/such/folder: cannot create the folder", result.stderr)

    def test_full_output_is_a_failure(self):
        if not os.path.exists("/dev/full"):
            self.skipTest("needs /dev/full")
        with open("/dev/full", "w") as full:
            result = subprocess.run([ZMQWRITER, "keygen"], stdout=full, stderr=subprocess.PIPE)
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"cannot write the output", result.stderr)


@needs_zmq
class CollectTest(CliTest):
    def test_each_event_is_printed_as_soon_as_it_has_come(self):
        collector = self.collect("--json-bytes", "base64")
        agent = self.agent(collector.endpoint)
        for number, uid in enumerate((b"C0", b"C1", b"C\xff")):
            agent.send(make_event(uid=uid))
            wait_for(lambda: len(collector.lines()) == number + 1, "the event's line")
        self.assertEqual([json.loads(line)["uid"] for line in collector.lines()],
                         ["C0", "C1", {"base64": "Q/8="}])

    def test_bad_messages_are_counted_and_the_wanted_count_of_events_ends_it(self):
        collector = self.collect("--count", "2")
        agent = self.agent(collector.endpoint)
        event = make_event()
        agent.send(event)
        agent.send(b"")
        agent.send(event[:-4])
        agent.send_multipart([event, b"more", b""])
        for _ in range(99):
            agent.send(b"this is no event")
        for _ in range(5):
            agent.send(event)
        self.assertEqual(collector.wait(), 0)
        self.assertEqual(len(collector.lines()), 2)
        self.assertEqual(totals(collector),
                         {"events": 2, "Tn5250Data": 2, "empty messages": 1,
                          "malformed messages": 100, "multi-part messages": 1})
        self.assertIn("events: 2 (%d bytes)" % (2 * len(event)), collector.stderr)
        # Of all that are bad, ten are reported.
        self.assertEqual(collector.stderr.count(" skipped: "), 10)
        self.assertIn("these 16 bytes are no event message", collector.stderr)

    def test_time_out_without_the_wanted_count_is_a_failure(self):
        collector = self.collect("--count", "2", "--timeout", "0.5")
        self.agent(collector.endpoint).send(make_event())
        self.assertEqual(collector.wait(), 1)
        self.assertRegex(collector.stderr, "only [01] of 2 events came")

    def test_time_out_alone_is_a_proper_end(self):
        self.assertEqual(self.collect("--timeout", "0.2").wait(), 0)

    def test_reader_that_goes_away_ends_it_with_a_message(self):
        collector, reader = self.collect_into_pipe()
        reader.close()
        self.agent(collector.endpoint).send(make_event())
        self.assertEqual(collector.wait(), 1)
        self.assertIn("cannot write the output: Broken pipe", collector.stderr)
        self.assertIn("1 of the events received did not get out", collector.stderr)

    def test_text_output_is_one_line_for_the_eye(self):
        collector = self.collect("--format", "text", "--count", "1")
        self.agent(collector.endpoint).send(make_event(details=b"a b"))
        collector.wait()
        self.assertEqual(collector.stdout, '1970-01-01T00:00:01.500000Z - C1 Tn5250Data '
                                           'protocol=- details="a b"\n')

    def test_quiet_leaves_only_the_endpoint_on_standard_error(self):
        collector = self.collect("--quiet", "--count", "1")
        agent = self.agent(collector.endpoint)
        agent.send(b"this is no event")
        agent.send(make_event())
        self.assertEqual(collector.wait(), 0)
        self.assertEqual(collector.stderr, "listening on %s\n" % collector.endpoint)


class CollectKeyTest(CliTest):
    def collect_with(self, content, mode=0o600):
        write_file("key", content)
        os.chmod("key", mode)
        return self.run_tool("collect", "--bind", "tcp://127.0.0.1:*", "--secret-key", "key",
                             "--timeout", "0.1")

    def test_key_may_be_of_either_case_and_have_white_space_around_it(self):
        for content in ["0123456789ABCDEF" * 4, "0123456789abcdef" * 4 + "\r\n", " " + "0" * 64]:
            self.assertEqual(self.collect_with(content).returncode, 0, content)

    def test_anything_else_is_a_failure_that_does_not_quote_the_key(self):
        for content, reason in [("", "holds 0 characters"),
                                ("AB" * 31 + "C", "holds 63 characters"),
                                ("AB" * 32 + "C", "holds 65 characters"),
                                ("G" * 64, "character 1 of the key is not a hexadecimal digit"),
                                ("0" * 63 + "x", "character 64 of the key"),
                                ("a" * 40, "which looks like Z85")]:
            result = self.collect_with(content)
            self.assertEqual(result.returncode, 1)
            self.assertIn("key: ", result.stderr)
            self.assertIn(reason, result.stderr)
            if content:
                self.assertNotIn(content, result.stderr)

    def test_key_that_others_may_read_is_warned_about(self):
        self.assertIn("chmod 600 key", self.collect_with("0" * 64, mode=0o644).stderr)
        self.assertNotIn("chmod", self.collect_with("0" * 64, mode=0o600).stderr)


# Prints the value at the path argv[1] of the object on standard input, read as PostgreSQL's jsonb.
# The server does not run as root.
JSONB = """
import os, re, subprocess, sys, tempfile
line = sys.stdin.read().strip()
with tempfile.TemporaryDirectory() as folder:
    as_user = {}
    if os.getuid() == 0:
        os.chown(folder, 65534, 65534)
        as_user = {"user": 65534, "group": 65534, "extra_groups": []}
    subprocess.run(["initdb", "-D", folder + "/db", "-E", "UTF8", "--locale=C", "-N", "-A", "trust"],
                   check=True, stdout=subprocess.DEVNULL, cwd=folder, **as_user)
    query = "select $json$%s$json$::jsonb #>> '{%s}' as value" % (line, sys.argv[1])
    answer = subprocess.run(["postgres", "--single", "-D", folder + "/db", "postgres"], cwd=folder,
                            input=query.encode() + b"\\n", stdout=subprocess.PIPE, **as_user).stdout
    value = re.search(rb'value = "(.*)"\\t', answer)
    print(value.group(1).decode() if value else answer)
"""

# Prints the value at the path in the arguments of the object on standard input.
GO = """
package main

import ("encoding/json"; "fmt"; "os")

func main() {
	var value interface{}
	if err := json.NewDecoder(os.Stdin).Decode(&value); err != nil {
		panic(err)
	}
	for _, name := range os.Args[1:] {
		value = value.(map[string]interface{})[name]
	}
	fmt.Println(value)
}
"""


@needs_zmq
class DecodeTest(CliTest):
    def decode(self, content, *arguments):
        write_file("events", content)
        return self.run_tool("decode", *(arguments or ["events"]))

    @staticmethod
    def uids(result):
        return [json.loads(line)["uid"] for line in result.stdout.splitlines()]

    def test_files_and_standard_input_are_read_in_their_order(self):
        write_file("framed", framed(*[make_event(uid=b"C%d" % i) for i in range(100)]))
        write_file("bare", make_event(uid=b"alone"))
        write_file("empty", b"")
        framed_uids = ["C%d" % i for i in range(100)]
        for arguments, uids in ((["framed"], framed_uids), (["bare"], ["alone"]), (["empty"], []),
                                ([], ["C1"]), (["-"], ["C1"]),
                                (["bare", "framed", "-", "bare"],
                                 ["alone", *framed_uids, "C1", "alone"])):
            result = self.run_tool("decode", *arguments, stdin=framed(make_event()))
            self.assertEqual((result.returncode, result.stderr), (0, ""), arguments)
            self.assertEqual(self.uids(result), uids)

    def test_bad_message_is_named_by_offset_and_the_rest_decoded(self):
        first, bad, last = make_event(uid=b"A"), b"this is no event", make_event(uid=b"B")
        result = self.decode(framed(first, bad, b"", last))
        self.assertEqual(result.returncode, 1)
        self.assertEqual(self.uids(result), ["A", "B"])
        offset = 4 + len(first) + 4
        self.assertEqual(result.stderr,
                         "events: offset %d: these 16 bytes are no event message\n"
                         "events: offset %d: empty message\n" % (offset, offset + 16 + 4))

    def test_time_grows_with_the_size_also_behind_a_bad_first_message(self):
        result = self.decode(framed(b"") + framed(make_event()) * 100000)
        self.assertEqual(result.stderr, "events: offset 4: empty message\n")
        self.assertEqual(result.stdout.count(b"\n"), 100000)

    def test_every_truncation_is_a_failure_that_says_what_is_missing(self):
        first, last = make_event(uid=b"A"), make_event(uid=b"B")
        whole = framed(first, last)
        start = 4 + len(first)
        for size in list(range(start + 1, start + 8)) + [len(whole) - 1]:
            result = self.decode(whole[:size])
            self.assertEqual((result.returncode, self.uids(result)), (1, ["A"]))
            self.assertIn("events: offset %d: truncated" % start, result.stderr)

    def test_length_of_four_gigabytes_is_no_reason_to_claim_them(self):
        result = self.decode(b"\xff\xff\xff\xff" + b"x" * 100)
        self.assertEqual(result.returncode, 1)
        self.assertIn("a message of 4294967295 bytes is announced; none has more", result.stderr)
        result = subprocess.run(["sh", "-c", "(printf '\\377\\377\\377\\077'; yes) | exec %s decode" %
                                 ZMQWRITER], capture_output=True, text=True, timeout=DEADLINE)
        self.assertIn("a message of 1073741823 bytes is announced; none has more", result.stderr)
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, 600000)

    def test_strict_readers_of_json_take_what_is_no_utf_8(self):
        self.assertNotEqual(self.run_tool("decode", "--json-bytes", "utf8").returncode, 0)
        os.chmod(".", 0o755)
        write_file("reader.go", GO)
        environment = dict(os.environ, HOME=os.getcwd(), GOCACHE=os.getcwd(), GO111MODULE="off",
                           GOTOOLCHAIN="local")
        for form, key, value in (("replace", ["uid"], "C\ufffd\ufffd\u00e9"),
                                 ("base64", ["uid", "base64"], "QwD/w6k=")):
            line = self.decode(make_event(uid=b"C\0\xff\xc3\xa9"), "--json-bytes", form, "events").stdout
            found = json.loads(line.decode("utf-8"))
            for part in key:
                found = found[part]
            self.assertEqual(found, value)
            for reader, command in (
                    ("jq", ["jq", "-r", "." + ".".join(key)]),
                    ("node", ["node", "-e", "console.log(JSON.parse(require('fs').readFileSync(0)).%s)"
                              % ".".join(key)]),
                    ("go", ["go", "run", "reader.go", *key]),
                    ("initdb", [sys.executable, "-c", JSONB, ",".join(key)])):
                with self.subTest(reader, form=form):
                    if shutil.which(reader):
                        read = subprocess.run(command, input=line, capture_output=True,
                                              env=environment, timeout=DEADLINE)
                        self.assertEqual(read.stdout.decode("utf-8").strip(), value,
                                         read.stderr.decode())

    def test_missing_file_and_folder_are_failures_and_the_others_are_decoded(self):
        write_file("a", framed(make_event(uid=b"A")))
        result = self.run_tool("decode", "nowhere", ".", "a")
        self.assertEqual((result.returncode, self.uids(result)), (1, ["A"]))
        self.assertIn("nowhere: cannot be opened: No such file or directory", result.stderr)
        self.assertIn(".: offset 0: cannot be read: Is a directory", result.stderr)

    def test_every_byte_survives_as_surrogate_escape_in_one_line_of_utf8_each(self):
        texts = [bytes(range(1, 256)), bytes(range(255, 0, -1)), b"\xed\xa0\x80\xf4\x90\x80\x80",
                 "caf\u00e9 \u20ac \U0001f680".encode(), b"\xc3", b"a\0b", b"\xe2\x82"]
        texts += [bytes([byte]) + b"\xff\n\r\x0b\x85" for byte in range(256)]
        result = self.decode(framed(*[make_event(details=text) for text in texts]))
        self.assertEqual(result.returncode, 0)
        decoded = [json.loads(line)["data"]["details"].encode("utf-8", "surrogateescape")
                   for line in result.stdout.decode("utf-8").split("\n")[:-1]]
        self.assertEqual(decoded, texts)


if __name__ == "__main__":
    unittest.main()
