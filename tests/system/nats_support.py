"""Servers of NATS JetStream for tests, and a client of theirs on a plain socket."""

import base64
import binascii
import ctypes
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import time
import unittest

from cli_support import BUILD_DIR, DEADLINE, Port, read_file, wait_for, write_file
from curve_client import sodium

NATS_SERVER = shutil.which("nats-server") or shutil.which("nats-server", path="/usr/sbin")
CACHE = os.path.join(BUILD_DIR, "CMakeCache.txt")
WITH_NATS = not os.path.exists(CACHE) or "ZMQWRITER_HAS_NATS:INTERNAL=ON" in read_file(CACHE)
needs_nats = unittest.skipUnless(NATS_SERVER and WITH_NATS,
                                 "needs nats-server, and a program that was built with libnats")


class NatsServer:
    """Keeps its port and its store in a folder of its own, however often it is started."""

    def __init__(self, folder, config="", name="nats", host="127.0.0.1", jetstream=True,
                 **options):
        """`config` is further text of its configuration file, `options` are those of Popen."""
        self.folder = os.path.abspath(os.path.join(folder, name))
        os.makedirs(self.folder)
        self.name, self.host, self.options, self.process = name, host, options, None
        self.reserved = Port()
        self.port = self.reserved.number
        self.url = f"nats://{host}:{self.port}"
        self.configure(config, jetstream)

    def configure(self, config, jetstream=True):
        """For the next start or reload()."""
        store = f'jetstream {{ store_dir: "{self.folder}" }}\n' if jetstream else ""
        write_file(self.folder + "/config", f'server_name: {self.name}\n'
                   f'listen: "{self.host}:{self.port}"\n{store}{config}')

    def launch(self):
        with open(self.folder + "/log", "ab") as log:
            self.process = subprocess.Popen([NATS_SERVER, "-c", self.folder + "/config"],
                                            stdout=log, stderr=log, **self.options)
        return self

    def start(self):
        ready = self.log().count("Server is ready")
        self.launch()
        wait_for(lambda: self.log().count("Server is ready") > ready
                 or self.process.poll() is not None, "the server")
        assert self.process.poll() is None, self.log()
        return self

    def log(self):
        path = self.folder + "/log"
        return read_file(path) if os.path.exists(path) else ""

    def reload(self, config):
        done = self.log().count("Reloaded")
        self.configure(config)
        self.process.send_signal(signal.SIGHUP)
        wait_for(lambda: self.log().count("Reloaded") > done, "the configuration")

    def end(self, number):
        if self.process:
            self.process.send_signal(number)
            self.process.send_signal(signal.SIGCONT)
            self.process.wait(DEADLINE)
            self.process = None

    def stop(self):
        self.end(signal.SIGTERM)

    def kill(self):
        self.end(signal.SIGKILL)

    def freeze(self):
        self.process.send_signal(signal.SIGSTOP)

    def thaw(self):
        self.process.send_signal(signal.SIGCONT)

    def client(self, **options):
        return NatsClient(self.port, self.host, **options)


class NatsCluster:
    """Several servers that replicate to each other."""

    def __init__(self, folder, size=3, config="", **options):
        self.servers = [NatsServer(folder, name=f"nats{n}", **options) for n in range(1, size + 1)]
        self.routes = [Port() for _ in self.servers]
        urls = ", ".join(f'"nats://127.0.0.1:{route.number}"' for route in self.routes)
        for server, route in zip(self.servers, self.routes):
            server.configure(f'cluster {{ name: test, listen: "127.0.0.1:{route.number}", '
                             f'routes: [{urls}] }}\n' + config)
        self.url = ",".join(server.url for server in self.servers)

    def start(self):
        """Those that do not run. Waits until each answers, and all together take a stream."""
        for server in self.servers:
            if not server.process:
                server.launch()
        wait_for(lambda: all(map(self._ready, self.servers)), "the cluster")
        return self

    def _ready(self, server):
        try:
            with server.client() as client:
                client.request("$JS.API.STREAM.CREATE.ready", {
                    "name": "ready", "subjects": ["ready"], "num_replicas": len(self.servers)},
                               timeout=1)
                return client.delete_stream("ready")
        except OSError:
            return None

    def stop(self):
        for server in self.servers:
            server.stop()

    def kill(self):
        for server in self.servers:
            server.kill()

    def leader(self, stream):
        """The server that leads the stream."""
        def look():
            for server in self.servers:
                try:
                    with server.client() as client:
                        name = client.stream(stream, timeout=1)["cluster"]["leader"]
                    return next(other for other in self.servers if other.name == name)
                except (OSError, KeyError, StopIteration):
                    pass
            return None
        return wait_for(look, "a leader of " + stream)


