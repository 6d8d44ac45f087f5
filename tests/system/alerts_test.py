"""setup/examples/alerts.yml and grafana-dashboard.json: the metrics that they name exist, Prometheus
takes their expressions, and each alert fires for its own cause and for no other."""

import json
import os
import re
import shutil
import subprocess
import unittest

from cli_support import CliTest, DEADLINE, SOURCE_DIR, make_event, needs_zmq, read_file, wait_for, write_file
from nats_support import NatsServer, needs_nats

EXAMPLES = os.path.join(SOURCE_DIR, "setup", "examples")
ALERTS = os.path.join(EXAMPLES, "alerts.yml")
# Of Prometheus itself, and of the node exporter.
NOT_OURS = {"up", "node_textfile_mtime_seconds"}

COLLECTOR, SPOOL = '{job="zmqwriter",instance="c"}', '{instance="a",folder="/spool"}'
LABELS = {"process_open_fds": COLLECTOR, "process_max_fds": COLLECTOR, "up": COLLECTOR,
          "zmqwriter_collect_agent_last_event_seconds": '{instance="c",agent="sensor-7"}',
          "zmqwriter_collect_stream_trouble": '{instance="c",reason="no_quorum"}',
          "zmqwriter_collect_bad_messages_total": '{instance="c",reason="malformed"}',
          "zmqwriter_collect_handshakes_failed_total": '{instance="c",reason="other_key"}',
          "node_textfile_mtime_seconds": '{instance="a",file="/var/lib/x/zmqwriter.prom"}'}
EMPTY = 'zmqwriter_collect_bad_messages_total{instance="c",reason="empty"}'
MINUTES = 120
# One value a minute, of a system in which all is well.
WELL = {"up": "1x120", "zmqwriter_collect_events_total": "0+60x120",
        "zmqwriter_collect_agent_last_event_seconds": "0+60x120",
        "zmqwriter_collect_output_stalled": "0x120",
        "zmqwriter_collect_output_disk_free_bytes": "1e12-1e7x120",
        "zmqwriter_collect_stream_trouble": "0x120", "zmqwriter_collect_stream_too_large_total": "2x120",
        "zmqwriter_collect_bad_messages_total": "7x120", EMPTY: "7x120",
        "zmqwriter_collect_handshakes_failed_total": "0+0.1x120",
        "zmqwriter_collect_memory_limit_total": "2x120", "process_open_fds": "500x120", "process_max_fds": "1000x120",
        "zmqwriter_spool_live_bytes": "1e6x120", "zmqwriter_spool_disk_free_bytes": "1e12-1e7x120",
        "zmqwriter_spool_damaged_files": "1x120", "zmqwriter_spool_processes": "1x120",
        "node_textfile_mtime_seconds": "0+60x120"}
# What fires each alert at the end.
CAUSES = {"ZmqwriterCollectorDown": {"up": "1x110 0x10"},
          "ZmqwriterNothingArrives": {"zmqwriter_collect_events_total": "0+60x90 5400x30"},
          "ZmqwriterAgentSilent": {"zmqwriter_collect_agent_last_event_seconds": "0+60x105 6300x15"},
          "ZmqwriterOutputStalled": {"zmqwriter_collect_output_stalled": "0x110 1x10"},
          "ZmqwriterOutputDiskFills": {"zmqwriter_collect_output_disk_free_bytes": "1e12-2e9x120"},
          "ZmqwriterStreamTakesNothing": {"zmqwriter_collect_stream_trouble": "0x110 1x10"},
          "ZmqwriterStreamTooLarge": {"zmqwriter_collect_stream_too_large_total": "2x115 3x5"},
          "ZmqwriterBadMessages": {"zmqwriter_collect_bad_messages_total": "7x115 8x5"},
          "ZmqwriterEmptyMessages": {EMPTY: "7x115 8x5"},
          "ZmqwriterHandshakesFail": {"zmqwriter_collect_handshakes_failed_total": "0+2x120"},
          "ZmqwriterMemoryLimit": {"zmqwriter_collect_memory_limit_total": "2x115 3x5"},
          "ZmqwriterOpenFilesRunOut": {"process_open_fds": "900x120"},
          "ZmqwriterSpoolGrows": {"zmqwriter_spool_live_bytes": "0+1000x120"},
          "ZmqwriterSpoolDiskFills": {"zmqwriter_spool_disk_free_bytes": "1e12-2e9x120"},
          "ZmqwriterSpoolDamaged": {"zmqwriter_spool_processes": "0x120"},
          "ZmqwriterSpoolShared": {"zmqwriter_spool_processes": "2x120"},
          "ZmqwriterSpoolFiguresOld": {"node_textfile_mtime_seconds": "0+60x80 4800x40"}}


