"""Attacks a collector in the ways of attackers.py, while a good agent sends to it.

    [ZMQWRITER_BUILD_DIR=DIR] attacks.py [--quick] [--only EXPRESSION] [--seconds N]

Each attack has a collector and a good agent of its own: the real plug-in in `zmqwriter replay`,
which sends at a fixed rate. One row for each attack says

- the most memory that the collector used;
- how many events a second it received from the good agent during the attack, and which part of the
  rate without an attack that is (on the same processors as the attackers);
- how many scrapes of /metrics it answered within two seconds, of those asked (--quick waits longer);
- the good agent's events: handed over to libzmq, received, left on disk, lost.

The exit status is 1 if the collector used more memory than --max-memory allows and 64 MB, an event
of the good agent is lost or came twice, /healthz was not answered, most scrapes were not, the
collector has ended, or an attack did not take place.
"""

import argparse
import concurrent.futures
import os
import re
import resource
import subprocess
import sys
import tempfile
import time
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))) + "/campaign")
import campaign  # pylint: disable=wrong-import-position
from campaign import cli  # pylint: disable=wrong-import-position

import attackers  # pylint: disable=wrong-import-position

MIB = 1 << 20
OVER_LIMIT = 64 * MIB  # what may come before the limit is noticed
SPARE_FILES = 200
ROW = "%-28s%8s%10s%7s%10s%9s%10s%9s%6s"


def http_get(url, timeout):
    try:
        with urllib.request.urlopen(url, timeout=timeout) as answer:
            return answer.read().decode()
    except OSError:
        return ""


class Attack(campaign.Trial):
    rounds = 0

    def __init__(self, folder, options, title, count, effect):
        self.title, self.count, self.effect = title, count, effect
        self.seconds, self.rate, self.memory = options.seconds, options.rate, options.memory
        super().__init__(folder, options)
        self.folder = tempfile.mkdtemp(dir=folder) + "/trial"
        self.row, self.figure = (), 0
        self.patience = cli.DEADLINE if options.quick else 2

    def go(self):
        server = campaign.Server(self, "collector", arguments=(
            "--metrics", "127.0.0.1:0", "--max-memory", str(self.memory)))
        self.url = server.process.url
        agent = campaign.Agent(self, [server], self.rate, 200)
        agent.start(int(self.seconds) + 60)

        def received():
            server.follow()
            return sum(self.arrived.values()) - self.arrived[campaign.NOBODY]
        cli.wait_for(received, "the good agent")
        attacker = self.attack(server) if self.title else None
        begin, before = time.monotonic(), received()
        scrapes = []
        while time.monotonic() < begin + self.seconds:
            scrapes.append("zmqwriter_collect_build_info" in http_get(
                self.url + "metrics", self.patience))
            received()
            self.peak(server)
            time.sleep(0.1)
        self.figure = (received() - before) / (time.monotonic() - begin)
        self.check(scrapes.count(True) * 2 > len(scrapes), "scrapes were not answered")
        self.check(http_get(self.url + "healthz", cli.DEADLINE), "/healthz was not answered")
        if attacker:
            self.wait_for_effect(server)
            self.check(attacker.poll() is None, "the attacker has ended")
            attacker.kill()
        peak = self.peak(server)
        agent.process.popen.terminate()
        read = agent.finish()
        server.stop()
        self.arrived.pop(campaign.NOBODY, 0)
        disk = agent.on_disk(agent.spool) - self.arrived.keys()
        lost = read - self.arrived.keys() - disk
        self.check(not lost, f"{len(lost)} events were lost")
        self.check(max(self.arrived.values()) == 1, "events came twice")
        self.row = ("%.0f MB" % (peak / 1e6), "%.0f" % self.figure,
                    "%d/%d" % (scrapes.count(True), len(scrapes)), agent.sent, len(self.arrived),
                    len(disk), len(lost))

    def attack(self, server):
        key = cli.read_file(self.folder + "/server.public").strip()
        attacker = subprocess.Popen(
            [sys.executable, "-B", attackers.__file__, self.title, server.endpoint.split(":")[-1],
             self.url.split(":")[-1].strip("/"), key, str(self.count)], stdout=subprocess.PIPE)
        self.cleanups += [attacker.stdout.close, attacker.kill]
        self.check(attacker.stdout.readline() == b"attacking\n", "the attack did not begin")
        return attacker

    def peak(self, server):
        """The most memory that the collector has used. Too much ends the trial."""
        status = cli.read_file(f"/proc/{server.process.popen.pid}/status")
        peak = int(re.search(r"VmHWM:\s+(\d+)", status).group(1)) << 10
        assert peak < self.memory + OVER_LIMIT, f"{peak} bytes of memory were in use"
        return peak

    def wait_for_effect(self, server):
        """Waits until the attack shows often enough in its metric."""
        pattern, least = self.effect
        pattern = re.compile(r"^\w*" + pattern + r"\S* (\S+)$", re.M)

        def shows():
            self.peak(server)
            values = pattern.findall(http_get(self.url + "metrics", self.patience))
            return sum(map(float, values)) >= max(least, self.count * 0.9)
        cli.wait_for(shows, "the attack to show")

    def check(self, good, problem):
        if not good:
            self.problems.append(problem)

    def show(self, usual):
        if self.row:
            peak, figure, *others = self.row
            print(ROW % (self.title or "none", peak, figure, "%.2f" % (self.figure / usual), *others))
        for problem in self.problems:
            print(f"{self.title or 'none'}: {problem}")
        sys.stdout.flush()


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="a second of each, with fewer clients")
    parser.add_argument("--only", default="", help="only the attacks that match this expression")
    parser.add_argument("--seconds", type=float, help="how long each attack lasts")
    options = parser.parse_args()
    if not (os.path.exists("/proc/self/status") and attackers.sodium and cli.zmq):
        print("skipped: needs /proc, libsodium and the Python packages zmq and flatbuffers")
        sys.exit(77)
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1] - SPARE_FILES
    options.seed = options.rounds = None
    options.seconds = options.seconds or (1 if options.quick else 10)
    options.rate, options.memory = (400, 64 * MIB) if options.quick else (5000, 256 * MIB)
    print(ROW % ("attack", "memory", "events/s", "ratio", "scrapes", "sent", "received", "on disk",
                 "lost"), flush=True)
    with tempfile.TemporaryDirectory(prefix="zmqwriter-attacks-") as folder:
        none = Attack(folder, options, "", 0, None)
        trials = [none] + [
            Attack(folder, options, title, quick_count if options.quick else count, effect)
            for title, _, count, quick_count, effect in attackers.ATTACKS
            if re.search(options.only, title)]
        for trial in trials:
            if trial.count > most:
                print(f"{trial.title}: {most} instead of {trial.count}, by the limit of open files")
                trial.count = most
        none.run()
        none.show(none.figure or 1)
        with concurrent.futures.ThreadPoolExecutor(4 if options.quick else 1) as pool:
            for trial, _ in zip(trials[1:], pool.map(Attack.run, trials[1:])):
                trial.show(none.figure or 1)
    if any(trial.problems for trial in trials):
        sys.exit(1)
    print("The collector has withstood every attack.")


if __name__ == "__main__":
    main()
