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
  65536 bytes, which may not have left the input buffer, count as written only if seen again.
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

# Events in libzmq's batch of 8 KiB; in the plug-in's memory (500 waiting, one in work, one batch);
# in the queues and socket buffers of one connection.
BATCH, IN_MEMORY, IN_FLIGHT = 60, 561, 2000
NEW_MOUNTS, NEW_NETWORK = 0x20000, 0x40000000
NOBODY = ("", -1)  # an event that no agent wrote
libc = ctypes.CDLL(None, use_errno=True)
no_root = ""  # why there is no network and no disk of its own


def run(*command, **options):
    subprocess.run(command, check=True, **options)


def enter_own_network():
    """Gives this process mounts and a network of its own, or says why it cannot."""
    if not shutil.which("ip") or not hasattr(libc, "unshare"):
        return "needs Linux and the command ip"
    if libc.unshare(NEW_MOUNTS | NEW_NETWORK) != 0:
        return "needs root: " + os.strerror(ctypes.get_errno())
    run("mount", "--make-rprivate", "/")
    set_up_network()
    return ""


def set_up_network(**options):
    """Socket buffers are small, so that they are full within seconds."""
    run("sh", "-c", "ip link set lo up; for name in rmem wmem; do"
        " echo 4096 65536 131072 >/proc/sys/net/ipv4/tcp_$name; done", **options)


def sources(pad):
    """The header of each log, and its records with a zero byte in place of the uid."""
    logs = {"things": (["#separator \\x09", "#path\tthings", "#fields\tts\tuid\ttext",
                        "#types\ttime\tstring\tstring"], ["1.5\t\0\t" + "x" * pad])}
    for name in "conn dns ftp http smtp ssl weird".split():
        lines = cli.read_file(f"{SOURCE}/samples/{name}.log").splitlines()[:-1]
        header = [line for line in lines if line.startswith("#")]
        logs[name] = header, [re.sub("\t[^\t]*", "\t\0", line, 1) for line in lines[len(header):]]
    return logs


def identity(line):
    """The log of an event in JSON, and its number in it."""
    uid = re.match(rb'{"uid":"([\w.]+)-(\d+)"', line)
    return (uid.group(1).decode(), int(uid.group(2))) if uid else NOBODY


class Server:
    """A collector that can be started again on the same endpoint; each run has its own output."""

    def __init__(self, trial, name, host="127.0.0.1", arguments=(), **options):
        self.trial, self.name, self.arguments, self.options = trial, name, arguments, options
        self.endpoint = cli.Port(host).endpoint
        self.runs = self.messages = 0
        self.start()

    def start(self):
        self.runs += 1
        path = f"{self.trial.folder}/{self.name}.{self.runs}"
        self.process = self.trial.start(*cli.CliTest.BIND, self.endpoint, "--output", path,
                                        *self.arguments, **self.options)
        cli.wait_for(lambda: "listening on" in self.process.stderr
                     or self.process.popen.poll() is not None, "the collector")
        assert "listening on" in self.process.stderr, self.process.stderr
        url = re.search(r"status on (\S+)", self.process.stderr)
        self.process.url = url and url.group(1)
        self.file, self.rest = open(path, "rb"), b""

    def follow(self):
        """Counts what was written since the last look."""
        *lines, self.rest = (self.rest + self.file.read()).split(b"\n")
        self.messages += len(lines)
        for log, number in map(identity, lines):
            self.trial.arrived[log, number] += 1
            self.trial.newest[log] = max(self.trial.newest.get(log, -1), number)

    def kill(self):
        self.process.stop()
        self.follow()

    def stop(self):
        self.process.popen.terminate()
        assert self.process.wait() == 0, self.process.stderr
        self.follow()
        totals = cli.totals(self.process)
        self.messages += totals["empty messages"] + totals["malformed messages"]


