"""Restarts a collector while agents send, and counts what is lost.

    restarts.py [--build DIR] [--agents N] [--rate R] [--restarts N] [--pause S]

Agents are the real plug-in in `zmqwriter replay`, each with a log of its own; a rate of 0 is as fast
as possible. Each restart is a SIGTERM, the end of the process, and a new one on the same endpoint
and output. Prints the account: what the agents read, and how much of it arrived once, twice, never.
"""

import argparse
import collections
import glob
import json
import os
import random
import re
import signal
import statistics
import subprocess
import tempfile
import time

HEADER = "#separator \\x09\n#path\tthings\n#fields\tts\tuid\tn\n#types\ttime\tstring\tcount\n"


class Campaign:
    def __init__(self, options):
        self.program = os.path.join(options.build, "bin", "zmqwriter")
        self.plugin = os.path.join(options.build, "plugin-sandbox")
        self.options = options

    def start_collector(self, endpoint):
        with open("collect.log", "wb") as log:
            self.collector = subprocess.Popen(
                [self.program, "collect", "--bind", endpoint, "--secret-key", "server.secret",
                 "--output", "events"], stderr=log)
        while True:
            with open("collect.log") as log:
                bound = re.search(r"listening on (\S+)\n", log.read())
            if bound:
                return bound.group(1)
            if self.collector.poll() is not None:
                raise SystemExit("the collector has ended: see " + os.path.abspath("collect.log"))
            time.sleep(0.002)

    def stop_collector(self):
        begin = time.monotonic()
        self.collector.send_signal(signal.SIGTERM)
        self.collector.wait()
        return time.monotonic() - begin

    def start_agent(self, number, endpoint):
        folder = "agent%d" % number
        os.makedirs(folder + "/orvik-spool")
        with open(folder + "/settings", "w") as settings, open("server.public") as key:
            settings.write("zmq.server = %s\nzmq.public_key = %s\n"
                           % (endpoint[len("tcp://"):], key.read().strip()))
        seconds = self.options.restarts * (self.options.pause + 0.5) + 5
        with open(folder + "/things.log", "w") as log:
            log.write(HEADER)
            for n in range(int((self.options.rate or 20000) * seconds)):
                log.write("%d.5\tA%d-%d\t%d\n" % (n, number, n, n))
        rate = ["--rate", str(self.options.rate)] if self.options.rate else []
        with open(folder + "/log", "w") as log:
            return subprocess.Popen([self.program, "replay", "--settings", "settings", "--plugin",
                                     self.plugin, *rate, "things.log"], cwd=folder, stdout=log,
                                    stderr=log)

    def run(self):
        subprocess.run([self.program, "keygen"], check=True, capture_output=True)
        endpoint = self.start_collector("tcp://127.0.0.1:*")
        agents = [self.start_agent(number, endpoint) for number in range(self.options.agents)]
        while os.path.getsize("events") == 0:
            time.sleep(0.01)
        stops = []
        for _ in range(self.options.restarts):
            time.sleep(self.options.pause * random.uniform(0.5, 1.5))
            stops.append(self.stop_collector())
            self.start_collector(endpoint)
        for agent in agents:
            agent.send_signal(signal.SIGTERM)
        for agent in agents:
            agent.wait()
        self.stop_collector()
        self.account(stops)

    def account(self, stops):
        arrived = collections.Counter()
        for name in glob.glob("events*"):
            with open(name) as lines:
                arrived.update(json.loads(line)["uid"] for line in lines)
        read = 0
        left = []
        lost = collections.Counter()
        for number in range(self.options.agents):
            with open("agent%d/log" % number) as log:
                text = log.read()
            records = int(re.search(r"^read: (\d+) records", text, re.M).group(1))
            left += re.findall(r"^(left.*|.*not responding.*)$", text, re.M)
            read += records
            before = True
            for n in range(records):
                there = arrived["A%d-%d" % (number, n)] > 0
                if not there:
                    lost["places" if before else "further"] += 1
                before = there
        print("%d agents, %s events/s each, %d restarts of %.0f ms (median; %.0f at most)"
              % (self.options.agents, self.options.rate or "as many as possible", len(stops),
                 1000 * statistics.median(stops), 1000 * max(stops)))
        print("read %d, arrived %d, twice %d, lost %d in %d places; agents: %s"
              % (read, sum(count > 0 for count in arrived.values()),
                 sum(count > 1 for count in arrived.values()), sum(lost.values()), lost["places"],
                 dict(collections.Counter(left))))


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build", help="the build tree")
    parser.add_argument("--agents", type=int, default=1)
    parser.add_argument("--rate", type=int, default=500, help="events per second and agent")
    parser.add_argument("--restarts", type=int, default=100)
    parser.add_argument("--pause", type=float, default=0.4, help="mean seconds between restarts")
    options = parser.parse_args()
    options.build = os.path.abspath(options.build)
    with tempfile.TemporaryDirectory(prefix="zmqwriter-restarts-") as folder:
        os.chdir(folder)
        Campaign(options).run()


if __name__ == "__main__":
    main()
