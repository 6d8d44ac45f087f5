"""The attackers of attacks.py: each goes on until it is killed.

    attackers.py NAME PORT STATUS-PORT PUBLIC-KEY COUNT

It prints "attacking" once it has begun in earnest. CURVE is spoken here on plain sockets, because
libzmq sends no message before it is complete, and none that is larger than agreed.
"""

import itertools
import os
import random
import resource
import socket
import struct
import sys
import time

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
os.environ.setdefault("ZMQWRITER_SOURCE_DIR", SOURCE)
os.environ.setdefault("ZMQWRITER_BUILD_DIR", SOURCE + "/build")
os.environ.setdefault("ZMQWRITER_FLATC", "flatc")
sys.path.insert(0, SOURCE + "/tests/system")
import cli_support as cli  # pylint: disable=wrong-import-position
from curve_client import GREETING, LONG, MORE, CurveClient, sodium  # pylint: disable=wrong-import-position

HOST = "127.0.0.1"


class Target:
    def __init__(self, port, status_port, key):
        self.port, self.status_port, self.key = int(port), int(status_port), bytes.fromhex(key)

    def connect(self, port=None):
        return socket.create_connection((HOST, port or self.port), 5)

    def agent(self):
        from zmq.utils import z85
        agent = cli.zmq.Context.instance().socket(cli.zmq.PUSH)
        agent.sndhwm, agent.linger = 10, 0
        agent.curve_publickey, agent.curve_secretkey = cli.zmq.curve_keypair()
        agent.curve_serverkey = z85.encode(self.key)
        agent.connect(f"tcp://{HOST}:{self.port}")
        return agent


def again_and_again(attack):
    """Repeats the attack on new connections, as the collector ends them."""
    print("attacking", flush=True)
    while True:
        try:
            attack()
        except OSError:
            time.sleep(0.01)


def garbage(target, _):
    def attack():
        with target.connect() as client:
            for _ in range(16):
                client.sendall(random.randbytes(4096))
    again_and_again(attack)


def http_requests(target, _):
    def attack():
        with target.connect() as client:
            client.sendall(b"GET / HTTP/1.1\r\nHost: collector\r\n\r\n" * 10)
            while client.recv(4096):
                pass
    again_and_again(attack)


def idle_connections(target, count):
    """A third says nothing, a third only greets, a third stops in the middle of the handshake."""
    def attack(number):
        if number % 3 == 2:
            return CurveClient(target.port, target.key, only_hello=True).socket
        client = target.connect()
        if number % 3 == 1:
            client.sendall(GREETING)
        return client
    clients = [attack(number) for number in range(count)]
    print("attacking", flush=True)
    while True:
        for number, client in enumerate(clients):
            try:
                client.setblocking(False)
                while client.recv(4096):
                    pass
                client.close()
                clients[number] = attack(number)
            except BlockingIOError:
                pass
            except OSError:
                client.close()
                clients[number] = target.connect()
        time.sleep(0.1)


def clients_with_curve(target, count):
    event = cli.make_event(agent=b"one of many")
    clients = [target.agent() for _ in range(count)]
    for client in clients:
        client.send(event)
    print("attacking", flush=True)
    while True:
        for client in clients:
            try:
                client.send(event, cli.zmq.DONTWAIT)
            except cli.zmq.Again:
                pass


def large_messages(target, _):
    def attack():
        client = CurveClient(target.port, target.key)
        client.socket.sendall(struct.pack(">BQ", LONG, 100 << 20) + b"\x07MESSAGE")
        for _ in range(100):
            client.socket.sendall(bytes(1 << 20))
        sys.exit("the collector took 100 MB as one message")
    again_and_again(attack)


def messages(make):
    """An attack by messages from one connection, as fast as they are taken."""
    def attacker(target, _):
        agent = target.agent()
        print("attacking", flush=True)
        for number in itertools.count():
            agent.send(make(number))
    return attacker


def hostile_event(number):
    name = [b"agent-%d", b"\x1b[2J\0\n\xff%d", b"</table><script>alert(%d)</script>",
            b"%d" + b"x" * (65536 if number % 16 == 3 else 0)][number % 4] % (number // 4)
    return cli.make_event(agent=name)


def endless_messages(target, count):
    part = bytes(1 << 18)
    clients = {}

    def attack():
        for number in range(count):
            try:
                if number not in clients:
                    clients[number] = CurveClient(target.port, target.key)
                clients[number].send(part, MORE)
            except OSError:
                clients.pop(number, None)
                raise
    again_and_again(attack)


def slow_requests(target, count):
    clients = []
    for _ in range(count):
        clients.append(target.connect(target.status_port))
        clients[-1].sendall(b"GET /metrics HTTP/1.1\r\nX-Slow: ")
    print("attacking", flush=True)
    while True:
        for number, client in enumerate(clients):
            try:
                client.sendall(b"x")
            except OSError:
                clients[number] = target.connect(target.status_port)
                clients[number].sendall(b"GET /metrics HTTP/1.1\r\nX-Slow: ")
        time.sleep(1)


# Title, attacker, how many of what it attacks with (also in the quick form), and in which metric
# that must show and how often; of connections nine in ten, because the collector ends some.
ATTACKS = [
    ("garbage bytes", garbage, 1, 1, ('handshakes_failed_total{reason="protocol"}', 10)),
    ("HTTP to the ZeroMQ port", http_requests, 1, 1,
     ('handshakes_failed_total{reason="protocol"}', 10)),
    ("idle, half-open connections", idle_connections, 5000, 200, ("process_open_fds", 200)),
    ("clients with CURVE", clients_with_curve, 600, 50, ("collect_connections", 51)),
    ("messages of 100 MB", large_messages, 1, 1, ("collect_connections", 1)),
    ("rubbish in CURVE", messages(lambda n: random.randbytes(n % 5000 + 1)), 1, 1,
     ('bad_messages_total{reason="malformed"}', 100)),
    ("empty messages", messages(lambda n: b""), 1, 1, ('bad_messages_total{reason="empty"}', 100)),
    ("hostile agent names", messages(hostile_event), 1, 1, ("agent_events_total", 500)),
    ("endless multi-part messages", endless_messages, 4, 4, ("memory_limit_total", 1)),
    ("slow HTTP clients", slow_requests, 50, 50, ("process_open_fds", 65)),
]


if __name__ == "__main__":
    name, *arguments, number = sys.argv[1:]
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    for title, attacker, *_ in ATTACKS:
        if title == name:
            attacker(Target(*arguments), int(number))
