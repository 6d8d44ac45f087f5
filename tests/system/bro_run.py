"""Runs our scripts over a model of the host.

bro_scripts.py translates them to Python. `Host` has what they use of the host, and behaves as it
does where order matters: Log::write hands the record itself to the filters' path functions at once,
and copies it for a writer; events wait until the host has finished what it is doing; timers wait
for the network time to go on. A record that a stream gets twice is sent twice. Records must have
the fields of their types.

    bro_run.py SCRIPTS_DIR STUB HOST_DECLARATIONS FOLDER

writes the columns of the log streams into FOLDER as logs without records: of the streams that our
scripts make, e.g. ours-http.log, and of those that the host makes, e.g. host-http.log.
"""

import copy
import os
import re
import sys

import bro_scripts


class Record:
    def __init__(self, **fields):
        vars(self).update(fields)

    def has(self, name):
        return name in vars(self)


class Vector(list):
    def __setitem__(self, index, value):
        if index == len(self):
            self.append(value)
        else:
            super().__setitem__(index, value)


class Text(str):
    def __contains__(self, pattern):
        return pattern.search(self) is not None


class Time(float):
    pass


class Port(int):
    """Number and protocol, e.g. Port(53, "udp")."""

    def __new__(cls, number, protocol=""):
        port = super().__new__(cls, number)
        port.protocol = protocol
        return port


TYPE_NAMES = [(bool, "bool"), (Time, "time"), (Port, "port"), (float, "double"), (int, "count"),
              (str, "string"), (dict, "set[string]"), (list, "vector of string"),
              (Record, "record { }")]


def fits(type_, value):
    """The value, whose fields are those of the record type, if both are records."""
    if type_ and type_.kind == "record" and isinstance(value, Record):
        unknown = set(vars(value)) - set(type_.fields)
        assert not unknown, "there is no field %s" % unknown
        for name, field in type_.fields.items():
            assert value.has(name) or not field.needed, "field %s is not given" % name
            fits(field.type, vars(value).get(name))
    return value


def each(container):
    return range(len(container)) if isinstance(container, Vector) else list(container)


