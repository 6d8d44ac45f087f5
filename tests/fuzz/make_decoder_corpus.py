"""Makes tests/fuzz/corpus/decoder anew, the inputs that DecoderFuzz starts from.

    make_decoder_corpus.py BUILD_DIR FOLDER

Real events: the plug-in's own writer (WitnessSender, which sends one of each kind through libzmq)
into `zmqwriter collect --format raw`. Each is saved as it came, truncated, and with flipped bits, and
all of them together as one framed file. The damage is the same every time; the events differ in
their time zone and in the times of the machine's statistics.
"""

import hashlib
import os
import random
import re
import struct
import subprocess
import sys
import tempfile


def real_events(build):
    """The messages of one run, in the order of their coming."""
    program = os.path.join(build, "bin", "zmqwriter")
    sender = os.path.join(build, "tests", "WitnessSender")
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run([program, "keygen"], cwd=folder, check=True, capture_output=True)
        with open(os.path.join(folder, "server.public")) as file:
            key = file.read().strip()
        collector = subprocess.Popen(
            [program, "collect", "--bind", "tcp://127.0.0.1:*", "--secret-key", "server.secret",
             "--format", "raw", "--timeout", "5"],
            cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        line = collector.stderr.readline().decode()
        endpoint = re.match(r"listening on (\S+)\n", line).group(1)
        subprocess.run([sender, endpoint, key], cwd=folder, check=True)
        content = collector.communicate()[0]
    messages = []
    while content:
        size, = struct.unpack_from("<I", content)
        messages.append(content[4:4 + size])
        content = content[4 + size:]
    return messages


def damaged(message, chance):
    """Some truncations and bit flips of a message."""
    for _ in range(2):
        yield message[:chance.randrange(1, len(message))]
    for flips in (1, 2, 8):
        flipped = bytearray(message)
        for bit in chance.sample(range(8 * len(message)), flips):
            flipped[bit // 8] ^= 1 << bit % 8
        yield bytes(flipped)


def main():
    build, folder = sys.argv[1:]
    os.makedirs(folder, exist_ok=True)
    messages = real_events(build)
    chance = random.Random(1)
    inputs = list(messages)
    for message in messages:
        inputs.extend(damaged(message, chance))
    framed = b"".join(struct.pack("<I", len(message)) + message for message in messages)
    inputs += [framed, framed[:-3], b"", b"\0" * 8, b"\xff" * 64]
    for content in inputs:
        with open(os.path.join(folder, hashlib.sha1(content).hexdigest()), "wb") as file:
            file.write(content)
    print("%d events, %d inputs" % (len(messages), len(set(inputs))))


if __name__ == "__main__":
    main()
