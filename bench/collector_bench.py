#!/usr/bin/env python3
"""`zmqwriter collect` beside bare loops, before a JetStream engine and behind many agents.

    collector_bench.py BUILD_FOLDER --benchmark_out=FILE [--benchmark_repetitions=N]
                       [--benchmark_filter=collect|jetstream|fleet] [--quick]

The agents are those of the program Fleet: connections that the plug-in's worker opens, all in one
process. The collector is a process of its own; processor time is that of the whole of it.
"""

import contextlib
import os
import signal
import sys
import tempfile
import time

sys.dont_write_bytecode = True
from processes import PATIENCE, SOURCE, Collector, Failed, Process, in_turns, main  # noqa: E402

sys.path.insert(0, os.path.join(SOURCE, "tests", "system"))
os.environ["ZMQWRITER_SOURCE_DIR"] = SOURCE
os.environ.setdefault("ZMQWRITER_BUILD_DIR", "")  # of the tests only
import nats_support  # noqa: E402

FEEDERS = 64  # agents that keep a collector busy
WINDOW = 4096


class Fleet(Process):
    def __init__(self, build, agents, endpoint, key):
        super().__init__(os.path.join(build, "bench", "Fleet"), str(agents), endpoint, key)
        self.words()

    def begin(self, events):
        self.tell("each %d" % events)

    def sent(self):
        """Seconds: all events, and the first of 5 % of the agents and of 95 %."""
        return [float(word) for word in self.words()[1:]]


def feeders(build, endpoint, key):
    """Agents that have connected and delivered an event each; they cost little."""
    fleet = Fleet(build, FEEDERS, endpoint, key)
    fleet.begin(1)
    fleet.sent()
    fleet.tell("room 1000")
    fleet.words()
    return fleet


def rate(events, seconds, cpu):
    return {"[events/s]": events / seconds, "processor time [us/event]": cpu * 1e6 / events}


# -- One collector --------------------------------------------------------------------------------


