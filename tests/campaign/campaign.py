"""Repeats the outages of an installation, and accounts for every event.

    [ZMQWRITER_BUILD_DIR=DIR] campaign.py [--quick] [--only EXPRESSION] [--rounds N] [--seed N]

Agents are the real plug-in in `zmqwriter replay --no-pace`. They read the records of samples/ and
synthetic ones; the uid of each is its log and its number in it. Each kind of outage has agents,
collectors and a folder of its own; all kinds run at the same time. The account names the row of
"Limits of the promise" in docs/operations.md that explains the lost events. The exit status is 1 if
more is lost than the limit allows, or no limit explains it, or an event arrives twice. A loss is
attributed like this:

- Collectors killed, restarted, frozen, cut off or with a full disk: an agent runs through all
  outages, and says at its end how many records it read and how many messages libzmq accepted. As
  many of these as no collector received must be lost. Before a SIGKILL the agent has caught up and
  sends in order: in each log, only what follows the last event that the killed collector wrote may
  be lost. A planned restart may cost each agent 8 KiB of events, other outages nothing.
- Agent killed: SIGSTOP, a look at how far it has read, SIGKILL. What it had read or found on disk,
  and what neither arrives nor is on disk after `spool repair`, was in its memory. If a later event
  of its log has arrived or is on disk, it was in the plug-in's queue or in libzmq. Otherwise it may
  also have been in the host's threads; these hold what is read in a second. Records of the last
  4096 bytes, which may not have left the input buffer, count as written only if seen again.
- Spool damaged: as before, and after each kill one file of the repaired spool is damaged at random.
  Only the damaged event, or what is behind a cut or a damaged length in its file, may be lost.

What needs root, a network and a disk of its own, is skipped without it.
"""

import argparse
import collections
import ctypes
import os
import random
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
os.environ["ZMQWRITER_SOURCE_DIR"] = SOURCE
os.environ.setdefault("ZMQWRITER_BUILD_DIR", SOURCE + "/build")
sys.path.insert(0, SOURCE + "/tests/system")
import cli_support as cli  # pylint: disable=wrong-import-position

cli.DEADLINE = 150

# Rows of the table of limits.
ACCEPTED = "accepted is not received"
PLANNED = "a planned stop of `collect`"
CRASH = "an end while the server is down; SIGKILL, a crash"
DAMAGE = "a damaged spool file"

# Events in libzmq's batch of 8 KiB; in the plug-in's memory: 500 waiting, one in work, one batch; in
# the queues and socket buffers of one connection.
BATCH, IN_MEMORY, IN_FLIGHT = 60, 501 + 60, 2000
BLOCK = 4096  # bytes that replay reads at a time

NEW_MOUNTS, NEW_NETWORK = 0x20000, 0x40000000
NOBODY = ("", -1)  # an event that no agent wrote
libc = ctypes.CDLL(None, use_errno=True)
no_root = ""  # why there is no network of its own


class Failed(Exception):
    """A command has failed, or what is needed is not here."""


def run(*command, **options):
    result = subprocess.run(command, capture_output=True, text=True, **options)
    if result.returncode != 0:
        raise Failed("%s: %s" % (" ".join(command), result.stderr.strip()))


def enter_own_network():
    """Gives this process mounts and a network of its own, whose socket buffers are soon full."""
    if not shutil.which("ip") or not hasattr(libc, "unshare"):
        raise Failed("needs Linux and the command ip")
    if libc.unshare(NEW_MOUNTS | NEW_NETWORK) != 0:
        raise Failed("needs root: " + os.strerror(ctypes.get_errno()))
    run("mount", "--make-rprivate", "/")
    set_up_network()


def set_up_network(**options):
    run("ip", "link", "set", "lo", "up", **options)
    run("sh", "-c", "echo 4096 65536 131072 | tee /proc/sys/net/ipv4/tcp_[rw]mem", **options)


def sources(pad):
    """The header of each log, and its records with a zero byte in place of the uid."""
    logs = {"things": (["#separator \\x09", "#path\tthings", "#fields\tts\tuid\ttext",
                        "#types\ttime\tstring\tstring"], ["1.5\t\0\t" + "x" * pad])}
    for name in "conn dns ftp http smtp ssl weird".split():
        lines = cli.read_file("%s/samples/%s.log" % (SOURCE, name)).splitlines()[:-1]
        header = [line for line in lines if line.startswith("#")]
        logs[name] = header, [re.sub("\t[^\t]*", "\t\0", line, 1) for line in lines[len(header):]]
    return logs


