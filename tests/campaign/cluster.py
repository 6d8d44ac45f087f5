"""Repeats the outages of a log of NATS JetStream, and accounts for every event.

    [ZMQWRITER_BUILD_DIR=DIR] cluster.py [--quick] [--only EXPRESSION] [--rounds N] [--seed N]

As campaign.py, with `collect --to` in place of files: agents are the real plug-in, each kind of
outage has agents, a collector and servers of its own, and all kinds but the last run at the same
time. The collector also writes what it receives to a file. So a lost event was in its window, if it
is in the file, or else on the way to it. The account names the row of "What each failure costs" in
docs/scale.md that explains the lost events. The exit status is 1 if more is lost than that row
allows, or no row explains it, or an event is stored twice.
"""

import collections
import json
import re
import ssl
import sys
import threading
import time

import campaign
from campaign import cli
import nats_support as nats  # pylint: disable=wrong-import-order

KILLED = "a collector is killed, or its machine dies"
STOPPED = "a collector ends by SIGTERM"


class Stream(campaign.Trial):
    """Outages while an agent sends. `rate` is in events a second, `least` what is sent in all."""

    replicas, rate, least, rounds, holds = 1, 800, 10000, 3, 5
    limits, config, login, arguments, elsewhere = "", "", {}, (), {}
    limit, lost_at_each, needs_root = "no limit", 0, False
    stored, sent = {}, 0

    def make_engine(self):
        return nats.NatsServer(self.folder, self.config, **self.elsewhere)

    def prepare(self):
        """Makes what the servers need."""

    def go(self):
        if self.needs_root and campaign.no_root:
            self.notes = "skipped: " + campaign.no_root
            return
        self.prepare()
        self.engine = self.make_engine()
        self.cleanups.append(self.engine.kill)
        self.servers = getattr(self.engine, "servers", [self.engine])
        self.engine.start()
        self.before = []  # messages of a stream that was deleted
        self.collector = campaign.Server(self, "collector", arguments=(
            "--to", self.engine.url, "--create-stream", f"replicas={self.replicas}{self.limits}",
            "--format", "json", "--metrics", "127.0.0.1:0", *self.arguments))
        self.agent = campaign.Agent(self, [self.collector], self.rate, 10)
        self.agent.start(60 + self.rounds * 30 + self.least // self.rate)
        self.flow()
        for number in range(1, self.rounds + 1):
            self.outage(number)
            self.flow()
            self.done = number
        self.finish()

    def finish(self):
        cli.wait_for(lambda: self.count() >= self.least * self.pace, f"{self.least} events")
        # An agent that ends while it is held up loses what is in its memory.
        cli.wait_for(lambda: self.figures()["window"]["events"] < 100, "the agent to catch up")
        self.agent.process.popen.terminate()
        read = self.agent.finish()
        self.sent = self.agent.sent
        cli.wait_for(lambda: self.figures()["window"]["events"] == 0, "the acknowledgements")
        figures = self.figures()
        self.notes += f"{figures['repeated']} published again, {figures['stored_before']} of them" \
                      " known to the engine"
        self.collector.stop()
        self.disk = self.agent.on_disk(self.agent.spool)
        self.stored = collections.Counter()
        # After outages the servers of a cluster may differ in a few messages. Each reading is of any
        # one of them.
        for _ in range(10 if self.replicas > 1 else 1):
            self.stored |= collections.Counter(
                self.before + [campaign.identity(payload) for payload in self.payloads()])
            if read - self.disk <= self.stored.keys():
                break
        self.explain(read - self.disk - self.stored.keys())
        strange = len(self.stored.keys() - read)
        if strange:
            self.problems.append(f"{strange} stored that the agent did not read")

    def explain(self, lost):
        if lost:
            in_window = len(lost & self.arrived.keys())
            self.notes = f"{in_window} in the window, {len(lost) - in_window} on the way to it"
        if self.sent - len(self.stored) != len(lost):
            self.problems.append(f"{self.sent} sent and {len(self.stored)} stored, but "
                                 f"{len(lost)} lost")
        self.account_for(len(lost), self.limit, self.lost_at_each * self.rounds)

    def ask(self, question):
        """Asks the servers, one after the other, until one answers; None if none does."""
        for server in self.servers:
            try:
                with server.client(**self.login) as client:
                    return question(client)
            except OSError:
                pass
        return None

    def count(self):
        return len(self.before) + (self.ask(
            lambda client: client.stream("zmqwriter", 2)["state"]["messages"]) or 0)

    def payloads(self):
        return cli.wait_for(lambda: self.ask(lambda client: [
            payload for _, _, payload in client.messages("zmqwriter")]), "the stream")

    def figures(self):
        return status(self.collector.process)["stream"]

    def flow(self):
        """Waits until further events are stored."""
        before = self.count()
        cli.wait_for(lambda: self.count() > before + self.rate // 4, "further events")

    def hold(self, trouble=None):
        if trouble:
            cli.wait_for(lambda: self.figures()["trouble"] == trouble, "trouble " + trouble)
        time.sleep(self.random.uniform(0, self.holds * self.pace))


def status(collector):
    return json.loads(cli.CliTest.get(collector, "status.json")[1])


class Cluster(Stream):
    replicas = 3

    def make_engine(self):
        return nats.NatsCluster(self.folder)


class LeaderKilled(Cluster):
    title, rounds, rate, least, holds = "leader killed", 10, 1300, 100000, 2

    def outage(self, number):
        self.engine.leader("zmqwriter").kill()
        self.hold()
        self.engine.start()


class AllStopped(Cluster):
    title, rounds = "all servers stopped 30 s", 1

    def outage(self, number):
        self.engine.stop()
        time.sleep(30 * self.pace)
        self.engine.start()


class Frozen(Cluster):
    """The leader, another server, all."""

    title, holds = "servers frozen", 15

    def outage(self, number):
        leader = self.engine.leader("zmqwriter")
        others = [server for server in self.servers if server != leader]
        frozen = ([leader], others[:1], self.servers)[(number - 1) % 3]
        for server in frozen:
            server.freeze()
        self.hold()
        for server in frozen:
            server.thaw()


class NetworkCut(Stream):
    """Packets vanish; the server is behind two virtual interfaces, in another network."""

    title, needs_root, holds = "network cut", True, 15

    host, prepare = "10.9.8.1", campaign.NetworkCut.prepare

    def make_engine(self):
        return nats.NatsServer(self.folder, host="10.9.8.2", **self.elsewhere)

    def outage(self, number):
        campaign.run("ip", "link", "set", "near", "down")
        self.hold("connection_lost")
        campaign.run("ip", "link", "set", "near", "up")


class Full(Stream):
    title, limits = "stream full", ",max-msgs=5000"

    def outage(self, number):
        self.hold("full")
        most = 5000 * (number + 1) if number < self.rounds else 10 ** 7
        self.ask(lambda client: client.change_stream("zmqwriter", max_msgs=most))


class Deleted(Stream):
    """Its subjects are taken away first, so that what it holds can be counted."""

    title = "stream deleted"

    def outage(self, number):
        self.ask(lambda client: client.change_stream("zmqwriter", subjects=["nothing"]))
        time.sleep(0.5)
        gone = [campaign.identity(payload) for payload in self.payloads()]
        self.ask(lambda client: client.delete_stream("zmqwriter"))
        self.before += gone
        self.hold("no_stream")
        self.ask(lambda client: client.make_stream("zmqwriter", subjects=["zmqwriter.>"]))


class RightsWithdrawn(Stream):
    """The right to publish, the user, in turn."""

    title, login = "rights withdrawn", {"user": "root", "pass": "secret"}
    me = ('{ user: me, password: secret, permissions: { publish: [ "$JS.API.>", "%s" ], '
          'subscribe: ">" } }, ')
    users = "authorization { users: [ %s{ user: root, password: secret } ] }\n"
    config, arguments = users % (me % "zmqwriter.>"), ("--nats-user", "user")

    def prepare(self):
        cli.write_file(self.folder + "/user", "me\nsecret\n")

    def outage(self, number):
        self.engine.reload(self.users % (self.me % "nothing" if number % 2 else ""))
        self.hold("not_authorised")
        self.engine.reload(self.config)


class WrongCertificate(Stream):
    title, arguments = "wrong certificate", ("--nats-ca", "ca.pem")

    def prepare(self):
        nats.make_certificates(self.folder)
        self.config = self.certificate("")
        self.login = {"tls": ssl.create_default_context(cafile=self.folder + "/ca.pem")}

    def certificate(self, kind):
        name = f"{self.folder}/{kind}server"
        return f'tls {{ cert_file: "{name}.pem", key_file: "{name}.key", timeout: 5 }}\n'

    def outage(self, number):
        for kind in ("other-", ""):
            self.engine.stop()
            self.engine.configure(self.certificate(kind))
            self.engine.start()
            if kind:
                self.hold("connection_lost")


class CollectorKilled(Stream):
    """Each tenth time while the server is frozen and the window is full."""

    title, rounds, holds, limit, window = "collector killed", 50, 0.5, KILLED, 500
    lost_at_each, arguments = window + campaign.IN_FLIGHT, ("--window", str(window))

    def outage(self, number):
        self.hold()
        if number % 10 == 0:
            self.engine.freeze()
            cli.wait_for(lambda: self.figures()["window"]["events"] == self.window, "a full window")
        self.collector.kill()
        self.engine.thaw()
        self.collector.start()

    def explain(self, lost):
        super().explain(lost)
        at_once, last = [0], None  # events of all logs have numbers that grow with the time
        for n in sorted(n for _, n in lost):
            if last is not None and n - last > self.rate / 8 / 5:
                at_once.append(0)
            at_once[-1] += 1
            last = n
        self.notes = f"at most {max(at_once)} at once; {self.notes}"


class CollectorStopped(Stream):
    """While the server is away: the next run publishes what was not acknowledged."""

    title, rounds, holds, limit = "collector stopped", 5, 3, STOPPED
    lost_at_each, arguments = campaign.BATCH, ("--unsent", "unsent", "--drain", "0.5")

    def outage(self, number):
        self.engine.kill()
        self.hold("connection_lost")
        self.collector.stop()
        self.engine.start()
        self.collector.start()


class Memory(campaign.Trial):
    """One fast agent. The server is killed at four moments, and started again 2 s later."""

    title, rounds, least = "memory", 4, 1000000
    stored, sent = {}, 0

    def go(self):
        least = self.least // 10 if self.pace < 1 else self.least
        engine = nats.NatsServer(self.folder)
        self.cleanups.append(engine.kill)
        engine.start()
        server = campaign.Server(self, "collector", arguments=(
            "--to", engine.url, "--create-stream", "--metrics", "127.0.0.1:0"))
        collector = server.process
        agent = campaign.Agent(self, [server], 200000, 10)
        agent.start(least // 200000 + 2)
        done, memory = threading.Event(), []

        def watch():
            while not done.wait(0.1):
                try:
                    text = cli.read_file(f"/proc/{collector.popen.pid}/status")
                except OSError:
                    return
                figure = re.search(r"VmRSS:\s+(\d+)", text)
                memory.append((status(collector)["stream"]["acknowledged"],
                               int(figure.group(1)) / 1024))
        threading.Thread(target=watch, daemon=True).start()
        for number in range(1, self.rounds + 1):
            cli.wait_for(lambda: memory and memory[-1][0] >= least * (2 * number - 1) / (
                2 * self.rounds), "events")
            engine.kill()
            time.sleep(2)
            engine.start()
            self.done = number
        cli.wait_for(lambda: memory[-1][0] >= least, f"{least} events")
        done.set()
        agent.process.popen.terminate()
        agent.finish()
        self.sent = agent.sent
        server.stop()
        with engine.client() as client:
            stored = client.stream("zmqwriter")["state"]["messages"]
        halves = [[rss for count, rss in memory if half * least / 2 <= count
                   < (half + 1) * least / 2] for half in (0, 1)]
        first, second = map(max, halves)
        self.stored = collections.Counter(range(stored))
        if stored != self.sent:
            self.problems.append(f"{self.sent} sent and {stored} stored")
        if second > 1.1 * first + 2:
            self.problems.append(f"memory grows: {first:.1f} MB, then {second:.1f} MB")
        self.notes = f"at most {first:.1f} MB in the first half, {second:.1f} MB in the second; " \
                     f"{min(halves[1]):.1f} MB at least"


def print_account(trials):
    """Gives the problems."""
    page = cli.read_file(campaign.SOURCE + "/docs/scale.md")
    limits = re.findall(r"^\| ([^|]+) \|", page.partition("## What each failure costs")[2], re.M)
    row = "%-26s%8s%9s%9s%7s%6s%9s  %s"
    print(row % ("", "outages", "sent", "stored", "twice", "lost", "on disk", "limit"))
    problems = []
    for trial in trials:
        twice = sum(count > 1 for count in trial.stored.values())
        lost = sum(trial.lost.values())
        print(row % (trial.title, trial.done, trial.sent, len(trial.stored), twice, lost,
                     len(trial.disk), "; ".join([f"{limit}: {count}" for limit, count
                                                 in trial.lost.items() if count] + [trial.notes])))
        checks = {"lost that no limit explains": sum(
            count for limit, count in trial.lost.items() if limit not in limits),
                  "stored twice": twice}
        problems += [f"{trial.title}: {problem}" for problem in trial.problems + [
            f"{count} {what}" for what, count in checks.items() if count]]
    return problems


def main():
    if not nats.NATS_SERVER:
        print("skipped: needs nats-server (setup/packages test)")
        sys.exit(77)
    options = campaign.options_of(__doc__)
    trials = campaign.run_all((
        LeaderKilled, AllStopped, Frozen, NetworkCut, Full, Deleted, RightsWithdrawn,
        WrongCertificate, CollectorStopped, CollectorKilled), options)
    campaign.Trial.ended = False
    trials += campaign.run_all((Memory,), options)
    problems = print_account(trials)
    print("\n".join(problems) or "Every lost event is explained by a stated limit.")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