def expressions():
    """Of the alerts and of the dashboard; each expression of an alert is in one line."""
    dashboard = json.loads(read_file(os.path.join(EXAMPLES, "grafana-dashboard.json")))
    return re.findall(r"(?m)^ +expr: (.*)$", read_file(ALERTS)) + [
        target["expr"].replace("$__rate_interval", "5m")
        for panel in dashboard["panels"] for target in panel["targets"]]


def metrics_in(expression):
    bare = re.sub(r"\b(by|without) *\([^)]*\)|\{[^}]*\}|\[[^]]*\]", " ", expression)
    return set(re.findall(r"\b[a-z_]+\b(?! *\()", bare)) - {"and", "or"}


def promtool(*arguments):
    result = subprocess.run(["promtool", *arguments], capture_output=True, text=True,
                            timeout=DEADLINE)
    return result.returncode, result.stdout + result.stderr


class AlertsTest(CliTest):
    @needs_zmq
    @needs_nats
    def test_every_metric_named_is_one_that_there_is(self):
        server = NatsServer(".").start()
        self.addCleanup(server.kill)
        collector = self.collect("--metrics", "127.0.0.1:0", "--output", "events", "--to",
                                 server.url, "--create-stream")
        self.agent(collector.endpoint).send(make_event())
        wait_for(lambda: os.path.getsize("events"), "the event")
        printed = self.get(collector, "metrics")[1]
        printed += self.run_tool("spool", "list", "--prometheus", ".").stdout.decode()
        there = set(re.findall(r"(?m)^([a-z_]+)[{ ]", printed))
        named = [metrics_in(expression) for expression in expressions()]
        self.assertGreater(len(named), 30)
        for names, expression in zip(named, expressions()):
            self.assertNotEqual(names, set(), expression)
            self.assertEqual(names - there - NOT_OURS, set(), expression)

    @unittest.skipUnless(shutil.which("promtool"), "promtool is not installed: setup/packages alerts")
    def test_prometheus_takes_all_expressions(self):
        status, said = promtool("check", "rules", ALERTS)
        self.assertEqual(status, 0, said)
        # JSON is YAML.
        write_file("rules.yml", json.dumps({"groups": [{"name": "all", "rules": [
            {"record": "r%d" % at, "expr": expression}
            for at, expression in enumerate(expressions())]}]}))
        status, said = promtool("check", "rules", "rules.yml")
        self.assertEqual(status, 0, said)

    @unittest.skipUnless(shutil.which("promtool"), "promtool is not installed: setup/packages alerts")
    def test_each_alert_fires_for_its_own_cause_and_for_no_other(self):
        self.assertEqual(sorted(CAUSES), sorted(re.findall(r"alert: (\w+)", read_file(ALERTS))))

        def case(cause, alerts):
            return {"interval": "1m", "input_series": [
                {"series": name + ("" if "{" in name else
                                   LABELS.get(name, SPOOL if "spool" in name else '{instance="c"}')),
                 "values": values} for name, values in {**WELL, **cause}.items()],
                "promql_expr_test": [
                    {"expr": 'count by (alertname) (ALERTS{alertstate="firing"})',
                     "eval_time": "%dm" % MINUTES,
                     "exp_samples": [{"labels": '{alertname="%s"}' % alert, "value": 1}
                                     for alert in alerts]}]}
        write_file("test.yml", json.dumps(
            {"rule_files": [ALERTS], "evaluation_interval": "1m",
             "tests": [case({}, [])] + [case(cause, [alert]) for alert, cause in CAUSES.items()]}))
        status, said = promtool("test", "rules", "test.yml")
        self.assertEqual(status, 0, said)


if __name__ == "__main__":
    unittest.main()
