"""Reads the subset of Bro's script language that our scripts use, and checks it.

There is no host on our machines, so this stands in for its parser: it refuses what is not well
formed, names that nobody declared before (the host's own names stand in
tests/data/host-declarations.bro), names of another module that are not exported, fields that a
record does not have, and records that lack a field they need. `parse` gives a Program, whose
`streams` tell what each log stream of ours looks like.

    bro_scripts.py SCRIPTS_DIR STUB HOST_DECLARATIONS             checks; says what is wrong
    bro_scripts.py --columns SCRIPTS_DIR STUB HOST_DECLARATIONS

The latter prints what log streams look like, one column per line with tabs between: whose stream
("ours" or "host"), path, column, type, and the value where it is always the same text.
"""

import os
import re
import sys

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


class ScriptError(Exception):
    pass


class Type:
    def __init__(self, kind, name="", fields=None, element=None, parameters=None, index=None):
        # A base type, record, enum, set, table, vector, function or event.
        self.kind = kind
        self.name = name              # of a record or enum
        self.fields = fields or {}    # record: name -> Field
        self.element = element        # of a set or vector; yield of a table; result of a function
        self.parameters = parameters  # function or event: list of (name, Type)
        self.index = index            # set or table: list of Type
        self.constants = {}           # record: field -> its value in literals, as written

    def log_name(self):
        if self.kind == "set":
            return "set[%s]" % self.index[0].kind
        if self.kind == "vector":
            return "vector[%s]" % self.element.kind
        return self.kind


class Body:
    def __init__(self, kind, name, priority, module, parameters, tokens):
        self.kind, self.name, self.priority, self.module = kind, name, priority, module
        self.parameters, self.tokens = parameters, tokens


class Field:
    def __init__(self, type_, attributes):
        self.type = type_
        self.log = "&log" in attributes
        # A container need not be given either: the host makes an empty one.
        self.needed = (not {"&optional", "&default"} & set(attributes) and
                       type_.kind not in ("set", "vector"))


class Name:
    def __init__(self, kind, type_, exported, redefinable=False):
        self.kind = kind  # const, global, type, enumerator, function, event
        self.type = type_
        self.exported = exported
        self.redefinable = redefinable


class Program:
    def __init__(self):
        self.names = {}
        self.streams = {}     # id -> (path, record Type)
        self.writes = []      # (where, id, Type)
        self.filters = []     # (where, RecordValue) of every Log::add_filter with a literal
        self.loaded = set()
        self.bodies = []      # of functions and events, outside of @ifdef
        self.initial = []     # (full name, tokens) of the values of variables and of redefs

    def columns(self):
        for path, record in self.streams.values():
            for name, type_ in flatten(record):
                value = record.constants.get(name, "")
                yield "ours", path, name, type_, value.strip('"') if value.startswith('"') else ""
        for module in ("Conn", "FTP", "HTTP", "SMTP"):
            for name, type_ in flatten(self.names[module + "::Info"].type):
                yield "host", module.lower(), name, type_, ""

    def check_writes(self):
        for where, stream, what in self.writes:
            if stream not in self.streams:
                raise ScriptError("%s: %s is written, but nobody creates it" % (where, stream))
            record = self.streams[stream][1]
            if isinstance(what, RecordValue):
                check_fields(where, record, set(what.given))
                record.constants.update(what.constants)
            elif what is not record:
                raise ScriptError("%s: %s has other columns" % (where, stream))


def flatten(record, prefix="", all_logged=False):
    for name, field in record.fields.items():
        if not (field.log or all_logged):
            continue
        if field.type.kind == "record":
            yield from flatten(field.type, prefix + name + ".")
        else:
            yield prefix + name, field.type.log_name()


def check_fields(where, record, given):
    unknown = sorted(given - set(record.fields))
    if unknown:
        raise ScriptError("%s: %s has no field %s" %
                          (where, record.name or "the record", unknown[0]))
    missing = [name for name, field in record.fields.items() if field.needed and name not in given]
    if missing:
        raise ScriptError("%s: field %s of %s is not given" % (where, missing[0], record.name))


