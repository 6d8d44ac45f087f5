"""Our scripts are well formed, use only what is declared, and hold what the plug-in needs."""

import os
import unittest

import bro_scripts
from bro_run import Host, Port, Record, Time, Vector
from cli_support import BUILD_DIR, SOURCE_DIR

STUB = os.path.join(BUILD_DIR, "generated", "zmq.bif.bro")
SCRIPTS = os.path.join(SOURCE_DIR, "scripts")
HOST = os.path.join(SOURCE_DIR, "tests/data/host-declarations.bro")

CONSTANTS = ["zmq_primary_server", "zmq_secondary_server", "zmq_public_key", "zmq_agent_id",
             "set_separator", "empty_field", "unset_field"]


def sample(type_, name):
    """A value of that type, another one for each name."""
    number = sum(map(ord, name))
    if type_.kind == "record":
        return Record(**{field: sample(found.type, name + "." + field)
                         for field, found in type_.fields.items()})
    if type_.kind in ("set", "vector"):
        return {name: True} if type_.kind == "set" else Vector([name])
    return {"time": Time(number), "interval": number / 4, "count": number, "bool": number % 2 == 0,
            "port": Port(number, "tcp")}.get(type_.kind, name)


def flat(record, prefix=""):
    """Column -> value of what a record holds now."""
    columns = {}
    for name, value in vars(record).items():
        if isinstance(value, Record):
            columns.update(flat(value, prefix + name + "."))
        else:
            columns[prefix + name] = value.copy() if isinstance(value, (dict, list)) else value
    return columns


