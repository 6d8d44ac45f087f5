"""Runs our scripts over a model of the host.

The scripts, whose form bro_scripts.py has checked, are translated to Python statement by statement.
`Host` has what they use of the host, and behaves as it does where order matters: Log::write hands
the record itself to the filters' path functions at once, and copies it for a writer; events wait
until the host has finished what it is doing; timers wait for the network time to go on. A record
that a stream gets twice is sent twice.
"""

import copy
import re

OPERATORS = {"!": " not ", "&&": " and ", "||": " or ", "in": " in ", "!in": " not in ",
             "T": "True", "F": "False", "vector": "Vector", "set": "Set", "table": "Set"}
UNITS = {"sec": 1, "min": 60, "hr": 3600, "day": 86400}


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


class Translator:
    def __init__(self, program, module, tokens, local_names=()):
        self.program, self.module = program, module
        self.tokens, self.at = tokens, 0
        self.locals = set(local_names)
        self.lines = []

    @property
    def word(self):
        return self.tokens[self.at][1]

    def next(self):
        self.at += 1
        return self.tokens[self.at - 1][1]

    def expression(self, *ends):
        """Up to one of these words, which it skips; gives the Python text."""
        out, closing = [], []
        while self.at < len(self.tokens) and (closing or self.word not in ends):
            kind, word, _ = self.tokens[self.at]
            self.at += 1
            if kind == "pattern":
                out.append("re.compile(%r)" % word[1:-1])
            elif kind == "number":
                number, unit = re.fullmatch(r"([\d.]+) ?(\w*?)s?", word).groups()
                out.append(str(float(number) * UNITS[unit]) if unit else number)
            elif kind == "string":
                out.append(word)
            elif word == "?$":
                out.append(".has(%r)" % self.next())
            elif word == "$":
                out.append(self.next() if out[-1] in ("Record(", ", ") else "." + self.next())
            elif word == "|" and closing[-1:] != ["|"]:
                out.append("len(")
                closing.append("|")
            elif word in "([{":
                begin = {"(": "(", "[": "[", "{": "Set("}[word]
                record = word == "[" and self.word == "$"
                out.append("Record(" if record else begin)
                closing.append("]" if begin == "[" and not record else ")")
            elif word in "|)]}":
                out.append(closing.pop().replace("|", ")"))
            elif word == ",":
                out.append(", ")
            elif word in OPERATORS:
                out.append(OPERATORS[word])
            elif kind == "name" and word not in self.locals:
                full = self.module + "::" + word
                out.append("names[%r]" % (full if full in self.program.names else word))
            else:
                out.append(word)
        self.end = self.next() if ends else ""
        return "".join(out)

    def names_until(self, *ends):
        found = []
        while self.word not in ends:
            if self.tokens[self.at][0] == "name":
                found.append(self.word)
            self.at += 1
        return found

    def statement(self, depth):
        def line(text):
            self.lines.append("    " * depth + text)

        word = self.next()
        if word == "{":
            line("pass")
            while self.word != "}":
                self.statement(depth)
            self.next()
        elif word == "local":
            name = self.names_until("=", ";")[0]
            self.locals.add(name)
            if self.next() == "=":
                line("%s = %s" % (name, self.expression(";")))
        elif word == "if":
            self.next()
            line("if %s:" % self.expression(")"))
            self.statement(depth + 1)
            if self.word == "else":
                self.next()
                line("else:")
                self.statement(depth + 1)
        elif word == "for":
            names = self.names_until("in")
            self.locals.update(names)
            self.next()
            line("for %s in each(%s):" % (", ".join(names), self.expression(")")))
            self.statement(depth + 1)
        elif word in ("next", "break"):
            line({"next": "continue"}.get(word, word))
            self.next()
        elif word == "return":
            line("return " + self.expression(";"))
        elif word == "print":
            self.expression(";")
        elif word == "add":
            line(self.expression(";") + " = True")
        elif word == "delete":
            line("del " + self.expression(";"))
        elif word == "event":
            line("host.queue.append(lambda: %s)" % self.expression(";"))
        elif word == "schedule":
            line("host.timers.append((host.now + %s, lambda: %s))" %
                 (self.expression("{"), self.expression("}")))
            self.next()
        else:
            self.at -= 1
            target = self.expression(";", "=")
            line(target + (" = " + self.expression(";") if self.end == "=" else ""))


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
        self.handlers = {"bro_init": [(4.9, lambda: self.create(streams)),
                                      (0, lambda: [self.write(*one) for one in early]),
                                      (-5, lambda: self.create(late_streams))]}
        self.names = {name: self.first_value(name, found) for name, found in program.names.items()}
        self.names.update(self.functions())
        self.scope = {"names": self.names, "host": self, "Record": Record,
                      "Vector": lambda *elements: Vector(elements),
                      "Set": lambda *elements: dict.fromkeys(elements, True),
                      "re": re, "each": each}
        for name, module, tokens in program.initial:
            text = Translator(program, module, tokens).expression()
            value = eval(text, self.scope)
            if isinstance(value, dict):
                self.names[name].update(value)
            else:
                self.names[name] = value
        for body in program.bodies:
            self.define(program, body)
        self.event("bro_init")
        self.run()

    def first_value(self, name, found):
        if found.kind == "event":
            return lambda *arguments: self.event(name, *arguments)
        return {} if found.type and found.type.kind in ("set", "table") else name

    def define(self, program, body):
        translator = Translator(program, body.module, body.tokens, body.parameters)
        translator.statement(1)
        text = "def function(%s):\n%s\n" % (", ".join(body.parameters), "\n".join(translator.lines))
        exec(text, self.scope)
        if body.kind == "event":
            self.handlers.setdefault(body.name, []).append((body.priority, self.scope["function"]))
        else:
            self.names[body.name] = self.scope["function"]

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
            "Log::create_stream": lambda stream, record: self.create([stream]),
            "Log::remove_default_filter": lambda stream: self.remove_filter(stream, "default"),
            "Log::remove_filter": self.remove_filter,
            "Log::add_filter": lambda stream, filter_: self.streams[stream].append(filter_),
            "Log::get_filter": lambda stream, name: next(
                (filter_ for filter_ in self.streams[stream] if filter_.name == name),
                Record(name="<not found>")),
            "Log::write": self.write,
            "LogZMQ::__detect_user": self.detect_user,
            "LogZMQ::__get_system_stats": lambda: Record(cpu_usage=0.5),
        }

    def create(self, streams):
        for stream in streams:
            self.streams[stream] = [Record(name="default", writer="Log::WRITER_ASCII", interv=0)]

    def remove_filter(self, stream, name):
        self.streams[stream][:] = [filter_ for filter_ in self.streams[stream]
                                   if filter_.name != name]

    def write(self, stream, record):
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