class NatsError(OSError):
    """What a server refused."""


class NatsClient:
    """`connect` is what the server is told, e.g. user and pass."""

    def __init__(self, port, host="127.0.0.1", tls=None, **connect):
        self.socket = socket.create_connection((host, port), 10)
        self.requests = 0
        with self.socket.makefile("rb", 0) as first:
            self.info = json.loads(self._line(first)[5:])
        if tls:
            self.socket = tls.wrap_socket(self.socket, server_hostname=host)
        self.file = self.socket.makefile("rb")
        self.inbox = "inbox." + base64.b16encode(os.urandom(8)).decode()
        self._send("CONNECT " + json.dumps({"verbose": False, "headers": True, "lang": "test",
                                            "no_responders": True, **connect}), "PING")
        while self._line(self.file) != b"PONG":
            pass
        self._send(f"SUB {self.inbox}.* 1")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.file.close()
        self.socket.close()

    @staticmethod
    def _line(file):
        line = file.readline()
        if not line.endswith(b"\n") or line.startswith(b"-ERR"):
            raise NatsError(line.decode().strip() or "closed by the server")
        return line.strip()

    def _send(self, *lines):
        self.socket.sendall("".join(line + "\r\n" for line in lines).encode())

    def publish(self, subject, payload=b"", reply="", headers=None):
        block = b""
        if headers:
            block = "".join(["NATS/1.0\r\n"] + [f"{name}: {value}\r\n" for name, value
                                                in headers.items()] + ["\r\n"]).encode()
        sizes = f"{len(block)} {len(block + payload)}" if block else str(len(payload))
        self.socket.sendall(f"{'HPUB' if block else 'PUB'} {subject} {reply} {sizes}\r\n".encode()
                            + block + payload + b"\r\n")

    def receive(self, timeout=30):
        """The next message: its subject, reply, status line and headers, payload."""
        self.socket.settimeout(timeout)
        while True:
            kind, *words = self._line(self.file).decode().split(" ")
            if kind == "PING":
                self._send("PONG")
            elif kind in ("MSG", "HMSG"):
                total = int(words[-1])
                body = self.file.read(total + 2)[:total]
                size = int(words[-2]) if kind == "HMSG" else 0
                status, *headers = body[:size].decode().split("\r\n")
                reply = words[2] if len(words) - (kind == "HMSG") == 4 else ""
                return words[0], reply, status, dict(
                    re.split(": ?", header, maxsplit=1) for header in headers if header), body[size:]

    def request(self, subject, payload=None, timeout=30, headers=None):
        """The answer as an object. Raises NatsError with the words of a refusal."""
        self.requests += 1
        inbox = f"{self.inbox}.{self.requests}"
        if not isinstance(payload, bytes):
            payload = json.dumps(payload).encode() if payload is not None else b""
        self.publish(subject, payload, inbox, headers)
        end = time.monotonic() + timeout
        while True:
            to, _, status, _, body = self.receive(max(0.01, end - time.monotonic()))
            if to != inbox:
                continue
            if status.startswith("NATS/1.0 503"):
                raise NatsError("no responders")
            answer = json.loads(body)
            if "error" in answer:
                raise NatsError(answer["error"]["description"])
            return answer

    # ---- JetStream ----

    def make_stream(self, name, **config):
        """E.g. subjects=[...], num_replicas=3, discard="new"."""
        return self.request("$JS.API.STREAM.CREATE." + name, {"name": name, **config})

    def change_stream(self, name, **config):
        return self.request("$JS.API.STREAM.UPDATE." + name,
                            {**self.stream(name)["config"], **config})

    def delete_stream(self, name):
        return self.request("$JS.API.STREAM.DELETE." + name)

    def stream(self, name, timeout=30):
        """What the engine tells about the stream: "config", "state", "cluster"."""
        return self.request("$JS.API.STREAM.INFO." + name, timeout=timeout)

    def messages(self, stream, first=1, batch=1000):
        """All messages of the stream from this number on: subject, headers, payload of each."""
        left = self.stream(stream)["state"]["last_seq"] + 1 - first
        if left <= 0:
            return
        consumer = self.request("$JS.API.CONSUMER.CREATE." + stream, {
            "stream_name": stream, "config": {
                "deliver_policy": "by_start_sequence", "opt_start_seq": first,
                "ack_policy": "none", "replay_policy": "instant", "num_replicas": 1}})["name"]
        ask = f"$JS.API.CONSUMER.MSG.NEXT.{stream}.{consumer}"
        waiting = True
        while waiting:
            self.requests += 1
            inbox = f"{self.inbox}.{self.requests}"
            self.publish(ask, json.dumps({"batch": batch, "no_wait": True}).encode(), inbox)
            for _ in range(batch):
                subject, _, status, headers, payload = self.receive()
                if status.startswith("NATS/1.0 "):
                    waiting = False
                    break
                yield subject, headers, payload
        self.request(f"$JS.API.CONSUMER.DELETE.{stream}.{consumer}")