class ScriptsTest(unittest.TestCase):
    """All scripts in the model of the host, after its start."""

    OWN_KINDS = {"Conn": ("CONNECTIONS_LOG", "general", ""), "FTP": ("FTP_LOG", "ftp", "ftp."),
                 "HTTP": ("HTTP_LOG", "http", "http."), "SMTP": ("SMTP_LOG", "smtp", "smtp.")}

    @classmethod
    def setUpClass(cls):
        cls.program = bro_scripts.Program(SCRIPTS, STUB, HOST)

    def setUp(self):
        self.host = Host(self.program, [log + "::LOG" for log in self.OWN_KINDS] +
                         ["Weird::LOG", "Reporter::LOG"], ["Site::LOG"])
        self.host.now = 1000.0

    def script(self, name, *arguments):
        return self.host.names[name](*arguments)

    def write(self, stream, record):
        """Log::write, then what the host's scripts do to the record; gives what was sent of it."""
        before = len(self.host.sent)
        self.script("Log::write", stream, record)
        vars(record).clear()
        self.host.run()
        return self.host.sent[before:]

    def info(self, log):
        return sample(self.program.names[log + "::Info"].type, log)

    def pairs(self, stream, record):
        (sent, record), = self.write(stream, record)
        return sent, record, dict(zip(record.extra_fields, record.extra_vals, strict=True))

    def connection(self, uid, protocol):
        return Record(uid=uid, id=Record(resp_p=Port(80, protocol)))

    def test_seven_constants_are_redefinable_strings(self):
        for name in CONSTANTS:
            constant = self.program.names["LogZMQ::" + name]
            self.assertEqual((constant.kind, type(self.host.names["LogZMQ::" + name])), ("const", str), name)
            self.assertTrue(constant.redefinable and constant.exported, name)

    def test_system_stats_has_the_nine_fields_in_order_all_logged(self):
        fields = self.program.names["system_stats"].type.fields
        self.assertEqual([(name, field.type.kind) for name, field in fields.items()], [
            ("cpu_usage", "double"), ("priority", "int"), ("ph_mem_total", "count"),
            ("ph_mem_used", "count"), ("virt_mem_total", "count"), ("virt_mem_used", "count"),
            ("hdd_volume", "double"), ("hdd_used", "double"), ("hdd_avail", "double")])
        self.assertTrue(all(field.log for field in fields.values()))

    def test_pairs_never_carry_a_ptype_nor_an_unset_uid(self):
        pairs = self.program.names["LogZMQ::Pairs"].type.fields
        without = self.program.names["LogZMQ::PairsWithoutUID"].type.fields
        self.assertEqual(list(pairs), ["ts", "uid", "extra_fields", "extra_vals"])
        for name, field in pairs.items():
            self.assertTrue(field.needed or field.type.kind == "vector", name)
        self.assertEqual(list(without), ["ts", "extra_fields", "extra_vals"])

    def test_record_that_is_changed_after_its_write_is_sent_as_it_was(self):
        for log, (stream, ptype, prefix) in self.OWN_KINDS.items():
            info = self.info(log)
            expected = flat(info)
            (sent, record), = self.write(log + "::LOG", info)
            self.assertEqual((sent, record.ptype), ("LogZMQ::" + stream, ptype))
            columns = flat(record)
            for name, value in expected.items():
                kept = prefix == "" or name in ("ts", "uid") or name.startswith("id.")
                name = name if kept else prefix + ("user" if log + name == "HTTPusername" else name)
                if name in columns or log != "HTTP":  # of whose columns not all are sent
                    self.assertEqual(columns[name], value, name)
            wanted = [name for name in columns if name.startswith("http.")]
            self.assertEqual(len(wanted), 7 if log == "HTTP" else 0)

    def test_every_record_is_sent_once_though_the_streams_are_looked_over_again(self):
        self.assertEqual(set(self.host.names["LogZMQ::not_as_pairs"]),
                         {log + "::LOG" for log in self.OWN_KINDS})
        for log in self.OWN_KINDS:
            self.script("LogZMQ::take_records", log + "::LOG", lambda *_: self.fail("second call"))
        self.script("LogZMQ::send_active_streams")
        for log in self.OWN_KINDS:
            self.assertEqual(len(self.write(log + "::LOG", self.info(log))), 1, log)
        for stream in ["Weird::LOG", "Site::LOG"]:
            self.assertEqual(len(self.write(stream, Record(ts=Time(1.5), uid="C1"))), 1, stream)
        self.assertEqual(self.write("Reporter::LOG", Record(ts=Time(1.5), message="x")), [])

    def test_guard_leaves_the_filters_of_the_scripts_as_they_are(self):
        ours = {stream: filters[1:] for stream, filters in self.host.streams.items()}
        self.host.streams["FTP::LOG"][0] = Record(name="default", writer="Log::WRITER_ZMQ",
                                                  interv=3600.0)
        self.script("LogZMQ::stop_rotation_of_named_filters")
        for stream, filters in ours.items():
            for filter_ in filters:
                self.assertIn(filter_, self.host.streams[stream])
        self.assertEqual([filter_.interv for filter_ in self.host.streams["FTP::LOG"]], [0, 0])

    def test_connection_names_its_owner_and_the_owner_is_forgotten(self):
        self.script("new_connection", self.connection("C1", "tcp"))
        info = self.info("Conn")
        info.uid = "C1"
        (_, record), = self.write("Conn::LOG", info)
        self.assertEqual((record.process, record.username), ("Safari", "alice"))
        self.assertEqual(self.host.names["LogZMQ::owners"], {})

    def test_owner_is_asked_for_once_and_for_tcp_only(self):
        for uid, protocol in [("C1", "tcp"), ("C2", "udp"), ("C3", "icmp"),
                              ("C4", "unknown_transport")]:
            self.script("new_connection", self.connection(uid, protocol))
            self.script("connection_established", self.connection(uid, protocol))
        self.assertEqual([connection.uid for connection in self.host.asked], ["C1"])

    def test_time_of_a_record_is_its_ts_and_no_pair(self):
        stream, record, pairs = self.pairs("Weird::LOG", Record(ts=Time(5.5), uid="C1", name="x"))
        self.assertEqual((stream, record.uid), ("LogZMQ::PAIRS_LOG", "C1"))
        self.assertEqual((type(record.ts), record.ts), (Time, 5.5))
        self.assertEqual(pairs, {"_path": "weird", "name": "x"})

    def test_ts_that_is_no_time_is_a_pair_and_the_network_time_the_time(self):
        for value, text in [("noon", "noon"), (7, "7"), (0.5, "0.5"), (Record(sec=3), None)]:
            stream, record, pairs = self.pairs("Site::LOG", Record(ts=value, n=1))
            self.assertEqual(stream, "LogZMQ::PAIRS_WITHOUT_UID_LOG")
            self.assertEqual((type(record.ts), record.ts), (Time, 1000.0))
            self.assertEqual(pairs, {"_path": "site", "n": "1",
                                     **({"ts.sec": "3"} if text is None else {"ts": text})})

    def test_ts_and_uid_without_a_value_are_as_if_they_were_not_there(self):
        stream, record, pairs = self.pairs("Weird::LOG", Record(ts=None, uid=None, name="x", addl=None))
        self.assertEqual(stream, "LogZMQ::PAIRS_WITHOUT_UID_LOG")
        self.assertEqual((type(record.ts), record.ts), (Time, 1000.0))
        self.assertEqual(pairs, {"_path": "weird", "name": "x"})

    def test_records_written_while_the_host_starts_are_sent(self):
        early = [(log + "::LOG", self.info(log)) for log in self.OWN_KINDS]
        early.append(("Weird::LOG", Record(ts=Time(1.5), name="x")))
        host = Host(self.program, [stream for stream, _ in early], early=early)
        self.assertEqual(len(host.sent), len(early))

    def test_record_without_ts_has_the_network_time(self):
        _, record, _ = self.pairs("Site::LOG", Record(n=1))
        self.assertEqual((type(record.ts), record.ts), (Time, 1000.0))

    def test_first_sample_waits_for_the_network_time_and_comes_alone(self):
        self.assertEqual(self.host.sent, [])
        for now, samples in [(1000.0, 1), (1059.0, 1), (1060.0, 2), (1120.0, 3)]:
            self.host.packet(now)
            self.assertEqual([stream for stream, _ in self.host.sent],
                             ["LogZMQ::STATISTICS_LOG"] * samples)


if __name__ == "__main__":
    unittest.main(verbosity=2)