def identity(line):
    """The log of an event in JSON, and its number in it."""
    uid = re.match(rb'{"uid":"([\w.]+)-(\d+)"', line)
    return (uid.group(1).decode(), int(uid.group(2))) if uid else NOBODY


class Server:
    """A collector that can be started again on the same endpoint; each run has its own output."""

    def __init__(self, trial, name, host="127.0.0.1", **options):
        self.trial, self.name, self.options = trial, name, options
        self.endpoint = "tcp://%s:*" % host
        self.runs = self.messages = 0
        self.start()

    def start(self):
        self.runs += 1
        path, bound = self.trial.path("%s.%d" % (self.name, self.runs)), None
        while not bound:  # another process may have been given the port meanwhile
            self.process = self.trial.start("collect", "--bind", self.endpoint, "--secret-key",
                                            "server.secret", "--output", path, **self.options)
            cli.wait_for(lambda: "listening on" in self.process.stderr
                         or self.process.popen.poll() is not None, "the collector")
            bound = re.search(r"listening on (\S+)\n", self.process.stderr)
            if not bound and "in use" not in self.process.stderr:
                raise Failed(self.process.stderr)
        self.endpoint = bound.group(1)
        self.file, self.rest = open(path, "rb"), b""

    def follow(self):
        """Counts what was written since the last look."""
        *lines, self.rest = (self.rest + self.file.read()).split(b"\n")
        self.messages += len(lines)
        for line in lines:
            log, number = identity(line)
            self.trial.arrived[log, number] += 1
            self.trial.newest[log] = max(self.trial.newest.get(log, -1), number)

    def kill(self):
        self.process.stop()
        self.follow()

    def stop(self):
        self.process.popen.terminate()
        if self.process.wait() != 0:
            raise Failed(self.process.stderr)
        self.follow()
        totals = cli.totals(self.process)
        self.messages += totals["empty messages"] + totals["malformed messages"]