class Host:
    """A run of a Program: bro_init is over when it is made."""

    def __init__(self, program, streams, late_streams=(), early=()):
        """`streams` are made at priority 5 of bro_init, `late_streams` by a site's script. The host
        writes the (stream, record) pairs of `early` while it starts."""
        self.now = 0.0
        self.queue, self.timers = [], []
        self.sent = []   # (stream, record) of what reaches the writer
        self.asked = []  # connections whose owner was asked for
        self.streams = {}
        self.columns = {}  # stream of the scripts -> (path, record type)
        self.handlers = {"bro_init": [(4.9, lambda: self.create(streams)),
                                      (0, lambda: [self.write(*one) for one in early]),
                                      (-5, lambda: self.create(late_streams))]}
        self.names = {name: self.first_value(name, found) for name, found in program.names.items()}
        self.names.update(self.functions())
        self.scope = {"names": self.names, "host": self, "Record": Record,
                      "Vector": lambda *elements: Vector(elements),
                      "Set": lambda *elements: dict.fromkeys(elements, True),
                      "re": re, "each": each, "fits": fits, "print": lambda text: None}
        for name, text in program.initial:
            value = eval(text, self.scope)
            if isinstance(value, dict):
                self.names[name].update(value)
            else:
                self.names[name] = value
        for body in program.bodies:
            self.define(*body)
        self.event("bro_init")
        self.run()

    def first_value(self, name, found):
        if found.kind == "event":
            return lambda *arguments: self.event(name, *arguments)
        if found.kind == "type":
            return found.type
        return {} if found.type and found.type.kind in ("set", "table") else name

    def define(self, kind, name, priority, text):
        exec(text, self.scope)
        function = self.scope["function"]
        if kind == "event":
            self.handlers.setdefault(name, []).append((priority, function))
        else:
            self.names[name] = function

    def functions(self):
        return {
            "fmt": lambda form, *values: form % values,
            "network_time": lambda: Time(self.now),
            # None stands for a field without a value.
            "record_fields": lambda record: {
                name: Record(log=True) if value is None else Record(log=True, value=value)
                for name, value in vars(record).items()},
            "type_name": lambda value: Text(next(name for type_, name in TYPE_NAMES
                                                 if isinstance(value, type_))),
            "port_to_count": int,
            "get_port_transport_proto": lambda port: port.protocol,
            "Log::active_streams": self.streams,
            "Log::create_stream": self.create_stream,
            "Log::remove_default_filter": lambda stream: self.remove_filter(stream, "default"),
            "Log::remove_filter": self.remove_filter,
            "Log::add_filter": self.add_filter,
            "Log::get_filter": lambda stream, name: next(
                (filter_ for filter_ in self.streams[stream] if filter_.name == name),
                Record(name="<not found>")),
            "Log::write": self.write,
            "LogZMQ::__detect_user": self.detect_user,
            "LogZMQ::__get_system_stats": lambda: Record(
                **dict.fromkeys(self.names["system_stats"].fields, 0)),
        }

    def create(self, streams):
        for stream in streams:
            self.streams[stream] = [Record(name="default", writer="Log::WRITER_ASCII", interv=0)]

    def create_stream(self, stream, record):
        fits(self.names["Log::Stream"], record)
        self.create([stream])
        self.columns[stream] = record.path, record.columns

    def add_filter(self, stream, filter_):
        """Of ours, none may rotate."""
        assert fits(self.names["Log::Filter"], filter_).interv == 0
        self.streams[stream].append(filter_)

    def remove_filter(self, stream, name):
        self.streams[stream][:] = [filter_ for filter_ in self.streams[stream]
                                   if filter_.name != name]

    def write(self, stream, record):
        fits(self.columns.get(stream, ("", None))[1], record)
        for filter_ in self.streams[stream]:
            if filter_.has("path_func"):
                path = stream.split("::")[0].lower()
                assert filter_.path_func(stream, path, record) == path
            if filter_.writer == "Log::WRITER_ZMQ":
                self.sent.append((stream, copy.deepcopy(record)))

    def detect_user(self, connection):
        self.asked.append(connection)
        return Vector(["Safari", "alice"])

    def event(self, name, *arguments):
        for _, handler in sorted(self.handlers.get(name, []), key=lambda h: -h[0]):
            handler(*arguments)

    def run(self):
        """Handles what events wait."""
        while self.queue:
            self.queue.pop(0)()

    def packet(self, now):
        """A packet: the network time goes on, and what timers are due run."""
        self.now = now
        while any(due <= now for due, _ in self.timers):
            due = min(self.timers, key=lambda timer: timer[0])
            self.timers.remove(due)
            due[1]()
            self.run()


def flatten(record, prefix=""):
    """(column, type) of each logged field."""
    for name, field in record.fields.items():
        if field.log and field.type.kind == "record":
            yield from flatten(field.type, prefix + name + ".")
        elif field.log:
            yield prefix + name, field.type.log_name()


def main(scripts, stub, host_declarations, folder):
    program = bro_scripts.Program(scripts, stub, host_declarations)
    host_logs = ["Conn", "FTP", "HTTP", "SMTP"]
    host = Host(program, [log + "::LOG" for log in host_logs])
    logs = [("ours", path, record) for path, record in host.columns.values()]
    logs += [("host", log.lower(), program.names[log + "::Info"].type) for log in host_logs]
    for whose, path, record in logs:
        names, types = zip(*flatten(record))
        with open(os.path.join(folder, "%s-%s.log" % (whose, path)), "w") as file:
            print("#separator \\x09", "#path\t" + path, "\t".join(("#fields",) + names),
                  "\t".join(("#types",) + types), sep="\n", file=file)


if __name__ == "__main__":
    main(*sys.argv[1:])
