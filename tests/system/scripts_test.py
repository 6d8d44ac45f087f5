"""Our scripts are well formed, use only what is declared, and hold what the plug-in needs; and the
checker that says so does find what is wrong.

    scripts_test.py SOURCE_DIR STUB
"""

import os
import re
import shutil
import sys
import tempfile
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

    def test_each_constant_has_a_comment_with_an_example(self):
        text = read("__load__.bro")
        for name in CONSTANTS:
            self.assertRegex(text, r'\t## [^\n]+\n(\t##[^\n]*\n)*\t## Example: "[^\n]*"\n'
                                   r'\tconst %s = "[^"\n]*" &redef;\n' % name)

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


class CheckerTest(unittest.TestCase):
    """Each case spoils one script and expects the checker to say so."""

    def refused(self, name, old, new, message):
        with tempfile.TemporaryDirectory(prefix="zmqwriter-test-") as folder:
            scripts = os.path.join(folder, "scripts")
            shutil.copytree(SCRIPTS, scripts)
            path = os.path.join(scripts, name)
            text = read(name)
            self.assertIn(old, text)
            with open(path, "w") as file:
                file.write(text.replace(old, new, 1))
            with self.assertRaises(bro_scripts.ScriptError) as error:
                bro_scripts.parse(scripts, STUB, HOST)
            self.assertRegex(str(error.exception), re.escape(name) + r":\d+: .*" + message)

    def test_missing_semicolon(self):
        self.refused(FOLDER + "http.bro", "rec$username;", "rec$username", "expected ';'")

    def test_missing_brace(self):
        self.refused(FOLDER + "http.bro", "\t{\n\tLog::create", "\tLog::create", "expected '{'")

    def test_brace_too_many(self):
        self.refused(FOLDER + "ftp.bro", "\n\t}\n\nevent bro", "\n\t}\n\t}\n\nevent bro",
                     "declaration")

    def test_unfinished_string(self):
        self.refused(FOLDER + "ftp.bro", '"ftp");', '"ftp);', "unexpected")

    def test_undeclared_name(self):
        self.refused(FOLDER + "other-logs.bro", "in not_as_pairs", "in not_as_pears",
                     "'not_as_pears' is not declared")

    def test_undeclared_function(self):
        self.refused(FOLDER + "statistics.bro", "LogZMQ::__get_system_stats()", "LogZMQ::get_stats()",
                     "'LogZMQ::get_stats' is not declared")

    def test_undeclared_event(self):
        self.refused(FOLDER + "connections.bro", "event new_connection", "event new_konnection",
                     "'new_konnection' is not declared")

    def test_name_of_another_module_that_is_not_exported(self):
        self.refused("rotation-guard.bro", "LogZMQ::stop_rotation(", "LogZMQ::stop_rotation_of_named_filters(",
                     "is not exported")

    def test_name_that_an_ifdef_asked_for_behind_its_endif(self):
        self.refused("rotation-guard.bro", "@endif", "@endif\nevent bro_init() { print filters; }",
                     "'filters' is not declared")

    def test_unknown_field_of_a_host_record(self):
        self.refused(FOLDER + "http.bro", "rec?$username", "rec?$user", "has no field user")

    def test_unknown_field_in_a_written_record(self):
        self.refused(FOLDER + "ftp.bro", "$ftp=rec]", "$ftpp=rec]", "has no field ftpp")

    def test_field_that_a_written_record_needs(self):
        self.refused(FOLDER + "smtp.bro", "$uid=rec$uid, ", "", "field uid of LogZMQ::SMTPRecord is not given")

    def test_unknown_field_of_a_filter(self):
        self.refused(FOLDER + "streams.bro", "$interv=", "$interval_=", "Log::Filter has no field")

    def test_wrong_number_of_arguments(self):
        self.refused(FOLDER + "http.bro", 'send_by_zmq(LogZMQ::HTTP_LOG, "http")',
                     "send_by_zmq(LogZMQ::HTTP_LOG)", "takes 2 arguments, not 1")

    def test_global_as_loop_variable(self):
        self.refused(FOLDER + "other-logs.bro", "for ( element in elements )",
                     "for ( sent_as_pairs in elements )", "loop variable")

    def test_redefinition_of_what_is_fixed(self):
        self.refused(FOLDER + "http.bro", "redef not_as_pairs", "redef own_streams",
                     "not redefinable")

    def test_script_that_does_not_exist(self):
        self.refused("__load__.bro", "./rotation-guard.bro", "./rotation-gard.bro", "no such script")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
