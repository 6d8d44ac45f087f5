"""Reads the subset of Bro's script language that our scripts use, and translates it to Python.

There is no host on our machines, so this stands in for its parser: it refuses what is not well
formed, names that nobody declared before (the host's own names stand in
tests/data/host-declarations.bro) and names of another module that are not exported. bro_run.py runs
the translation; fields and arguments are checked there.
"""

import os
import re

TOKEN = re.compile(
    r"""(?P<space>[ \t\r\n]+|\#[^\n]*)
      | (?P<load>@load[ \t]+\S+)
      | (?P<directive>@[a-z-]+)
      | (?P<string>"(?:\\.|[^"\\\n])*")
      | (?P<pattern>/(?:\\.|[^/\\\n ])(?:\\.|[^/\\\n])*/)
      | (?P<number>\d+(?:\.\d+)?[ ]?(?:usec|msec|sec|min|hr|day)s?\b|\d+\.\d+|\d+)
      | (?P<name>[A-Za-z_]\w*(?:::[A-Za-z_]\w*)?)
      | (?P<attribute>&(?:log|optional|redef|default|priority|create_expire)\b)
      | (?P<operator>\?\$|!in\b|\+=|-=|==|!=|<=|>=|&&|\|\||[-+*/%!<>=|\[\](){},;:$])
    """, re.VERBOSE)

BASE_TYPES = {"string", "count", "int", "double", "bool", "time", "interval", "port", "addr",
              "subnet", "any", "pattern"}
KEYWORDS = BASE_TYPES | {
    "module", "export", "const", "global", "local", "redef", "type", "enum", "record", "set",
    "table", "vector", "of", "function", "event", "if", "else", "for", "in", "return", "next",
    "break", "print", "delete", "add", "schedule", "T", "F"}
PYTHON = {"!": "not", "&&": "and", "||": "or", "!in": "not in", "T": "True", "F": "False",
          "vector": "Vector", "set": "Set", "table": "Set"}
UNITS = {"usec": 1e-6, "msec": 1e-3, "sec": 1, "min": 60, "hr": 3600, "day": 86400}


class ScriptError(Exception):
    pass


class Type:
    def __init__(self, kind, fields=None, element=None, parameters=None, index=None):
        # A base type, record, enum, set, table, vector, function or event.
        self.kind = kind
        self.fields = fields or {}    # record: name -> Field
        self.element = element        # of a set or vector; yield of a table; result of a function
        self.parameters = parameters  # function or event: list of (name, Type)
        self.index = index            # set or table: list of Type

    def log_name(self):
        if self.kind == "set":
            return "set[%s]" % self.index[0].kind
        if self.kind == "vector":
            return "vector[%s]" % self.element.kind
        return self.kind


class Field:
    def __init__(self, type_, attributes):
        self.type = type_
        self.log = "&log" in attributes
        # A container need not be given either: the host makes an empty one.
        self.needed = (not {"&optional", "&default"} & set(attributes) and
                       type_.kind not in ("set", "vector"))


class Name:
    def __init__(self, kind, type_, exported=True, redefinable=False):
        self.kind = kind  # const, global, type, enumerator, function or event
        self.type = type_
        self.exported = exported
        self.redefinable = redefinable


class Program:
    """All of the plug-in's scripts, read in the host's order."""

    def __init__(self, scripts, stub, host_declarations):
        self.names = {}
        self.loaded = set()
        self.bodies = []   # (function or event, name, priority, Python) outside of @ifdef
        self.initial = []  # (name, Python) of the values of variables and of redefs
        for path in [host_declarations, os.path.join(scripts, "__preload__.bro"), stub,
                     os.path.join(scripts, "__load__.bro")]:
            self.load(path)
        for folder, _, names in sorted(os.walk(scripts)):
            for name in sorted(names):
                self.load(os.path.join(folder, name))

    def load(self, path):
        path = os.path.normpath(path)
        if path not in self.loaded:
            self.loaded.add(path)
            with open(path) as file:
                Reader(self, path, file.read()).read()


