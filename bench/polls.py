"""Clients that wait for events: many long polls held open from one thread."""

import json
import selectors
import socket
import time

from load import BenchError, Exchange, ask_once, post_json

COUNTER_PATH = "demo:volatile/counter"
POLL_SECONDS = 60


def make_queue(device):
    exchange = post_json("/api/event/modifyQueue", {"subscribe": [{"path": COUNTER_PATH}]})
    return json.loads(ask_once(device, exchange))


def poll_request(queue):
    head = f"GET /api/event/pollQueue?queueId={queue}&timeout={POLL_SECONDS} HTTP/1.1\r\nHost: localhost\r\n\r\n"
    return head.encode()


def write_request(value):
    body = json.dumps({"path": COUNTER_PATH, "role": "value", "value": value})
    head = "POST /api/setData HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
    return f"{head}Content-Length: {len(body)}\r\n\r\n{body}".encode()


class WaitingPolls:
    """`count` polls, each of a queue and on a connection of its own, which all wait for the same node."""

    def __init__(self, device, count):
        self.device = device
        self.value = 0
        self.selector = selectors.EpollSelector()
        self.clients = []
        for _ in range(count):
            client = socket.create_connection(("127.0.0.1", device.port))
            self.clients.append((client, poll_request(make_queue(device))))
            self.selector.register(client, selectors.EVENT_READ)

    def __enter__(self):
        self.ask()
        return self

    def __exit__(self, *_):
        self.selector.close()
        for client, _ in self.clients:
            client.close()

    def ask(self):
        for client, request in self.clients:
            client.sendall(request)
        # An answer behind them all: they have been handled.
        ask_once(self.device, Exchange("/api/getData?path=player:player/volume&roles=value"))

    def round_trip(self):
        """Milliseconds from the start of one write to each of the answers that tell of it, shortest first. All ask
        again afterwards."""
        self.value += 1
        with socket.create_connection(("127.0.0.1", self.device.port)) as writer:
            started = time.monotonic()
            writer.sendall(write_request(self.value))
            times = self.wait(started)
        self.ask()
        return sorted(times)

    def wait(self, started):
        times, bodies = [], {}
        while len(times) < len(self.clients):
            ready = self.selector.select(5)
            if not ready:
                raise BenchError(f"{len(self.clients) - len(times)} polls were not answered")
            now = time.monotonic()
            for key, _ in ready:
                text = bodies.get(key.fd, b"") + key.fileobj.recv(65536)
                bodies[key.fd] = text
                if text.endswith(b"]"):
                    times.append((now - started) * 1000)
        if not all(f'"value":{self.value}}}'.encode() in text for text in bodies.values()):
            raise BenchError("a poll was answered with something else")
        return times


def requests_in(server, target, seconds):
    """The answers that one client gets in so many seconds to the same request, one after another on one connection."""
    request = f"GET {target} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode()
    count = 0
    with socket.create_connection(("127.0.0.1", server.port)) as client:
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            client.sendall(request)
            text = b""
            while not text.endswith(b"]"):
                text += client.recv(65536)
            count += 1
    return count


def events_in(device, seconds):
    """The answers with an event that one client gets in so many seconds: it polls one queue on one connection, and the
    node is written again as soon as the answer to it is there."""
    request = poll_request(make_queue(device))
    count = 0
    with socket.create_connection(("127.0.0.1", device.port)) as poller, socket.create_connection(
        ("127.0.0.1", device.port)
    ) as writer:
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            poller.sendall(request)
            writer.sendall(write_request(1000 + count))
            text = b""
            while not text.endswith(b"]"):
                text += poller.recv(65536)
            if b'"value"' not in text:
                raise BenchError(f"no event: {text!r}")
            writer.recv(65536)
            count += 1
    return count
