"""A CURVE client of ZeroMQ on a plain socket.

libzmq's own sends no message before it is complete, and cannot stop in the middle of a handshake.
"""

import ctypes
import ctypes.util
import itertools
import os
import socket
import struct

GREETING = b"\xff" + bytes(8) + b"\x7f\x03\0" + b"CURVE".ljust(20, b"\0") + bytes(32)
GREETING_SIZE, WELCOME_SIZE, COMMAND, LONG, MORE = 64, 168, 4, 2, 1
library = ctypes.util.find_library("sodium")
sodium = library and ctypes.CDLL(library)


def box(text, nonce, public, secret):
    sealed = ctypes.create_string_buffer(len(text) + 16)
    assert sodium.crypto_box_easy(sealed, text, ctypes.c_ulonglong(len(text)), nonce, public,
                                  secret) == 0
    return sealed.raw


def key_pair():
    public, secret = ctypes.create_string_buffer(32), ctypes.create_string_buffer(32)
    sodium.crypto_box_keypair(public, secret)
    return public.raw, secret.raw


def frame(body, flags=0):
    size = struct.pack(">BQ", flags | LONG, len(body))
    return (bytes([flags, len(body)]) if len(body) < 256 else size) + body


class CurveClient:
    """A PUSH client of the server with this public key (32 bytes)."""

    def __init__(self, port, key, only_hello=False):
        self.socket, self.numbers = socket.create_connection(("127.0.0.1", port), 5), itertools.count(1)
        self.short_public, self.short_secret = key_pair()
        self.socket.sendall(GREETING)
        self.receive(GREETING_SIZE)
        number = self.next_number()
        self.socket.sendall(frame(
            b"\x05HELLO\1\0" + bytes(72) + self.short_public + number
            + box(bytes(64), b"CurveZMQHELLO---" + number, key, self.short_secret), COMMAND))
        welcome = self.receive(2 + WELCOME_SIZE)[2:]
        if only_hello:
            return
        opened = ctypes.create_string_buffer(128)
        assert sodium.crypto_box_open_easy(
            opened, welcome[24:], ctypes.c_ulonglong(144), b"WELCOME-" + welcome[8:24], key,
            self.short_secret) == 0
        server, cookie = opened.raw[:32], opened.raw[32:]
        public, secret = key_pair()
        number, vouch = self.next_number(), os.urandom(16)
        vouch += box(self.short_public + key, b"VOUCH---" + vouch, server, secret)
        metadata = b"\x0bSocket-Type\0\0\0\x04PUSH"
        self.socket.sendall(frame(
            b"\x08INITIATE" + cookie + number
            + box(public + vouch + metadata, b"CurveZMQINITIATE" + number, server,
                  self.short_secret), COMMAND))
        flags, size = self.receive(2)
        assert flags == COMMAND and self.receive(size).startswith(b"\x05READY")
        self.shared = ctypes.create_string_buffer(32)
        sodium.crypto_box_beforenm(self.shared, server, self.short_secret)

    def next_number(self):
        return struct.pack(">Q", next(self.numbers))

    def receive(self, size):
        got = b""
        while len(got) < size:
            more = self.socket.recv(size - len(got))
            if not more:
                raise ConnectionError("closed by the collector")
            got += more
        return got

    def sealed(self, text, flags=0):
        number = self.next_number()
        text = bytes([flags]) + text
        out = ctypes.create_string_buffer(len(text) + 16)
        sodium.crypto_box_easy_afternm(out, text, ctypes.c_ulonglong(len(text)),
                                       b"CurveZMQMESSAGEC" + number, self.shared)
        return frame(b"\x07MESSAGE" + number + out.raw)

    def send(self, text, flags=0):
        self.socket.sendall(self.sealed(text, flags))