class Agent:
    def __init__(self, trial, servers, rate, pad, **options):
        self.trial, self.rate, self.pad, self.options = trial, rate, pad, options
        self.folder = f"{trial.folder}/agent{rate}"
        self.spool = self.folder + "/orvik-spool/work"
        self.runs = 0
        os.makedirs(os.path.dirname(self.spool))
        primary, *others = (server.endpoint for server in servers)
        key = cli.read_file(trial.folder + "/server.public").strip()
        cli.write_file(self.folder + "/settings", f"zmq.server = {primary}\npqueue.chunk.size = 1\n"
                       f"zmq.secondary_servers = {','.join(others)}\nzmq.public_key = {key}\n")

    def start(self, seconds):
        """Starts it with new logs, which last so long."""
        self.runs += 1
        self.logs = {}  # the number of lines in the header
        for kind, (header, rows) in sources(self.pad).items():
            log = f"agent{self.rate}.{self.runs}.{kind}"
            self.logs[log] = len(header)
            records = [rows[n % len(rows)].replace("\0", f"{log}-{n}")
                       for n in range(seconds * self.rate // 8 + 1)]
            cli.write_file(f"{self.folder}/{log}", "\n".join(header + records) + "\n")
        self.process = self.trial.start(
            "replay", "--settings", "settings", "--plugin", cli.PLUGIN, "--no-pace", "--rate",
            str(self.rate), *self.logs, cwd=self.folder, **self.options)

    def finish(self):
        """Waits for its end. Gives the events that it read."""
        self.process.wait()
        self.sent = int(re.search(r"^sent: (\d+)", self.process.stderr, re.M).group(1))
        counts = re.findall(r"^  (\S+): (\d+) record", self.process.stderr, re.M)
        return {(log, n) for log, count in counts for n in range(int(count))}

    def kill(self):
        """Gives the events that it has read, and those that it may have read."""
        self.process.popen.send_signal(signal.SIGSTOP)
        read, perhaps = set(), set()
        process = f"/proc/{self.process.popen.pid}"
        for descriptor in os.listdir(process + "/fd"):
            log = os.path.basename(os.readlink(f"{process}/fd/{descriptor}"))
            if log in self.logs:
                at = int(cli.read_file(f"{process}/fdinfo/{descriptor}").split()[1])
                text = cli.read_file(f"{self.folder}/{log}")
                for events, end in (read, at - 65536), (perhaps, at):
                    lines = text.count("\n", 0, max(0, end))
                    events |= {(log, n) for n in range(lines - self.logs[log])}
        self.process.stop()
        return read, perhaps

    def repair(self):
        """Follows the page about damaged files. Gives the events moved out, and those left."""
        moved, left = set(), True
        while left:
            repair = self.trial.tool("spool", "repair", "--copy-to", self.folder, self.spool)
            left = re.search(rb"left as it is: ([^:]+):", repair.stderr)
            if left:
                folder = tempfile.mkdtemp(dir=self.folder)
                os.rename(f"{self.spool}/{left.group(1).decode()}", folder + "/queue.dat")
                moved |= self.on_disk(folder)
        look = self.trial.tool("spool", "list", self.spool)
        assert repair.returncode == 0 and look.returncode == 0, f"{repair} {look}"
        return moved, self.on_disk(self.spool)

    def on_disk(self, folder):
        dump = self.trial.tool("spool", "dump", folder).stdout
        return set(map(identity, dump.splitlines())) - {NOBODY}


class Trial:
    """The outages of one kind, and their account. An event is a pair: its log, its number."""

    notes, ended = "", False

    def __init__(self, folder, options):
        self.folder = f"{folder}/{type(self).__name__}"
        self.random = random.Random(f"{options.seed} {self.title}")
        self.rounds = 2 if options.quick else options.rounds or self.rounds
        self.pace = 0.3 if options.quick else 1
        self.cleanups, self.problems, self.done, self.written = [], [], 0, 0
        self.arrived, self.lost = collections.Counter(), collections.Counter()
        self.newest = {}  # of each log, the highest number that arrived
        self.disk = self.damaged = set()

    def start(self, *arguments, **options):
        assert not self.ended
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
        except Exception as error:  # pylint: disable=broad-except
            self.problems.append(f"{type(error).__name__}: {error}")
        finally:
            self.clean()

    def clean(self):
        while self.cleanups:
            self.cleanups.pop()()

    def account_for(self, lost, limit, most):
        """Notes lost events that a limit explains, up to its bound."""
        self.lost[limit] += min(lost, most)
        self.lost["no limit"] += max(0, lost - most)


class Outages(Trial):
    """Outages of servers, while agents go on to send."""

    rates, pad, catches_up, patience = (120,), 2000, True, 20
    limit, lost_at_each, needs_root = "no limit", 0, False
    # The output and address of the primary, and how to start the others where it is far away.
    output, host, elsewhere = "primary", "127.0.0.1", {}

    def prepare(self):
        """Makes what the servers need."""

    def go(self):
        if self.needs_root and no_root:
            self.notes = "skipped: " + no_root
            return
        self.prepare()
        self.primary = Server(self, self.output, self.host)
        self.secondary = Server(self, "secondary", **self.elsewhere)
        servers = self.primary, self.secondary
        self.agents = [Agent(self, servers, rate, self.pad, **self.elsewhere)
                       for rate in self.rates]
        for agent in self.agents:
            agent.start(60 + self.rounds * self.patience)
        self.catch_up()
        for self.done in range(1, self.rounds + 1):
            self.outage(self.done)
            self.catch_up()
        for agent in self.agents:
            agent.process.popen.terminate()
        read = [agent.finish() for agent in self.agents]
        for server in servers:
            server.stop()
        self.disk = set().union(*(agent.on_disk(agent.spool) for agent in self.agents))
        missing = [events - self.disk - self.arrived.keys() for events in read]
        lost = sum(map(len, missing))
        self.written = sum(map(len, read))
        self.explain(missing)
        accepted = sum(agent.sent for agent in self.agents)
        received = sum(server.messages for server in servers)
        if accepted - received != lost:
            self.problems.append(f"{accepted} accepted and {received} received, but {lost} lost")

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
        cli.wait_for(caught_up if self.catches_up else lambda: look()[0], "the agents to catch up")

    def hold(self, seconds, fails_over=False):
        """Lets an outage last for a random time, or until the agent has failed over."""
        if fails_over and not no_root:
            process = self.agents[0].process
            before = process.stderr.count("Switched to secondary")
            cli.wait_for(lambda: process.stderr.count("Switched to secondary") > before,
                         "the failover")
        time.sleep(self.random.uniform(0, seconds * self.pace))


class CollectorKilled(Outages):
    title, rounds, limit, lost_at_each, pad = "collector killed", 25, ACCEPTED, IN_FLIGHT, 10

    def prepare(self):
        self.ends = []  # at each kill, the newest number of each log

    def outage(self, number):
        self.primary.kill()
        self.ends += self.newest.items()
        self.hold(number % 2 * 3, number % 5 == 0)
        self.primary.start()

    def explain(self, missing):
        explained = set()
        for log, n in self.ends:
            while (log, n + 1) in missing[0]:
                n += 1
                explained.add((log, n))
        super().explain([explained])
        self.account_for(len(missing[0] - explained), "no limit", 0)


class CollectorRestarted(Outages):
    title, rounds, limit, lost_at_each, pad = "collector restarted", 25, PLANNED, BATCH, 10
    rates, catches_up, patience = (50, 500, 5000), False, 2

    def outage(self, _):
        self.hold(1)
        self.primary.stop()
        self.primary.start()

    def explain(self, missing):
        super().explain(missing)
        self.notes = f"{[len(lost) for lost in missing]} at {self.rates} events/s"


class CollectorFrozen(Outages):
    """Every other time both collectors."""

    title, rounds = "collector frozen", 10

    def outage(self, number):
        frozen = [self.primary, self.secondary][:1 + number % 2]
        for server in frozen:
            server.process.popen.send_signal(signal.SIGSTOP)
        self.hold(10, number % 4 == 0)
        for server in frozen:
            server.process.popen.send_signal(signal.SIGCONT)


class NetworkCut(Outages):
    """The primary is behind two virtual interfaces, in another network than the others."""

    title, rounds, needs_root, patience, host = "network cut", 6, True, 60, "10.9.8.1"

    def prepare(self):
        holder = subprocess.Popen(["sleep", "3600"], preexec_fn=lambda: libc.unshare(NEW_NETWORK))
        self.cleanups.append(holder.kill)
        network = os.open(f"/proc/{holder.pid}/ns/net", os.O_RDONLY)
        self.elsewhere = {"preexec_fn": lambda: libc.setns(network, 0)}
        set_up_network(**self.elsewhere)
        run("sh", "-c", f"ip link add near type veth peer name far netns {holder.pid} &&"
            f" ip address add {self.host}/24 dev near && ip link set near up")
        run("sh", "-c", "ip address add 10.9.8.2/24 dev far && ip link set far up",
            **self.elsewhere)

    def outage(self, number):
        run("ip", "link", "set", "near", "down")
        self.hold(10, number % 3 == 0)
        run("ip", "link", "set", "near", "up")


class DiskFull(Outages):
    """The disk of the primary has 1 MB at first; later, what is used when it is to be full."""

    title, rounds, needs_root, output, pad = "disk full", 6, True, "disk/primary", 10000

    def prepare(self):
        self.disk_folder = self.folder + "/disk"
        os.mkdir(self.disk_folder)
        run("mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", self.disk_folder)
        self.cleanups.append(lambda: run("umount", "-l", self.disk_folder))

    def outage(self, number):
        disk = os.statvfs(self.disk_folder)
        full = max((disk.f_blocks - disk.f_bfree) * disk.f_frsize + 65536, 1 << 20)
        run("mount", "-o", f"remount,size={full}", self.disk_folder)
        cli.wait_for(lambda: self.primary.process.stderr.count("receiving pauses") == number,
                     "the full disk")
        self.hold(10, number % 3 == 0)
        run("mount", "-o", "remount,size=1g", self.disk_folder)


class AgentKilled(Trial):
    """In turn while it sends, while no collector runs, and while it sends what was on disk."""

    title, rounds = "agent killed", 25

    def damage(self, agent):
        """Damages the spool. Gives the events that this may cost."""
        return set()

    def go(self):
        server = Server(self, "primary")
        agent = Agent(self, [server], 1000, 6000)
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
        written = agent.finish()
        server.stop()
        steps.append((written | disk, set(), set(), *agent.repair()))
        self.disk = steps[-1][-1].union(*(moved for _, _, _, moved, _ in steps))
        self.account(steps, written, agent.rate)

    def account(self, steps, written, rate):
        most, later = [0, 0], set()
        for had, perhaps, hit, moved, disk in steps[::-1]:
            later |= disk | moved  # a repair may find what earlier ones did not
            seen = later | self.arrived.keys()
            written |= had | hit | perhaps & seen
            self.damaged = self.damaged | hit - seen
            newest = {}
            for log, n in seen | self.damaged:
                newest[log] = max(newest.get(log, -1), n)
            lost = had - seen - self.damaged
            last = sum(n > newest.get(log, -1) for log, n in lost)
            self.account_for(len(lost) - last, CRASH, IN_MEMORY)
            self.account_for(last, CRASH, IN_MEMORY + rate)
            most = [max(most[0], len(lost) - last), max(most[1], last)]
        self.written = len(written)
        self.lost[DAMAGE] = len(self.damaged)
        self.notes = "at once at most %d and %d of the newest" % tuple(most)


class SpoolDamaged(AgentKilled):
    title, rounds = "spool damaged", 50

    def damage(self, agent):
        agent.repair()
        names = sorted(os.listdir(agent.spool), key=lambda name: (len(name), name))
        names = [f"{agent.spool}/{name}" for name in names]
        if not names:
            return set()
        chosen = self.random.randrange(len(names))
        content = bytearray(cli.read_file(names[chosen], "rb"))
        begins, events = [12], []
        for _ in range(struct.unpack_from("<I", content, 8)[0]):
            begins.append(begins[-1] + 4 + struct.unpack_from("<H", content, begins[-1])[0])
            uid = re.search(rb"(agent[\w.]+)-(\d+)", content[begins[-2]:begins[-1]])
            events.append((uid.group(1).decode(), int(uid.group(2))))
        if not events:
            return set()
        number = self.random.randrange(len(events))
        begin, end = begins[number:number + 2]
        how = self.random.choice("header signature cut byte length gap unopened".split())
        if how == "header":
            content[4:12] = self.random.randbytes(8)
        elif how == "signature":
            content[:4] = self.random.randbytes(4)
        elif how == "cut":
            del content[self.random.randrange(begin, end):]
        elif how == "byte":
            content[self.random.randrange(begin + 4, end)] ^= 0x80
        elif how == "length":
            content[begin + self.random.randrange(4)] ^= self.random.randrange(1, 256)
        cli.write_file(names[chosen], bytes(content))
        if how == "gap":
            for other in range(len(names) - 1, chosen - 1, -1):
                os.rename(names[other], f"{agent.spool}/queue.dat.{other + 1}")
        elif how == "unopened":
            os.rename(names[0], names[0] + ".unopened")
        return {"cut": set(events[number:]), "length": set(events[number:]),
                "byte": {events[number]}}.get(how, set())


def print_account(trials):
    """Gives the problems."""
    page = cli.read_file(SOURCE + "/docs/operations.md").partition("## Limits of the promise")[2]
    limits = re.findall(r"^\| ([^|]+) \|", page, re.M)
    row = "%-20s%8s%9s%9s%6s%7s%8s  %s"
    print(row % ("", "outages", "written", "once", "twice", "lost", "on disk", "limit"))
    rows, problems = [], []
    for trial in trials:
        strange = trial.arrived.pop(NOBODY, 0)  # the uid of a damaged event may be damaged
        once = sum(count == 1 for count in trial.arrived.values())
        twice, lost = len(trial.arrived) - once, sum(trial.lost.values())
        disk = len(trial.disk - trial.arrived.keys())
        rows.append((trial.done, trial.written, once, twice, lost, disk))
        print(row % (trial.title, *rows[-1], "; ".join(
            [f"{limit}: {count}" for limit, count in trial.lost.items() if count]
            + [trial.notes] * bool(trial.notes))))
        checks = {"lost that no limit explains": sum(
            count for limit, count in trial.lost.items() if limit not in limits),
                  "not accounted for": trial.written - once - twice - lost - disk,
                  "arrived twice": twice, "never written": max(0, strange - len(trial.damaged))}
        problems += [f"{trial.title}: {problem}" for problem in trial.problems + [
            f"{count} {what}" for what, count in checks.items() if count]]
    print(row % ("all", *map(sum, zip(*rows)), ""))
    return problems


def options_of(description):
    parser = argparse.ArgumentParser(description=description,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="two outages of each kind")
    parser.add_argument("--only", default="", help="only the kinds that match this expression")
    parser.add_argument("--rounds", type=int, help="outages of each kind")
    parser.add_argument("--seed", type=int, default=random.randrange(10 ** 6))
    options = parser.parse_args()
    print("seed", options.seed, flush=True)
    return options


def run_all(kinds, options):
    """Runs the kinds that were asked for, all at the same time. Gives them with their accounts."""
    global no_root
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    no_root = no_root or enter_own_network()
    begin = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="zmqwriter-campaign-") as folder:
        trials = [kind(folder, options) for kind in kinds if re.search(options.only, kind.title)]
        threads = [threading.Thread(target=trial.run, daemon=True) for trial in trials]
        try:
            for thread in threads:
                thread.start()
            for thread in threads:
                while thread.is_alive():
                    thread.join(10)
                    print("%3.0f s:" % (time.monotonic() - begin), ", ".join(
                        f"{trial.title} {trial.done}/{trial.rounds}" for trial in trials),
                          flush=True)
        finally:
            signal.signal(signal.SIGTERM, signal.SIG_IGN)
            Trial.ended = True
            for trial in trials:
                trial.clean()
    return trials


def main():
    problems = print_account(run_all((
        CollectorKilled, CollectorRestarted, CollectorFrozen, NetworkCut, DiskFull, AgentKilled,
        SpoolDamaged), options_of(__doc__)))
    print("\n".join(problems) or "Every lost event is explained by a stated limit.")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