def make_certificates(folder="."):
    """ca.pem, other-ca.pem, and of each of these server and client: NAME.pem, NAME.key, for
    127.0.0.1. Those of the other CA have the names other-server and other-client."""
    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], cwd=folder, check=True, capture_output=True)
    new_key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    write_file(os.path.join(folder, "names"), "subjectAltName=IP:127.0.0.1,DNS:localhost\n")
    for kind in ("", "other-"):
        openssl("req", "-x509", *new_key, "-keyout", kind + "ca.key", "-out", kind + "ca.pem",
                "-subj", f"/CN={kind}ca", "-days", "2")
        for who in (kind + "server", kind + "client"):
            openssl("req", *new_key, "-keyout", who + ".key", "-out", who + ".csr", "-subj",
                    "/CN=" + who)
            openssl("x509", "-req", "-in", who + ".csr", "-CA", kind + "ca.pem", "-CAkey",
                    kind + "ca.key", "-CAcreateserial", "-out", who + ".pem", "-days", "2",
                    "-extfile", "names")


class Nkey:
    """A key pair of Ed25519 in the engine's text form. `kind` is O (operator), A (account), U (user)."""

    def __init__(self, kind):
        letter = "ABCDEFGHIJKLMNOPQRSTUVWXYZ".index(kind) << 3
        seed, public = os.urandom(32), ctypes.create_string_buffer(32)
        self.secret = ctypes.create_string_buffer(64)
        sodium.crypto_sign_seed_keypair(public, self.secret, seed)
        self.public = self.text(bytes([letter]) + public.raw)
        self.seed = self.text(bytes([18 << 3 | letter >> 5, (letter & 31) << 3]) + seed)

    @staticmethod
    def text(key):
        return base64.b32encode(key + struct.pack("<H", binascii.crc_hqx(key, 0))).decode().rstrip("=")

    def sign(self, subject, **claims):
        """A token that says so of the subject."""
        def encode(part):
            part = part if isinstance(part, bytes) else json.dumps(part).encode()
            return base64.urlsafe_b64encode(part).decode().rstrip("=")
        text = encode({"typ": "JWT", "alg": "ed25519-nkey"}) + "." + encode(
            {"jti": os.urandom(8).hex(), "iat": int(time.time()), "iss": self.public, "name": "test",
             "sub": subject.public, "nats": {"version": 2, **claims}})
        signature = ctypes.create_string_buffer(64)
        sodium.crypto_sign_detached(signature, None, text.encode(), ctypes.c_ulonglong(len(text)),
                                    self.secret)
        return text + "." + encode(signature.raw)


def make_credentials(path):
    """A file of a user's credentials; the configuration of a server that takes them."""
    operator, account, system, user = (Nkey(kind) for kind in "OAAU")
    limits = dict.fromkeys(("subs", "data", "payload", "conn", "leaf", "imports", "exports"), -1)
    stores = dict.fromkeys(("mem_storage", "disk_storage", "streams", "consumer"), -1)
    write_file(path, f"""-----BEGIN NATS USER JWT-----
{account.sign(user, type="user", subs=-1, data=-1, payload=-1)}
------END NATS USER JWT------

-----BEGIN USER NKEY SEED-----
{user.seed}
------END USER NKEY SEED------
""")
    accounts = "".join(
        f'{one.public}: "{operator.sign(one, type="account", limits=most)}"\n'
        for one, most in ((account, {**limits, **stores}), (system, limits)))
    return (f'operator: "{operator.sign(operator, type="operator")}"\nresolver: MEMORY\n'
            f'system_account: {system.public}\nresolver_preload {{ {accounts} }}\n')