class Reader:
    def __init__(self, program, path, text):
        self.program, self.path = program, path
        self.tokens = self.tokenize(text)
        self.at = 0
        self.module = ""
        self.exporting = False
        self.optional_name = None  # what the enclosing @ifdef asks for
        self.locals = set()
        self.result = None
        self.lines = []            # of the Python function that is being made

    # --- tokens ----------------------------------------------------------------------------------

    def tokenize(self, text):
        tokens, position, line = [], 0, 1
        while position < len(text):
            match = TOKEN.match(text, position)
            if not match:
                raise ScriptError("%s:%d: unexpected %r" % (self.path, line, text[position]))
            kind, word = match.lastgroup, match.group()
            if kind != "space":
                tokens.append((kind, word, line))
            line += word.count("\n")
            position = match.end()
        tokens.append(("end", "end of file", line))
        return tokens

    @property
    def kind(self):
        return self.tokens[self.at][0]

    @property
    def word(self):
        return self.tokens[self.at][1]

    def fail(self, message):
        raise ScriptError("%s:%d: %s" % (self.path, self.tokens[self.at][2], message))

    def next(self):
        self.at += 1
        return self.tokens[self.at - 1][1]

    def take(self, *words):
        if self.kind not in ("string", "end") and self.word in words:
            return self.next()
        return None

    def expect(self, word):
        if not self.take(word):
            self.fail("expected '%s', found '%s'" % (word, self.word))

    def listed(self, end, read_one):
        """What `read_one` gives for each element of a list with commas up to `end`."""
        found = []
        while not self.take(end):
            found.append(read_one())
            if not self.take(","):
                self.expect(end)
                break
        return found

    # --- names -----------------------------------------------------------------------------------

    def new_name(self, scoped=False):
        if self.kind != "name" or self.word in KEYWORDS or ("::" in self.word and not scoped):
            self.fail("expected a name, found '%s'" % self.word)
        return self.next()

    def full(self, name):
        own = name if "::" in name or not self.module else self.module + "::" + name
        return own if own in self.program.names or own == self.optional_name else name

    def declare(self, name, kind, type_, redefinable=False):
        full = self.module + "::" + name if self.module else name
        if full in self.program.names:
            self.fail("%s is declared twice" % full)
        exported = self.exporting or not self.module
        self.program.names[full] = Name(kind, type_, exported, redefinable)
        return full

    def lookup(self, name):
        full = self.full(name)
        if full == self.optional_name:
            return Name("global", None)
        found = self.program.names.get(full)
        if not found:
            self.fail("'%s' is not declared" % name)
        if not found.exported and full.split("::")[0] != self.module:
            self.fail("'%s' is not exported" % full)
        return found

    # --- declarations ----------------------------------------------------------------------------

    def read(self):
        while self.kind != "end":
            self.declaration()

    def declaration(self):
        if self.kind == "load":
            self.load(self.next().split()[1])
        elif self.take("@ifdef"):
            self.expect("(")
            self.optional_name = self.module + "::" + self.new_name()
            self.expect(")")
        elif self.optional_name and self.take("@endif"):
            self.optional_name = None
        elif self.take("module"):
            name = self.new_name()
            self.module = "" if name == "GLOBAL" else name
            self.expect(";")
        elif self.take("export"):
            self.expect("{")
            self.exporting = True
            while not self.take("}"):
                # The stubs of .bif files name their module in here.
                self.declaration()
            self.exporting = False
        elif self.word in ("const", "global"):
            self.variable(self.next())
        elif self.take("redef"):
            self.redefinition()
        elif self.take("type"):
            self.type_declaration()
        elif self.word in ("function", "event"):
            self.function(self.next())
        else:
            self.fail("expected a declaration, found '%s'" % self.word)

    def load(self, target):
        if target.startswith("."):
            self.program.load(os.path.join(os.path.dirname(self.path), target))
        elif not re.fullmatch(r"base/protocols/(conn|http|ftp|smtp)", target):
            self.fail("@load %s: no such script" % target)

    def variable(self, kind):
        name = self.new_name()
        type_ = self.type() if self.take(":") else None
        value = self.take("=")
        if not value and (kind == "const" or not type_):
            self.fail("%s has no value" % name)
        text = self.expression(";", "&redef") if value else ""
        redefinable = "&redef" in self.attributes()
        self.expect(";")
        if type_ and type_.kind in ("function", "event"):
            kind = type_.kind
        full = self.declare(name, kind, type_, redefinable)
        if value:
            self.program.initial.append((full, text))

    def redefinition(self):
        enum = self.take("enum")
        name = self.new_name(scoped=True)
        found = self.lookup(name)
        if enum:
            self.expect("+=")
            self.enumerators(found.type)
        else:
            if not found.redefinable:
                self.fail("%s is not redefinable" % name)
            if not self.take("="):
                self.expect("+=")
            self.program.initial.append((self.full(name), self.expression(";")))
        self.expect(";")

    def enumerators(self, enum):
        self.expect("{")
        self.listed("}", lambda: self.declare(self.new_name(), "enumerator", enum))

    def type_declaration(self):
        name = self.new_name()
        self.expect(":")
        if self.take("enum"):
            enum = Type("enum")
            self.declare(name, "type", enum)
            self.enumerators(enum)
        else:
            type_ = self.type()
            if "&log" in self.attributes():
                for field in type_.fields.values():
                    field.log = True
            self.declare(name, "type", type_)
        self.expect(";")

    def attributes(self):
        """Attribute -> Python of its value."""
        found = {}
        while self.kind == "attribute":
            name = self.next()
            found[name] = self.expression(";", "{", "&log") if self.take("=") else "True"
            compile(found[name], "%s: %s" % (self.path, name), "eval")
        return found

    def function(self, kind):
        name = self.new_name(scoped=True)
        parameters = self.parameters()
        result = self.type() if self.take(":") else None
        priority = int(self.attributes().get("&priority", "0").replace("- ", "-"))
        declared = self.program.names.get(self.full(name))
        if not declared and kind == "event":
            self.fail("'%s' is not declared" % name)
        if not declared:
            self.declare(name, kind, Type(kind, parameters=parameters, element=result))
        elif (declared.kind, [t.kind for _, t in declared.type.parameters]) != (
                kind, [t.kind for _, t in parameters]):
            self.fail("'%s' is declared in another way" % name)
        self.locals = {parameter for parameter, _ in parameters}
        self.result = result
        self.lines = ["def function(%s):" % ", ".join(parameter for parameter, _ in parameters)]
        self.expect("{")
        self.at -= 1
        self.statement(1)
        self.locals = set()
        text = "\n".join(self.lines)
        compile(text, "%s: %s" % (self.path, name), "exec")
        if not self.optional_name:
            self.program.bodies.append((kind, self.full(name), priority, text))

    def parameter(self):
        name = self.new_name()
        self.expect(":")
        return name, self.type()

    def parameters(self):
        self.expect("(")
        return self.listed(")", self.parameter)

    # --- types -----------------------------------------------------------------------------------

    def type(self):
        word = self.word
        if self.take("set", "table"):
            self.expect("[")
            index = [self.type()]
            if not self.take("]"):
                self.expect(",")
                index += self.listed("]", self.type)
            if word == "set":
                return Type(word, index=index)
            self.expect("of")
            return Type(word, index=index, element=self.type())
        if self.take("vector"):
            self.expect("of")
            return Type("vector", element=self.type())
        if self.take("record"):
            return self.record()
        if self.take("function", "event"):
            parameters = self.parameters()
            return Type(word, parameters=parameters,
                        element=self.type() if word == "function" and self.take(":") else None)
        if word in BASE_TYPES:
            return Type(self.next())
        name = self.new_name(scoped=True)
        found = self.lookup(name)
        if found.kind != "type":
            self.fail("'%s' is no type" % name)
        return found.type

    def record(self):
        fields = {}
        self.expect("{")
        while not self.take("}"):
            name, type_ = self.parameter()
            if name in fields:
                self.fail("field %s occurs twice" % name)
            fields[name] = Field(type_, self.attributes())
            self.expect(";")
        return Type("record", fields=fields)

    # --- statements and expressions --------------------------------------------------------------

    def statement(self, depth):
        def line(text):
            self.lines.append("    " * depth + text)

        def rest(end=";"):
            text = self.expression(end)
            self.expect(end)
            return text

        if self.take("{"):
            line("pass")
            while not self.take("}"):
                self.statement(depth)
        elif self.take("local"):
            self.local(line)
        elif self.take("if"):
            self.expect("(")
            line("if %s:" % rest(")"))
            self.statement(depth + 1)
            if self.take("else"):
                line("else:")
                self.statement(depth + 1)
        elif self.take("for"):
            self.expect("(")
            names = self.listed("]", self.new_name) if self.take("[") else [self.new_name()]
            for name in names:
                # The host refuses a global here.
                if self.full(name) in self.program.names:
                    self.fail("the global %s is used as a loop variable" % name)
            self.locals.update(names)
            self.expect("in")
            line("for %s in each(%s):" % (", ".join(names), rest(")")))
            self.statement(depth + 1)
        elif self.word in ("next", "break"):
            line({"next": "continue"}.get(self.word, self.next()))
            self.expect(";")
        elif self.word in ("return", "print"):
            word = self.next()
            without_value = self.result is None and self.take(";")
            line(word if without_value else "%s(%s)" % (word, rest()))
        elif self.take("add"):
            line(rest() + " = True")
        elif self.take("delete"):
            line("del " + rest())
        elif self.take("event"):
            line("host.queue.append(lambda: %s)" % self.event_call(rest))
        elif self.take("schedule"):
            line("host.timers.append((host.now + %s, lambda: %s))" %
                 (rest("{"), self.event_call(lambda: rest("}"))))
            self.expect(";")
        else:
            text = self.expression(";", "=")
            line(text + (" = " + self.expression(";") if self.take("=") else ""))
            self.expect(";")

    def local(self, line):
        name = self.new_name()
        if name in self.locals:
            self.fail("%s is declared twice" % name)
        record = None
        if self.take(":"):
            # The name of a record is needed again to check the value.
            record = self.full(self.word)
            record = record if self.type().kind == "record" else None
        if self.take("="):
            text = self.expression(";")
            line("%s = %s" % (name, "fits(names[%r], %s)" % (record, text) if record else text))
        self.expect(";")
        self.locals.add(name)

    def event_call(self, read):
        if self.lookup(self.word).kind != "event":
            self.fail("'%s' is no event" % self.word)
        return read()

    BRACKETS = {"(": ("(", ")", ")"), "[": ("[", "]", "]"), "{": ("Set(", "}", ")"),
                "|": ("len(", "|", ")"), "[$": ("Record(", "]", ")")}

    def expression(self, *ends):
        """The Python text of what stands before one of these words."""
        out, closing = [], []
        while closing or self.word not in ends:
            kind, word = self.kind, self.word
            if kind == "end" or word == ";":
                self.fail("unexpected '%s'" % word)
            self.next()
            if kind == "pattern":
                out.append("re.compile(%r)" % word[1:-1])
            elif kind == "number":
                number, unit = re.fullmatch(r"([\d.]+) ?(\w*?)s?", word).groups()
                out.append(str(float(number) * UNITS[unit]) if unit else number)
            elif kind == "string" and self.kind != "string":
                out.append(word)
            elif word == "?$":
                out.append(".has(%r)" % self.new_name())
            elif word == "$":
                out.append(("" if out[-1:] in (["Record("], [","]) else ".") + self.new_name())
            elif closing and word == closing[-1][0]:
                out.append(closing.pop()[1])
            elif word in self.BRACKETS:
                begin, *end = self.BRACKETS["[$" if word + self.word == "[$" else word]
                out.append(begin)
                closing.append(end)
            elif word in ")]}" or kind == "string":
                self.fail("unexpected '%s'" % word)
            elif kind == "name" and word not in PYTHON and word != "in" and word not in self.locals:
                self.lookup(word)
                out.append("names[%r]" % self.full(word))
            else:
                out.append(PYTHON.get(word, word))
        if not out:
            self.fail("expected an expression, found '%s'" % self.word)
        return " ".join(out)