class RecordValue(Type):
    """The type of a [$a=..., $b=...] expression: not known before it is used."""

    def __init__(self, fields, constants):
        super().__init__("record literal")
        self.given = fields
        self.constants = constants


class Parser:
    def __init__(self, program, path, text):
        self.program, self.path = program, path
        self.tokens = self.tokenize(text)
        self.at = 0
        self.module = ""
        self.exporting = False
        self.optional_names = set()  # what the enclosing @ifdef asks for
        self.locals = None
        self.result = None

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

    def where(self):
        return "%s:%d" % (self.path, self.tokens[self.at][2])

    def fail(self, message):
        raise ScriptError("%s: %s" % (self.where(), message))

    def next(self):
        word = self.word
        self.at += 1
        return word

    def take(self, *words):
        if self.kind not in ("string", "end") and self.word in words:
            return self.next()
        return None

    def expect(self, word):
        if not self.take(word):
            self.fail("expected '%s', found '%s'" % (word, self.word))

    def new_name(self, scoped=False):
        if self.kind != "name" or self.word in KEYWORDS or ("::" in self.word and not scoped):
            self.fail("expected a name, found '%s'" % self.word)
        return self.next()

    # --- names -----------------------------------------------------------------------------------

    def full(self, name):
        return name if "::" in name or not self.module else self.module + "::" + name

    def declare(self, name, kind, type_, redefinable=False):
        full = self.full(name)
        if full in self.program.names:
            self.fail("%s is declared twice" % full)
        self.program.names[full] = Name(kind, type_, self.exporting or not self.module, redefinable)
        return full

    def lookup(self, name):
        if self.locals is not None and name in self.locals:
            return Name("local", self.locals[name], True)
        full = self.full(name) if self.full(name) in self.program.names else name
        if full in self.optional_names or self.full(name) in self.optional_names:
            return Name("global", None, True)
        if full not in self.program.names:
            self.fail("'%s' is not declared" % name)
        found = self.program.names[full]
        if "::" in full and not found.exported and full.split("::")[0] != self.module:
            self.fail("'%s' is not exported" % full)
        return found

    # --- declarations ----------------------------------------------------------------------------

    def parse(self):
        while self.kind != "end":
            self.declaration()

    def declaration(self):
        if self.kind == "load":
            self.load(self.word.split()[1])
            self.next()
        elif self.kind == "directive":
            self.directive()
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
        elif self.take("const"):
            self.variable("const")
        elif self.take("global"):
            self.variable("global")
        elif self.take("redef"):
            self.redefinition()
        elif self.take("type"):
            self.type_declaration()
        elif self.take("function"):
            self.function("function")
        elif self.take("event"):
            self.function("event")
        else:
            self.fail("expected a declaration, found '%s'" % self.word)

    def directive(self):
        directive = self.next()
        if directive == "@ifdef":
            self.expect("(")
            self.optional_names.add(self.full(self.new_name(scoped=True)))
            self.expect(")")
        elif directive == "@endif":
            if not self.optional_names:
                self.fail("@endif without @ifdef")
            self.optional_names.clear()
        else:
            self.fail("unknown directive '%s'" % directive)

    def load(self, target):
        if not target.startswith("."):
            if not re.fullmatch(r"base/protocols/(conn|http|ftp|smtp)", target):
                self.fail("@load %s: no such script" % target)
            return
        path = os.path.join(os.path.dirname(self.path), target)
        if not os.path.isfile(path):
            self.fail("@load %s: no such script" % target)
        load_file(self.program, path)

    def variable(self, kind):
        where = self.where()
        name = self.new_name()
        type_ = self.type() if self.take(":") else None
        value = None
        if self.take("="):
            value = self.initializer(self.full(name), type_)
        attributes = self.attributes()
        self.expect(";")
        if type_ is None and value is None:
            raise ScriptError("%s: %s has neither a type nor a value" % (where, name))
        if kind == "const" and value is None:
            raise ScriptError("%s: the constant %s has no value" % (where, name))
        if type_ is not None and type_.kind in ("function", "event"):
            kind = type_.kind
        self.declare(name, kind, type_ or value, "&redef" in attributes)

    def initializer(self, full, type_):
        first = self.at
        value = type_
        if self.take("{"):
            while not self.take("}"):
                self.expression()
                if not self.take(","):
                    self.expect("}")
                    break
        else:
            value = self.expression()
            self.fits(type_, value)
        self.program.initial.append((full, self.module, self.tokens[first:self.at]))
        return value

    def redefinition(self):
        if self.take("enum"):
            where = self.where()
            enum = self.lookup(self.new_name(scoped=True))
            if enum.kind != "type" or enum.type.kind != "enum":
                raise ScriptError("%s: this is no enum" % where)
            self.expect("+=")
            self.enumerators(enum.type)
            self.expect(";")
            return
        name = self.new_name(scoped=True)
        found = self.lookup(name)
        if not found.redefinable:
            self.fail("%s is not redefinable" % name)
        if not self.take("+=", "="):
            self.fail("expected '=' or '+=', found '%s'" % self.word)
        full = self.full(name)
        self.initializer(full if full in self.program.names else name, found.type)
        self.expect(";")

    def enumerators(self, enum):
        self.expect("{")
        while not self.take("}"):
            self.declare(self.new_name(), "enumerator", enum)
            if not self.take(","):
                self.expect("}")
                break

    def type_declaration(self):
        name = self.new_name()
        self.expect(":")
        if self.take("enum"):
            enum = Type("enum", name)
            self.declare(name, "type", enum)
            self.enumerators(enum)
        else:
            type_ = self.type()
            attributes = self.attributes()
            if type_.kind == "record":
                type_.name = self.full(name)
                if "&log" in attributes:
                    for field in type_.fields.values():
                        field.log = True
            self.declare(name, "type", type_)
        self.expect(";")

    def attributes(self):
        found = []
        while self.kind == "attribute":
            found.append(self.next())
            if self.take("="):
                self.expression()
        return found

    def function(self, kind):
        where = self.where()
        name = self.new_name(scoped=True)
        parameters = self.parameters()
        result = self.type() if self.take(":") else None
        first = self.at
        self.attributes()
        priority = int("".join(word for _, word, _ in self.tokens[first + 2:self.at]) or 0)
        full = self.full(name)
        if full not in self.program.names and kind == "event" and "::" not in name:
            full = name
        declared = self.program.names.get(full)
        if declared is None:
            if kind == "event" or "::" in name:
                raise ScriptError("%s: '%s' is not declared" % (where, name))
            self.declare(name, "function", Type("function", parameters=parameters, element=result))
        else:
            if declared.kind != kind:
                raise ScriptError("%s: '%s' is no %s" % (where, name, kind))
            wanted = [t.kind for _, t in declared.type.parameters]
            if [t.kind for _, t in parameters] != wanted:
                raise ScriptError("%s: '%s' takes other arguments" % (where, name))
        self.locals = dict(parameters)
        self.result = result
        first = self.at
        self.block()
        self.locals = None
        if not self.optional_names:
            self.program.bodies.append(Body(kind, full, priority, self.module,
                                            [name for name, _ in parameters],
                                            self.tokens[first:self.at]))

    def parameters(self):
        self.expect("(")
        found = []
        while not self.take(")"):
            name = self.new_name()
            self.expect(":")
            found.append((name, self.type()))
            if not self.take(","):
                self.expect(")")
                break
        return found

    # --- types -----------------------------------------------------------------------------------

    def type(self):
        word = self.word
        if self.take("set", "table"):
            self.expect("[")
            index = [self.type()]
            while self.take(","):
                index.append(self.type())
            self.expect("]")
            element = None
            if word == "table":
                self.expect("of")
                element = self.type()
            return Type(word, index=index, element=element)
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
            name = self.new_name()
            if name in fields:
                self.fail("field %s occurs twice" % name)
            self.expect(":")
            type_ = self.type()
            fields[name] = Field(type_, self.attributes())
            self.expect(";")
        return Type("record", fields=fields)

    # --- statements ------------------------------------------------------------------------------

    def block(self):
        self.expect("{")
        while not self.take("}"):
            self.statement()

    def statement(self):
        if self.word == "{" and self.kind == "operator":
            self.block()
        elif self.take("local"):
            name = self.new_name()
            type_ = self.type() if self.take(":") else None
            value = None
            if self.take("="):
                value = self.expression()
                self.fits(type_, value)
            if name in self.locals:
                self.fail("%s is declared twice" % name)
            self.locals[name] = type_ or value
            self.expect(";")
        elif self.take("if"):
            self.expect("(")
            self.expression()
            self.expect(")")
            self.statement()
            if self.take("else"):
                self.statement()
        elif self.take("for"):
            self.for_statement()
        elif self.take("return"):
            if self.word != ";":
                self.fits(self.result, self.expression())
            elif self.result is not None:
                self.fail("a value must be returned")
            self.expect(";")
        elif self.take("next", "break"):
            self.expect(";")
        elif self.take("print", "add", "delete"):
            self.expression()
            self.expect(";")
        elif self.take("event"):
            self.event_call()
            self.expect(";")
        elif self.take("schedule"):
            self.expression()
            self.expect("{")
            self.event_call()
            self.expect("}")
            self.expect(";")
        else:
            target = self.expression()
            if self.take("=", "+="):
                self.fits(target, self.expression())
            self.expect(";")

    def for_statement(self):
        self.expect("(")
        names = []
        if self.take("["):
            names.append(self.new_name())
            while self.take(","):
                names.append(self.new_name())
            self.expect("]")
        else:
            names.append(self.new_name())
        for name in names:
            # The host refuses a global here.
            if self.full(name) in self.program.names or name in self.program.names:
                self.fail("the global %s is used as a loop variable" % name)
        self.expect("in")
        container = self.expression()
        self.expect(")")
        types = None
        if container is not None and container.kind in ("set", "table"):
            types = container.index
        elif container is not None and container.kind == "vector":
            types = [Type("count")]
        if types is not None and len(types) != len(names):
            self.fail("%d loop variables for %d indices" % (len(names), len(types)))
        for i, name in enumerate(names):
            self.locals[name] = types[i] if types else None
        self.statement()

    def event_call(self):
        name = self.new_name(scoped=True)
        found = self.lookup(name)
        if found.kind != "event":
            self.fail("'%s' is no event" % name)
        self.arguments(name, found.type)

    # --- expressions: each gives its Type, or None where it is not known -------------------------

    def fits(self, wanted, value):
        """Whether a record literal suits where it goes."""
        if isinstance(value, RecordValue):
            if wanted is not None and wanted.kind == "record":
                check_fields(self.where(), wanted, set(value.given))
                wanted.constants.update(value.constants)
            elif wanted is not None and wanted.kind != "any":
                self.fail("a record is not expected here")

    LEVELS = [("||",), ("&&",), ("==", "!=", "<", ">", "<=", ">=", "in", "!in"), ("+", "-"),
              ("*", "/", "%")]

    def expression(self, level=0):
        if level == len(self.LEVELS):
            return self.unary()
        left = self.expression(level + 1)
        while self.kind in ("operator", "name") and self.word in self.LEVELS[level]:
            self.next()
            self.expression(level + 1)
            left = left if level > 2 else Type("bool")
        return left

    def unary(self):
        if self.take("!"):
            self.unary()
            return Type("bool")
        if self.take("-", "+"):
            return self.unary()
        return self.postfix(self.primary())

    def primary(self):
        kind, word = self.kind, self.word
        if kind == "string":
            self.next()
            return Type("string")
        if kind == "pattern":
            self.next()
            return Type("pattern")
        if kind == "number":
            self.next()
            return Type("interval" if word[-1].isalpha() else "double" if "." in word else "count")
        if self.take("T", "F"):
            return Type("bool")
        if self.take("("):
            value = self.expression()
            self.expect(")")
            return value
        if self.take("|"):
            # The size of something: its own parsing must stop before the closing bar.
            self.unary()
            self.expect("|")
            return Type("count")
        if self.take("set", "table", "vector"):
            self.expect("(")
            self.expressions(")")
            return None
        if self.take("["):
            return self.bracketed()
        if kind == "name":
            name = self.new_name(scoped=True)
            found = self.lookup(name)
            if self.word == "(" and found.kind in ("function", "local"):
                return self.call(name, found)
            if found.kind == "type":
                return Type("type", element=found.type)
            return found.type
        return self.fail("expected an expression, found '%s'" % word)

    def bracketed(self):
        """[$a=1, $b=2], a record; or [a, b], several indices at once."""
        if self.word != "$":
            self.expressions("]")
            return None
        fields, constants = {}, {}
        while True:
            self.expect("$")
            name = self.new_name()
            if name in fields:
                self.fail("field %s is given twice" % name)
            self.expect("=")
            first = self.at
            fields[name] = self.expression()
            if self.at == first + 1:
                constants[name] = self.tokens[first][1]
            if not self.take(","):
                break
        self.expect("]")
        return RecordValue(fields, constants)

    def expressions(self, end):
        found = []
        while not self.take(end):
            found.append(self.expression())
            if not self.take(","):
                self.expect(end)
                break
        return found

    def arguments(self, name, type_):
        first = self.at + 1
        self.expect("(")
        given = self.expressions(")")
        wanted = type_.parameters
        variable = [p for p, _ in wanted] == ["va_args"]
        if not variable and len(given) != len(wanted):
            self.fail("%s takes %d arguments, not %d" % (name, len(wanted), len(given)))
        for (_, parameter), value in zip(wanted, given):
            if not variable:
                self.fits(parameter, value)
        return given, self.tokens[first][1]

    def call(self, name, found):
        where = self.where()
        if found.type is None or found.type.kind != "function":
            self.fail("'%s' is no function" % name)
        given, first_word = self.arguments(name, found.type)
        if name == "Log::create_stream":
            self.program.streams[first_word] = (given[1].constants["path"].strip('"'),
                                                given[1].given["columns"].element)
        elif name == "Log::write":
            self.program.writes.append((where, first_word, given[1]))
        elif name == "Log::add_filter" and isinstance(given[1], RecordValue):
            self.program.filters.append((where, given[1]))
        return found.type.element

    def postfix(self, value):
        while self.kind == "operator" and self.word in ("$", "?$", "["):
            operator = self.next()
            if operator == "[":
                self.expressions("]")
                has_elements = value is not None and value.kind in ("table", "vector")
                value = value.element if has_elements else None
                continue
            name = self.new_name()
            if value is None or value.kind != "record":
                self.fail("$%s of something that is not known to be a record" % name)
            if name not in value.fields:
                self.fail("%s has no field %s" % (value.name or "the record", name))
            value = Type("bool") if operator == "?$" else value.fields[name].type
        return value


def load_file(program, path):
    path = os.path.normpath(path)
    if path in program.loaded:
        return
    program.loaded.add(path)
    with open(path) as file:
        Parser(program, path, file.read()).parse()


def parse(scripts, stub, host_declarations):
    """All of the plug-in's scripts in the host's order; raises ScriptError."""
    program = Program()
    load_file(program, host_declarations)
    load_file(program, os.path.join(scripts, "__preload__.bro"))
    load_file(program, stub)
    load_file(program, os.path.join(scripts, "__load__.bro"))
    for folder, _, names in sorted(os.walk(scripts)):
        for name in sorted(names):
            load_file(program, os.path.join(folder, name))
    program.check_writes()
    return program


def main(words):
    columns = words[:1] == ["--columns"]
    try:
        program = parse(*words[1 if columns else 0:])
    except (ScriptError, OSError) as error:
        print(error, file=sys.stderr)
        return 1
    if columns:
        for row in program.columns():
            print("\t".join(row))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
