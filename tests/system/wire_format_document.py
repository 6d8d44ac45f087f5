"""What the tests of docs/wire-format.md share: its blocks, its tables, and a reader of buffers.

The reader knows the rules of FlatBuffers and src/aggregator.fbs, and uses no library for either. It
tells of every byte of a message what it is.

    wire_format_document.py < MESSAGE

prints the table of the document's example for a message, for those who have to write it anew.
"""

import ipaddress
import os
import re
import struct
import sys

SOURCE_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")

# Format and bytes of what stands in a table itself; "I" for offsets.
SCALARS = {"byte": ("b", 1), "ubyte": ("B", 1), "ushort": ("H", 2), "int": ("i", 4),
           "uint": ("I", 4), "ulong": ("Q", 8), "double": ("d", 8)}


def read_source(*path):
    with open(os.path.join(SOURCE_DIR, *path), encoding="utf-8") as file:
        return file.read()


# ---- the document ----

def block(kind):
    """The lines of the block that begins with ```KIND."""
    found = re.search(r"^```%s\n(.*?)^```$" % re.escape(kind), read_source("docs", "wire-format.md"),
                      re.M | re.S)
    if not found:
        raise AssertionError("docs/wire-format.md has no block ```%s" % kind)
    return found.group(1)


def example_message():
    return bytes.fromhex("".join(line[8:] for line in block("hex").splitlines()))


def example_rows():
    """(offset, bytes, what, value) as the document's table gives them."""
    return [(int(offset, 16), bytes.fromhex(digits), what, value) for offset, digits, what, value in
            re.findall(r"^\| (0x[0-9a-f]{4}) \| `([0-9a-f ]+)` \| (.*) \| (.*) \|$",
                       read_source("docs", "wire-format.md"), re.M)]


def documented_tables():
    """The field tables by name: lists of (number, name, type)."""
    tables = {}
    for section in re.split(r"^### ", read_source("docs", "wire-format.md"), flags=re.M)[1:]:
        name = re.match(r"`(\w+)`", section)
        rows = re.findall(r"^\| (\d+) \| `(\w+)` \| ([^|]+) \|", section, re.M)
        if name and "| Field |" in section:
            tables[name.group(1)] = [(int(number), field, kind) for number, field, kind in rows]
    return tables


# ---- the schema ----

def schema_tables():
    """As documented_tables, from the schema. A union takes two numbers: its tag and itself."""
    text = re.sub(r"//.*", "", read_source("src", "aggregator.fbs"))
    tables = {}
    for name, body in re.findall(r"\btable (\w+) \{(.*?)\}", text, re.S):
        fields = []
        for field, kind in re.findall(r"(\w+):\s*([\w\[\]]+)", body):
            if kind == "Data":
                fields.append((len(fields), field + "_type", "ubyte"))
                kind = "union `Data`"
            fields.append((len(fields), field, kind))
        tables[name] = fields
    return tables


def schema_values(kind, name):
    """The names of an enumeration or union by number."""
    text = read_source("src", "aggregator.fbs")
    body = re.search(r"\b%s %s\b[^{]*\{(.*?)\}" % (kind, name), text, re.S).group(1)
    return {int(number): value for value, number in re.findall(r"(\w+) = (\d+)", body)}


# ---- a message, byte by byte ----

class Annotator:
    """Collects (offset, bytes, what, value) for every byte of a message."""

    def __init__(self, message):
        self.message = message
        self.tables = schema_tables()
        self.unions = schema_values("union", "Data")
        self.transports = schema_values("enum", "Transport")
        self.rows = []
        root, = struct.unpack_from("<I", message)
        self.add(0, 4, "root", "the `NetworkEvent` at 0x%04x" % root)
        self.table("NetworkEvent", root)
        self.gaps()

    def add(self, at, size, what, value):
        self.rows.append((at, self.message[at:at + size], what, value))

    def table(self, name, at):
        back, = struct.unpack_from("<i", self.message, at)
        slots = self.vtable(name, at - back)
        self.add(at, 4, "`%s`" % name, "its vtable is at 0x%04x" % (at - back))
        tag = 0
        for (_, field, kind), slot in zip(self.tables[name], slots):
            if slot:
                value = self.field(field, kind, at + slot, tag)
                tag = value if field.endswith("_type") else tag

    def vtable(self, name, at):
        size, table_size = struct.unpack_from("<HH", self.message, at)
        self.add(at, 4, "vtable of `%s`" % name,
                 "it has %d bytes, the table %d" % (size, table_size))
        slots = struct.unpack_from("<%dH" % ((size - 4) // 2), self.message, at + 4)
        for first in range(0, len(slots), 8):
            part = slots[first:first + 8]
            names = [field for _, field, _ in self.tables[name]][first:first + 8]
            self.add(at + 4 + 2 * first, 2 * len(part), "fields %d to %d" % (first, first + len(part) - 1),
                     ", ".join("`%s` %s" % (field, slot or "absent")
                               for field, slot in zip(names, part)))
        return slots

    def field(self, name, kind, at, tag):
        """Adds a field and what it refers to; returns the value of a number."""
        what = "`%s`" % name
        if kind in SCALARS or kind == "Transport":
            code, size = SCALARS.get(kind, SCALARS["byte"])
            value, = struct.unpack_from("<" + code, self.message, at)
            text = repr(value)
            if kind == "Transport":
                text += ", `%s`" % self.transports[value]
            if name.endswith("_type"):
                text += ", `%s`" % self.unions[value]
            self.add(at, size, what, text)
            return value
        offset, = struct.unpack_from("<I", self.message, at)
        self.add(at, 4, what, "0x%02x further: at 0x%04x" % (offset, at + offset))
        if kind == "string":
            self.text(at + offset, what)
        elif kind == "[byte]":
            self.address(at + offset, what)
        elif kind.startswith("union"):
            self.table(self.unions[tag], at + offset)
        else:
            raise AssertionError("the example has a field of the type " + kind)
        return None

    def text(self, at, what):
        length, = struct.unpack_from("<I", self.message, at)
        end = at + 4 + length
        assert self.message[end:end + 1] == b"\0", "no zero behind the text at 0x%04x" % at
        value = self.message[at + 4:end].decode()
        self.add(at, 4 + length + 1, "text of " + what,
                 '%d bytes, "%s", and a zero' % (length, value) if length else "empty, and a zero")

    def address(self, at, what):
        length, = struct.unpack_from("<I", self.message, at)
        address = self.message[at + 4:at + 4 + length]
        self.add(at, 4 + length, "bytes of " + what,
                 "%d bytes, %s" % (length, ipaddress.ip_address(address)))

    def gaps(self):
        """What nothing refers to: zeros that align, and texts that no field uses."""
        at = 0
        for start, content, _, _ in sorted(self.rows) + [(len(self.message), b"", "", "")]:
            assert start >= at, "two things share the bytes from 0x%04x on" % start
            while at < start:
                gap = self.message[at:start]
                if not any(gap):
                    self.add(at, len(gap), "padding", "")
                    at = start
                elif at % 4:
                    self.add(at, -at % 4, "padding", "")
                    at += -at % 4
                else:
                    self.text(at, "no field")
                    at += len(self.rows[-1][1])
            at = start + len(content)
        self.rows.sort()


def main():
    for at, content, what, value in Annotator(sys.stdin.buffer.read()).rows:
        print("| 0x%04x | `%s` | %s | %s |" % (at, content.hex(" "), what, value))


if __name__ == "__main__":
    main()
