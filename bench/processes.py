"""What the benchmarks share that measure whole processes."""

import argparse
import json
import os
import random
import re
import subprocess
import sys
import time
import urllib.request

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PATIENCE = 30  # seconds


class Failed(Exception):
    """Something could not be measured; says why."""


class Process:
    """A child that talks in lines and ends with this object."""

    def __init__(self, *command, stderr=None, cwd=None):
        try:
            self.child = subprocess.Popen(command, text=True, stdin=subprocess.PIPE, cwd=cwd,
                                          stdout=subprocess.PIPE, stderr=stderr)
        except OSError as error:
            raise Failed("%s cannot be run: %s" % (command[0], error))
        self.name, self.usage = os.path.basename(command[0]), None

    def tell(self, line):
        self.child.stdin.write(line + "\n")
        self.child.stdin.flush()

    def words(self):
        """Those of its next line."""
        line = self.child.stdout.readline()
        if not line:
            raise Failed("%s ended early" % self.name)
        return line.split()

    def wait(self):
        """Its status, once it has ended."""
        if self.usage is None:
            _, status, self.usage = os.wait4(self.child.pid, 0)
            self.child.returncode = os.waitstatus_to_exitcode(status)
        return self.child.returncode

    def cpu(self):
        """Processor time of all of it so far, in seconds."""
        if self.usage is None:
            with open("/proc/%d/stat" % self.child.pid) as file:
                words = file.read().rpartition(")")[2].split()
            return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")
        return self.usage.ru_utime + self.usage.ru_stime

    def end(self, signal):
        if self.usage is None:
            # Not by send_signal, which would take the end of one that has ended, and its times.
            os.kill(self.child.pid, signal)
            self.wait()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end(9)
        for pipe in (self.child.stdin, self.child.stdout, self.child.stderr):
            if pipe:
                try:
                    pipe.close()
                except OSError:
                    pass


class Collector(Process):
    """Once it listens."""

    def __init__(self, build, folder, *options, endpoint="tcp://127.0.0.1:*"):
        secret = os.path.join(folder, "server.secret")
        program = os.path.join(build, "bin", "zmqwriter")
        if not os.path.exists(secret):
            subprocess.run([program, "keygen", "--dir", folder], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        super().__init__(program, "collect", "--bind", endpoint, "--secret-key", secret,
                         "--timeout", str(PATIENCE), *options,
                         stderr=subprocess.PIPE)
        with open(os.path.join(folder, "server.public")) as file:
            self.key = file.read().strip()
        self.metrics = self.began = None
        for line in self.child.stderr:
            found = re.match(r"metrics on (\S+)", line)
            self.metrics = found.group(1) if found else self.metrics
            if line.startswith("publishing "):
                self.began = time.monotonic()
            found = re.match(r"listening on (\S+)", line)
            if found:
                self.endpoint = found.group(1)
                return
        raise Failed("collect did not start")

    def figure(self, name):
        with urllib.request.urlopen(self.metrics, timeout=PATIENCE) as page:
            text = page.read().decode()
        return float(re.search(r"^zmqwriter_collect_%s (\d+)" % re.escape(name), text,
                               re.M).group(1))

    def resident_kb(self):
        with open("/proc/%d/status" % self.child.pid) as file:
            return int(re.search(r"VmRSS:\s*(\d+)", file.read()).group(1))

    def descriptors(self):
        return len(os.listdir("/proc/%d/fd" % self.child.pid))

    def finish(self):
        """Once it has taken what --count says, and the engine too."""
        if self.wait() != 0:
            raise Failed("collect failed:\n" + self.child.stderr.read())


def in_turns(sides, runs):
    """Runs the functions of (measure, case, side, function) in random order, so often. Each gives
    {counter: value}. As Google Benchmark writes its own."""
    results = []
    for _ in range(runs):
        for index, (measure, case, side, run) in random.sample(list(enumerate(sides)), len(sides)):
            results.append(dict(run(), run_name="%s/%s/%s/manual_time" % (measure, case, side),
                                run_type="iteration", family_index=index))
    return results


def main(measure, description):
    """The options of the other programs. `measure` takes the build's folder, whether to be quick,
    the number of runs and a pattern of names, and gives the results."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("build")
    parser.add_argument("--benchmark_out", required=True, metavar="FILE")
    parser.add_argument("--benchmark_repetitions", type=int, default=5, metavar="N")
    parser.add_argument("--benchmark_filter", default=".", metavar="PATTERN")
    parser.add_argument("--quick", action="store_true")
    options, _ = parser.parse_known_args()  # the others are Google Benchmark's
    try:
        results = measure(os.path.abspath(options.build), options.quick,
                          options.benchmark_repetitions, options.benchmark_filter)
    except (Failed, OSError) as error:
        print("%s: %s" % (os.path.basename(sys.argv[0]), error), file=sys.stderr)
        return 1
    with open(options.benchmark_out, "w") as file:
        json.dump({"benchmarks": results}, file, indent=1)
    return 0