class Agent:
    def __init__(self, trial, name, servers, rate, pad, **options):
        self.trial, self.name, self.rate, self.pad, self.options = trial, name, rate, pad, options
        self.folder = trial.path(name)
        self.spool = self.folder + "/orvik-spool/work"
        os.makedirs(os.path.dirname(self.spool))
        endpoints = [server.endpoint[len("tcp://"):] for server in servers]
        cli.write_file(self.folder + "/settings", "zmq.server = %s\nzmq.secondary_servers = %s\n"
                       "zmq.public_key = %s\npqueue.chunk.size = 1\n" % (
                           endpoints[0], ",".join(endpoints[1:]),
                           cli.read_file(trial.path("server.public")).strip()))
        self.runs = 0

    def start(self, seconds):
        """Starts it with new logs, which last so long."""
        self.runs += 1
        self.logs = {}  # the number of lines in the header
        for kind, (header, rows) in sources(self.pad).items():
            log = "%s.%d.%s" % (self.name, self.runs, kind)
            self.logs[log] = len(header)
            records = [rows[n % len(rows)].replace("\0", "%s-%d" % (log, n))
                       for n in range(seconds * self.rate // 8 + 1)]
            cli.write_file("%s/%s" % (self.folder, log), "\n".join(header + records) + "\n")
        self.process = self.trial.start(
            "replay", "--settings", "settings", "--plugin", cli.PLUGIN, "--no-pace", "--rate",
            str(self.rate), *self.logs, cwd=self.folder, **self.options)

    def finish(self):
        """Waits for its end. Gives the events that it read."""
        self.process.wait()
        self.sent = int(re.search(r"^sent: (\d+)", self.process.stderr, re.M).group(1))
        return [(log, n) for log in self.logs for n in range(int(re.search(
            r"  %s: (\d+) record" % re.escape(log), self.process.stderr).group(1)))]

    def kill(self):
        """Gives the events that it has read, and those that it may have read."""
        self.process.popen.send_signal(signal.SIGSTOP)
        read, perhaps = set(), set()
        process = "/proc/%d/" % self.process.popen.pid
        for descriptor in os.listdir(process + "fd"):
            log = os.path.basename(os.readlink(process + "fd/" + descriptor))
            if log in self.logs:
                at = int(cli.read_file(process + "fdinfo/" + descriptor).split()[1])
                text = cli.read_file("%s/%s" % (self.folder, log))
                for events, end in (read, at - BLOCK), (perhaps, at):
                    lines = text.count("\n", 0, max(0, end))
                    events |= {(log, n) for n in range(lines - self.logs[log])}
        self.process.stop()
        return read, perhaps

    def repair(self):
        """Follows the page about damaged files. Gives the events moved out, and those left."""
        moved = set()
        while True:
            repair = self.trial.tool("spool", "repair", "--copy-to", self.folder, self.spool)
            left = re.search(rb"left as it is: ([^:]+):", repair.stderr)
            if not left:
                break
            folder = tempfile.mkdtemp(dir=self.folder)
            os.rename(os.path.join(self.spool, left.group(1).decode()), folder + "/queue.dat")
            moved |= self.on_disk(folder)
        look = self.trial.tool("spool", "list", self.spool)
        if repair.returncode != 0 or look.returncode != 0:
            self.trial.problems.append("not repaired: %s%s" % (repair.stderr, look.stdout))
        return moved, self.on_disk(self.spool)

    def on_disk(self, folder):
        dump = self.trial.tool("spool", "dump", folder).stdout
        return {identity(line) for line in dump.splitlines()} - {NOBODY}


class Trial:
    """The outages of one kind, and their account. An event is a pair: its log, its number."""

    def __init__(self, folder, options):
        self.folder = os.path.join(folder, type(self).__name__)
        self.random = random.Random("%s %s" % (options.seed, self.title))
        self.rounds = 2 if options.quick else options.rounds or self.rounds
        self.pace = 0.3 if options.quick else 1
        self.cleanups, self.problems, self.notes = [], [], []
        self.arrived, self.lost = collections.Counter(), collections.Counter()
        self.newest = {}  # of each log, the highest number that arrived
        self.written = self.once = self.twice = self.disk = self.done = self.strange = 0

    def path(self, name):
        return os.path.join(self.folder, name)

    def start(self, *arguments, **options):
        process = cli.Process(list(arguments), **{"cwd": self.folder, **options})
        self.cleanups.append(process.stop)
        return process

    def tool(self, *arguments):
        return subprocess.run([cli.ZMQWRITER, *arguments], cwd=self.folder, capture_output=True)

    def run(self):
        try:
            os.mkdir(self.folder)
            self.tool("keygen")
            self.go()
            self.count_arrived()
        except Exception as error:  # pylint: disable=broad-except
            self.problems.append("%s: %s" % (type(error).__name__, error))
        finally:
            self.clean()

    def clean(self):
        while self.cleanups:
            self.cleanups.pop()()

    def account_for(self, lost, limit, most):
        """Notes lost events that a limit explains, up to its bound."""
        self.lost[limit] += min(lost, most)
        self.lost[None] += max(0, lost - most)

    def count_arrived(self):
        self.strange += self.arrived.pop(NOBODY, 0)
        self.twice += sum(count > 1 for count in self.arrived.values())
        self.once += sum(count == 1 for count in self.arrived.values())
        self.arrived.clear()


class Outages(Trial):
    """Outages of servers, while agents go on to send."""

    rates, pad, catches_up, patience = (120,), 2000, True, 20
    limit, lost_at_each, needs_root = None, 0, False
    # The output and address of the primary, and how to start the others where it is far away.
    output, host, elsewhere = "primary", "127.0.0.1", {}

    def prepare(self):
        """Makes what the servers need."""

    def outage(self, number):
        raise NotImplementedError

    def go(self):
        if self.needs_root and no_root:
            self.notes.append("skipped: " + no_root)
            return
        self.prepare()
        self.primary = Server(self, self.output, self.host)
        self.secondary = Server(self, "secondary", **self.elsewhere)
        servers = self.primary, self.secondary
        self.agents = [Agent(self, "agent%d" % rate, servers, rate, self.pad, **self.elsewhere)
                       for rate in self.rates]
        for agent in self.agents:
            agent.start(60 + self.rounds * self.patience)
        self.catch_up()
        for number in range(self.rounds):
            self.outage(number)
            if self.catches_up:
                self.catch_up()
            self.done += 1
        self.catch_up()
        for agent in self.agents:
            agent.process.popen.terminate()
        read = [agent.finish() for agent in self.agents]
        for server in servers:
            server.stop()
        disk = {event for agent in self.agents for event in agent.on_disk(agent.spool)}
        self.disk = len(disk - self.arrived.keys())
        missing = [set(events) - disk - self.arrived.keys() for events in read]
        self.written = sum(map(len, read))
        self.explain(missing)
        sent = sum(agent.sent for agent in self.agents)
        received = sum(server.messages for server in servers)
        if sent - received != sum(map(len, missing)):
            self.problems.append("libzmq accepted %d and %d arrived, but %d are lost"
                                 % (sent, received, sum(map(len, missing))))

    def explain(self, missing):
        for lost in missing:
            self.account_for(len(lost), self.limit, self.lost_at_each * self.rounds)

    def catch_up(self):
        """Waits until the events of all logs arrive in order, with no older ones among them."""
        def look():
            self.primary.follow()
            self.secondary.follow()
            return dict(self.newest), sum(self.newest.values()) - len(self.arrived)

        def caught_up():
            newest, missing = look()
            time.sleep(1)
            newest_now, missing_now = look()
            return missing == missing_now and all(newest_now[log] > newest.get(log, newest_now[log])
                                                  for agent in self.agents for log in agent.logs)
        cli.wait_for(caught_up, "the agents to catch up")

    def hold(self, seconds, fails_over=False):
        """Lets an outage last for a random time, or until the agent has failed over."""
        if fails_over and not no_root:
            process = self.agents[0].process
            before = process.stderr.count("Switched to secondary")
            cli.wait_for(lambda: process.stderr.count("Switched to secondary") > before,
                         "the failover")
        time.sleep(self.random.uniform(0, seconds * self.pace))


class CollectorKilled(Outages):
    title, rounds, limit, pad = "collector killed", 25, ACCEPTED, 10

    def prepare(self):
        self.ends = []  # at each kill, the newest number of each log

    def outage(self, number):
        self.primary.kill()
        self.ends.append(dict(self.newest))
        self.hold(3 * (number % 2), number % 5 == 4)
        self.primary.start()

    def explain(self, missing):
        lost, at_once = set(missing[0]), []
        for newest in self.ends:
            at_once.append(len(lost))
            for log, n in newest.items():
                while (log, n + 1) in lost:
                    n += 1
                    lost.remove((log, n))
            at_once[-1] -= len(lost)
            self.account_for(at_once[-1], self.limit, IN_FLIGHT)
        self.account_for(len(lost), None, 0)
        self.notes.append("at most %d at once" % max(at_once))


class CollectorRestarted(Outages):
    title, rounds, limit, lost_at_each, pad = "collector restarted", 25, PLANNED, BATCH, 10
    rates, catches_up, patience = (50, 500, 5000), False, 2

    def outage(self, number):
        self.hold(0.6)
        self.primary.stop()
        self.primary.start()

    def explain(self, missing):
        super().explain(missing)
        self.notes.append("%s at %s events/s" % ([len(lost) for lost in missing], list(self.rates)))


class CollectorFrozen(Outages):
    """Every other time both collectors."""

    title, rounds = "collector frozen", 10

    def outage(self, number):
        frozen = [self.primary] + [self.secondary] * (number % 2)
        for server in frozen:
            server.process.popen.send_signal(signal.SIGSTOP)
        self.hold(10, number % 4 == 2)
        for server in frozen:
            server.process.popen.send_signal(signal.SIGCONT)


class NetworkCut(Outages):
    """The primary is behind two virtual interfaces, in another network than the others."""

    title, rounds, needs_root, patience, host = "network cut", 6, True, 60, "10.9.8.1"

    def prepare(self):
        holder = subprocess.Popen(["sleep", "3600"], preexec_fn=lambda: libc.unshare(NEW_NETWORK))
        self.cleanups.append(holder.kill)
        network = os.open("/proc/%d/ns/net" % holder.pid, os.O_RDONLY)
        self.elsewhere = {"preexec_fn": lambda: libc.setns(network, 0)}
        set_up_network(**self.elsewhere)
        run("ip", "link", "add", "name", "near", "type", "veth", "peer", "name", "far", "netns",
            str(holder.pid))
        for side, address, options in (("near", "10.9.8.1/24", {}),
                                       ("far", "10.9.8.2/24", self.elsewhere)):
            run("ip", "address", "add", address, "dev", side, **options)
            run("ip", "link", "set", side, "up", **options)

    def outage(self, number):
        run("ip", "link", "set", "near", "down")
        self.hold(10, number % 3 == 2)
        run("ip", "link", "set", "near", "up")


class DiskFull(Outages):
    """The disk of the primary has 1 MB at first; later, what is used when it is to be full."""

    title, rounds, needs_root, output, pad = "disk full", 6, True, "disk/primary", 10000

    def prepare(self):
        os.mkdir(self.path("disk"))
        run("mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", self.path("disk"))
        self.cleanups.append(lambda: run("umount", "-l", self.path("disk")))

    def outage(self, number):
        disk = os.statvfs(self.path("disk"))
        used = (disk.f_blocks - disk.f_bfree) * disk.f_frsize
        run("mount", "-o", "remount,size=%d" % max(used + 65536, 1 << 20), self.path("disk"))
        cli.wait_for(lambda: self.primary.process.stderr.count("receiving pauses") > number,
                     "the full disk")
        self.hold(10, number % 3 == 2)
        run("mount", "-o", "remount,size=1g", self.path("disk"))


class AgentKilled(Trial):
    """In turn while it sends, while no collector runs, and while it sends what was on disk."""

    title, rounds = "agent killed", 25

    def damage(self, agent):
        """Damages the spool. Gives the events that this may cost."""
        return set()

    def go(self):
        server = Server(self, "primary")
        agent = Agent(self, "agent", [server], 1000, 6000)
        disk, steps = set(), []
        for number in range(self.rounds):
            if number % 3 > 0:
                server.stop()
            agent.start(30)
            time.sleep(self.random.uniform(0.1, 3))
            if number % 3 == 2:
                server.start()
                time.sleep(self.random.uniform(0, 1))
            read, perhaps = agent.kill()
            had, hit = disk | read, self.damage(agent)
            moved, disk = agent.repair()
            steps.append((had, perhaps, hit, moved, disk))
            if number % 3 == 1:
                server.start()
            self.done += 1
        agent.start(0)
        written = set(agent.finish())
        server.stop()
        steps.append((written | disk, set(), set(), *agent.repair()))
        most, aside, damaged, later = [0, 0], set(), set(), set()
        for had, perhaps, hit, moved, disk in steps[::-1]:
            later |= disk | moved  # a repair may find what earlier ones did not
            seen = later | self.arrived.keys()
            damaged |= hit - seen
            written |= had | hit | perhaps & seen
            newest = {}
            for log, n in seen | damaged:
                newest[log] = max(newest.get(log, -1), n)
            lost = had - seen - damaged
            last = sum(n > newest.get(log, -1) for log, n in lost)
            self.account_for(len(lost) - last, CRASH, IN_MEMORY)
            self.account_for(last, CRASH, IN_MEMORY + agent.rate)
            aside |= moved
            most = [max(most[0], len(lost) - last), max(most[1], last)]
        self.written = len(written)
        self.disk = len((aside | steps[-1][-1]) - self.arrived.keys())
        self.lost[DAMAGE] = len(damaged)
        self.strange = -len(damaged)  # the uid of a damaged event may be damaged
        self.notes.append("at once at most %d and %d of the newest" % tuple(most))


class SpoolDamaged(AgentKilled):
    """As before, and after each kill the spool is repaired, and one file of it damaged."""

    title, rounds = "spool damaged", 50

    def damage(self, agent):
        agent.repair()
        folder = agent.spool
        names = sorted(os.listdir(folder), key=lambda name: (len(name), name))
        if not names:
            return set()
        chosen = self.random.randrange(len(names))
        content = bytearray(cli.read_file(os.path.join(folder, names[chosen]), "rb"))
        records, at = [], 12  # where each begins, and its event
        count, = struct.unpack_from("<I", content, 8)
        while len(records) < count:
            end = at + 4 + struct.unpack_from("<H", content, at)[0]
            log, number = re.search(rb"(agent[\w.]+)-(\d+)", content[at:end]).groups()
            records.append((at, (log.decode(), int(number))))
            at = end
        if not records:
            return set()
        number = self.random.randrange(len(records))
        begin, end = ([at for at, _ in records] + [at])[number:number + 2]
        hit = []
        how = self.random.choice("header signature cut byte length gap unopened".split())
        if how == "header":
            content[4:12] = self.random.randbytes(8)
        elif how == "signature":
            content[:4] = self.random.randbytes(4)
        elif how == "cut":
            del content[self.random.randrange(begin, end):]
            hit = records[number:]
        elif how == "byte":
            content[self.random.randrange(begin + 4, end)] ^= 0x80
            hit = records[number:number + 1]
        elif how == "length":
            content[begin + self.random.randrange(4)] ^= self.random.randrange(1, 256)
            hit = records[number:]
        cli.write_file(os.path.join(folder, names[chosen]), bytes(content))
        if how == "gap":
            for other in range(len(names) - 1, chosen - 1, -1):
                os.rename(os.path.join(folder, names[other]),
                          "%s/queue.dat.%d" % (folder, other + 1))
        elif how == "unopened":
            os.rename(folder + "/queue.dat", folder + "/queue.dat.unopened")
        return {event for _, event in hit}


def account(trials):
    """Prints the account. Gives the problems."""
    page = cli.read_file(SOURCE + "/docs/operations.md").partition("## Limits of the promise")[2]
    limits = re.findall(r"^\| ([^|]+) \|", page, re.M)
    row = "%-20s%8s%9s%9s%6s%7s%8s  %s"
    print(row % ("", "outages", "written", "once", "twice", "lost", "on disk", "limit"))
    total, problems = [0] * 6, []
    for trial in trials:
        figures = [trial.done, trial.written, trial.once, trial.twice, sum(trial.lost.values()),
                   trial.disk]
        total = [sum(pair) for pair in zip(total, figures)]
        print(row % (trial.title, *figures, "; ".join(
            ["%s: %d" % (limit or "no limit", lost) for limit, lost in (+trial.lost).items()] + trial.notes)))
        unexplained = sum(lost for limit, lost in trial.lost.items() if limit not in limits)
        left = trial.written - sum(figures[2:])
        checks = {"lost that no limit explains": unexplained, "not accounted for": left,
                  "arrived twice": trial.twice, "never written": max(0, trial.strange)}
        problems += ["%s: %s" % (trial.title, problem) for problem in trial.problems + [
            "%d %s" % (count, what) for what, count in checks.items() if count]]
    print(row % ("all", *total, ""))
    return problems


def main():
    global no_root
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="two outages of each kind")
    parser.add_argument("--only", default="", help="only the kinds that match this expression")
    parser.add_argument("--rounds", type=int, help="outages of each kind")
    parser.add_argument("--seed", type=int, default=random.randrange(10 ** 6))
    options = parser.parse_args()
    print("seed %d" % options.seed, flush=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        enter_own_network()
    except Failed as reason:
        no_root = str(reason)
    begin = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="zmqwriter-campaign-") as folder:
        trials = [kind(folder, options) for kind in (
            CollectorKilled, CollectorRestarted, CollectorFrozen, NetworkCut, DiskFull, AgentKilled,
            SpoolDamaged) if re.search(options.only, kind.title)]
        threads = [threading.Thread(target=trial.run, daemon=True) for trial in trials]
        try:
            for thread in threads:
                thread.start()
            for thread in threads:
                while thread.is_alive():
                    thread.join(10)
                    print("%3.0f s: %s" % (time.monotonic() - begin, ", ".join(
                        "%s %d/%d" % (trial.title, trial.done, trial.rounds)
                        for trial in trials)), flush=True)
        finally:
            for trial in trials:
                trial.clean()
    problems = account(trials)
    print("\n".join(problems) or "Every lost event is explained by a stated limit.")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