def collect(build, events, output):
    """The collector's figures, from the first event until it has ended."""
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder, \
            Collector(build, folder, "--quiet", "--count", str(events), *output) as collector, \
            feeders(build, collector.endpoint, collector.key) as fleet:
        begin = time.monotonic()
        fleet.begin(events // FEEDERS - 1)
        collector.finish()
        return rate(events - FEEDERS, time.monotonic() - begin, collector.cpu())


def receive(build, events):
    with Process(os.path.join(build, "bench", "Sink")) as sink:
        endpoint, key, _ = sink.words()
        sink.tell("expect %d %d" % (FEEDERS, events - FEEDERS))
        with feeders(build, endpoint, key) as fleet:
            fleet.begin(events // FEEDERS - 1)
            seconds = float(sink.words()[4])
        sink.end(signal.SIGKILL)
        return rate(events - FEEDERS, seconds, sink.cpu())


def collect_sides(build, quick):
    events = 6400 if quick else 320000
    yield "collect", "", "bare receive loop", lambda: receive(build, events)
    for form in ("raw", "json"):
        output = ["--output", "/dev/null", "--format", form]
        yield "collect", form, "ours", lambda output=output: collect(build, events, output)


# -- JetStream ------------------------------------------------------------------------------------


@contextlib.contextmanager
def engine(replicas):
    """So many servers on the loopback, with a stream on disk: the address of one of them, and a
    function that waits for so many messages of the stream."""
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder:
        if replicas > 1:
            servers = nats_support.NatsCluster(folder, replicas)
        else:
            servers = nats_support.NatsServer(folder)
        try:
            servers.start()
            with getattr(servers, "servers", [servers])[0].client() as client:
                client.make_stream("zmqwriter", subjects=["zmqwriter.>"], num_replicas=replicas,
                                   retention="limits", storage="file", discard="new", max_age=0,
                                   max_msgs=-1, max_bytes=-1)

                def wait(events):
                    end = time.monotonic() + PATIENCE
                    while client.stream("zmqwriter")["state"]["messages"] != events:
                        if time.monotonic() > end:
                            raise Failed("the stream has not %d messages" % events)
                        time.sleep(0.05)
                yield servers.url.split(",")[0], wait
        except (AssertionError, OSError) as error:
            raise Failed("nats-server: %s" % error)
        finally:
            servers.kill()


def publish(build, replicas, events, fed):
    """The bare loop's figures."""
    with engine(replicas) as (url, _), \
            Process(os.path.join(build, "bench", "PublishLoop"), url, str(WINDOW), str(events),
                    *(["fed"] if fed else [])) as loop:
        if fed:
            with feeders(build, *loop.words()[:2]) as fleet:
                fleet.begin(events // FEEDERS - 1)
                figures = loop.words()
        else:
            figures = loop.words()
        return {"[events/s]": float(figures[0]), "processor time [us/event]": float(figures[1])}


def publish_ours(build, replicas, events):
    with engine(replicas) as (url, wait):
        figures = collect(build, events, ["--to", url, "--window", str(WINDOW)])
        wait(events)
        return figures


def publish_file(build, replicas, events):
    """As publish_ours, but the events are in a file of a former run."""
    with engine(replicas) as (url, wait), \
            tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder:
        sample, unsent = os.path.join(folder, "sample"), os.path.join(folder, "unsent")
        collect(build, 2 * FEEDERS, ["--format", "raw", "--output", sample])
        with open(sample, "rb") as file:
            data = file.read()
        messages = []
        while data:
            end = 4 + int.from_bytes(data[:4], "little")
            messages.append(data[4:end])
            data = data[end:]
        with open(unsent, "wb") as file:
            for number in range(events):
                record = messages[number % len(messages)] + b"0123456789abcdef-%016x" % number
                file.write(len(record).to_bytes(4, "little") + record)
        with Collector(build, folder, "--to", url, "--window", str(WINDOW), "--unsent",
                       unsent) as collector:
            wait(events)
            seconds = time.monotonic() - collector.began
            collector.end(signal.SIGTERM)
            return rate(events, seconds, collector.cpu())


def jetstream_sides(build, quick):
    for replicas, events in ((1, 192000), (3, 64000)):
        events = 6400 if quick else events
        case = "%d replica%s" % (replicas, "s" if replicas > 1 else "")
        for of, side, run, *more in (
                (", of a file", "ours", publish_file), (", of agents", "ours", publish_ours),
                ("", "bare loop", publish, False),
                (", of agents", "bare loop behind a socket", publish, True)):
            yield ("published", case + of, side,
                   lambda run=run, r=replicas, n=events, more=more: run(build, r, n, *more))


# -- Fleet ----------------------------------------------------------------------------------------


def fleet_figures(build, agents, events):
    """Of a collector that gets an event of each agent, then many, ends, and comes back."""
    curve = "agents: %s [%s]"
    each = events // agents
    figures = {}
    with tempfile.TemporaryDirectory(prefix="zmqwriter-bench-") as folder:
        output = ["--output", "/dev/null", "--format", "raw", "--most-agents", str(agents)]
        with Collector(build, folder, *output, "--metrics", "127.0.0.1:0", "--count",
                       str((1 + each) * agents)) as collector:
            before_kb, before = collector.resident_kb(), collector.descriptors()
            with Fleet(build, agents, collector.endpoint, collector.key) as fleet:
                fleet.begin(1)
                fleet.sent()
                end = time.monotonic() + PATIENCE
                while collector.figure('events_total{type="GeneralData"}') < agents:
                    if time.monotonic() > end:
                        raise Failed("not every agent's event arrived")
                    time.sleep(0.05)
                grown_kb = collector.resident_kb() - before_kb
                figures["memory of a connection [kB]"] = grown_kb / agents
                figures[curve % ("memory of the collector", "MB")] = grown_kb / 1000
                figures["descriptors of a connection [1]"] = (collector.descriptors() -
                                                              before) / agents
                cpu = collector.cpu()
                begin = time.monotonic()
                fleet.begin(each)
                collector.finish()
                seconds = time.monotonic() - begin
                figures.update(rate(each * agents, seconds, collector.cpu() - cpu))
                figures[curve % ("delivery of 100,000 events", "s")] = (1e5 * seconds /
                                                                        (each * agents))
                fleet.sent()
                time.sleep(2)  # until libzmq has given up all connections, and no event is lost
                fleet.begin(1)
                with Collector(build, folder, *output, "--quiet", "--count", str(agents),
                               endpoint=collector.endpoint) as again:
                    listening = time.monotonic()
                    again.finish()
                    seconds = time.monotonic() - listening
                    cpu = again.cpu()
                figures["every agent has delivered again [s]"] = seconds
                figures[curve % ("every agent has delivered again", "s")] = seconds
                _, early, late = fleet.sent()
                figures["handshakes [1/s]"] = 0.9 * agents / (late - early)
                figures["processor time of a handshake [us]"] = cpu * 1e6 / agents
    return figures


def fleet_sides(build, quick):
    for agents in (10, 30) if quick else (100, 1000, 3000):
        yield ("fleet", "%d agents" % agents, "ours",
               lambda agents=agents: fleet_figures(build, agents, 3000 if quick else 150000))


def measure(build, quick, runs, pattern):
    if pattern == "jetstream" and not (nats_support.NATS_SERVER and os.path.exists(
            os.path.join(build, "bench", "PublishLoop"))):
        print("left out: nats-server or libnats is not installed (setup/packages bench installs "
              "both)", file=sys.stderr)
        return []
    return in_turns(list(globals()[pattern + "_sides"](build, quick)), runs)


if __name__ == "__main__":
    sys.exit(main(measure, __doc__.splitlines()[0]))
