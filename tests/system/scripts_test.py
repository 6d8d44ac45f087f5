"""Our scripts are well formed, use only what is declared, and hold what the plug-in needs.

    scripts_test.py SOURCE_DIR STUB
"""

import os
import sys
import unittest

sys.dont_write_bytecode = True
import bro_scripts

SOURCE_DIR, STUB = sys.argv[1:]
SCRIPTS = os.path.join(SOURCE_DIR, "scripts")
HOST = os.path.join(SOURCE_DIR, "tests/data/host-declarations.bro")
FOLDER = "Dravenholt/ZMQWriter/"

CONSTANTS = ["zmq_primary_server", "zmq_secondary_server", "zmq_public_key", "zmq_agent_id",
             "set_separator", "empty_field", "unset_field"]


def read(name):
    with open(os.path.join(SCRIPTS, name)) as file:
        return file.read()


class ScriptsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.program = bro_scripts.parse(SCRIPTS, STUB, HOST)

    def test_every_script_was_read(self):
        read = {os.path.relpath(path, SCRIPTS) for path in self.program.loaded}
        for folder, _, names in os.walk(SCRIPTS):
            for name in names:
                self.assertIn(os.path.relpath(os.path.join(folder, name), SCRIPTS), read)

    def test_seven_constants_are_redefinable_strings(self):
        for name in CONSTANTS:
            constant = self.program.names["LogZMQ::" + name]
            self.assertEqual((constant.kind, constant.type.kind), ("const", "string"), name)
            self.assertTrue(constant.redefinable and constant.exported, name)

    def test_system_stats_has_the_nine_fields_in_order_all_logged(self):
        fields = self.program.names["system_stats"].type.fields
        self.assertEqual([(name, field.type.kind) for name, field in fields.items()], [
            ("cpu_usage", "double"), ("priority", "int"), ("ph_mem_total", "count"),
            ("ph_mem_used", "count"), ("virt_mem_total", "count"), ("virt_mem_used", "count"),
            ("hdd_volume", "double"), ("hdd_used", "double"), ("hdd_avail", "double")])
        self.assertTrue(all(field.log for field in fields.values()))

    def test_every_filter_switches_rotation_off(self):
        self.assertEqual(len(self.program.filters), 2)
        for where, literal in self.program.filters:
            self.assertEqual(literal.constants.get("interv"), "0secs", where)

    def test_pairs_never_carry_a_ptype_nor_an_unset_uid(self):
        pairs = self.program.names["LogZMQ::Pairs"].type.fields
        without = self.program.names["LogZMQ::PairsWithoutUID"].type.fields
        self.assertEqual(list(pairs), ["ts", "uid", "extra_fields", "extra_vals"])
        for name, field in pairs.items():
            self.assertTrue(field.needed or field.type.kind == "vector", name)
        self.assertEqual(list(without), ["ts", "extra_fields", "extra_vals"])

    def test_every_log_with_a_table_of_its_own_is_left_out_of_the_pairs(self):
        scripts = {"connections": "Conn", "ftp": "FTP", "http": "HTTP", "smtp": "SMTP"}
        for script, log in scripts.items():
            self.assertIn("redef not_as_pairs += { %s::LOG };" % log,
                          read(FOLDER + script + ".bro"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
